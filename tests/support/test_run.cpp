#include "tests/support/test_run.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/windows_api.h"
#include "tests/support/watchdog.h"

namespace {

constexpr long kGreatestSeed = 99999;

// A test that may say on some systems that it cannot be run there.
struct ExcusedTest {
  const char* name;  // "Suite.Test" or its beginning
  const char* reason;
};
constexpr ExcusedTest kExcused[] = {
    {"Wine/OsVersionReported.RealFunctionsAnswerAccordingly/",
     "Windows reports its own version; the same table is run against functions that are replaced"},
};

bool IsExcused(const std::string& test) {
  for (const ExcusedTest& excused : kExcused) {
    if (test.starts_with(excused.name)) {
      return true;
    }
  }
  return false;
}

// Follows the run: tells the watchdog what runs, and lets a test fail that was skipped.
class RunListener : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& test) override { WatchTest(NameOf(test).c_str()); }

  void OnTestEnd(const testing::TestInfo& test) override {
    if (test.result()->Skipped() && !IsExcused(NameOf(test))) {
      ADD_FAILURE() << "skipped, and not among the excused tests in " << __FILE__;
    }
    WatchTest("what comes between two tests");
  }

 private:
  static std::string NameOf(const testing::TestInfo& test) {
    return std::string(test.test_suite_name()) + "." + test.name();
  }
};

std::string OwnProgram() {
  char path[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, path, sizeof(path));
  const char* const name = std::strrchr(path, '\\');
  return name != nullptr ? name + 1 : path;
}

// The seed that VORL_TEST_SEED gives, or another one each time; 0 when the variable gives none.
int ChooseSeed() {
  const char* const given = std::getenv("VORL_TEST_SEED");
  if (given == nullptr) {
    LARGE_INTEGER ticks;
    QueryPerformanceCounter(&ticks);
    return static_cast<int>((ticks.QuadPart ^ GetCurrentProcessId()) % kGreatestSeed) + 1;
  }
  char* end = nullptr;
  const long seed = std::strtol(given, &end, 10);
  return *end == '\0' && seed >= 1 && seed <= kGreatestSeed ? static_cast<int>(seed) : 0;
}

}  // namespace

int RunTests(int argc, char** argv) {
  const int seed = ChooseSeed();
  // Whoever has started the program sees by this line that it was started.
  std::printf("%s: VORL_TEST_SEED=%d\n", OwnProgram().c_str(), seed);
  std::fflush(stdout);
  if (seed == 0) {
    std::printf("VORL_TEST_SEED must be a number from 1 to %ld\n", kGreatestSeed);
    return EXIT_FAILURE;
  }
  GTEST_FLAG_SET(shuffle, true);
  GTEST_FLAG_SET(random_seed, seed);
  testing::InitGoogleMock(&argc, argv);
  if (argc > 1) {
    std::printf("unknown argument: %s\n", argv[1]);
    return EXIT_FAILURE;
  }
  testing::UnitTest& tests = *testing::UnitTest::GetInstance();
  tests.listeners().Append(new RunListener);
  StartWatchdog();
  const int status = RUN_ALL_TESTS();
  if (tests.test_to_run_count() == 0) {
    std::printf("FAILED: there was no test to run\n");
    return EXIT_FAILURE;
  }
  return status;
}
