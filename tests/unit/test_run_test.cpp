// What every program of tests does by its main, seen from outside: programs that hang, leave tests
// out and have none to run.
#include "tests/support/test_run.h"

#include <gmock/gmock.h>

#include <regex>
#include <string>

#include "support/handle.h"
#include "tests/support/files.h"
#include "tests/support/start_process.h"
#include "tests/support/watchdog.h"

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

struct Outcome {
  DWORD exitCode;
  std::string output;
};

// Runs a program to its end, with all of its tests even where some of this program's were chosen.
Outcome RunProgram(const std::string& commandLine) {
  SetEnvironmentVariableA("GTEST_FILTER", nullptr);
  const TempFolder folder;
  const std::string file = folder.File("output.txt");
  SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
  FileHandle output(CreateFileA(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                &inheritable, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_TRUE(output) << "error " << GetLastError();
  StartOptions options;
  options.output = output.Get();
  options.errors = output.Get();
  const StartedProcess program =
      StartProcess(std::wstring(commandLine.begin(), commandLine.end()), options);
  WaitForSingleObject(program.process.Get(), INFINITE);
  Outcome outcome{0, {}};
  GetExitCodeProcess(program.process.Get(), &outcome.exitCode);
  output.Reset();
  const ByteVector bytes = ReadBytes(file);
  outcome.output.assign(bytes.begin(), bytes.end());
  std::erase(outcome.output, '\r');
  return outcome;
}

class EnvironmentVariable {
 public:
  EnvironmentVariable(const char* name, const char* value) : m_name(name) {
    SetEnvironmentVariableA(name, value);
  }
  ~EnvironmentVariable() { SetEnvironmentVariableA(m_name, nullptr); }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

 private:
  const char* m_name;
};

TEST(Watchdog, NamesTheTestShowsItsThreadsAndEndsAllThatItHasStarted) {
  const std::string suffix = std::to_string(GetCurrentProcessId());
  const std::string mutexName = "vorltest_mutex_" + suffix;
  const std::string eventName = "vorltest_event_" + suffix;
  const KernelHandle mutex(CreateMutexA(nullptr, FALSE, mutexName.c_str()));
  const KernelHandle begun(CreateEventA(nullptr, TRUE, FALSE, eventName.c_str()));

  const Outcome outcome = RunProgram("hanging_program.exe " + mutexName + " " + eventName);
  EXPECT_EQ(outcome.exitCode, kWatchdogExitCode);
  EXPECT_THAT(outcome.output,
              HasSubstr("WATCHDOG: waited 1 ms for Hanging.WaitsForWhatNeverComes\n"));
  // From the wait that Windows offers out to the program's own main.
  const std::regex stack(
      "  thread [0-9]+\\n"
      "    ntdll\\.dll\\+0x[0-9a-f]+\\n"
      "(    [a-z0-9]+\\.dll\\+0x[0-9a-f]+\\n)*"
      "(    hanging_program\\.exe\\+0x[0-9a-f]+\\n)+");
  EXPECT_TRUE(std::regex_search(outcome.output, stack)) << outcome.output;
  EXPECT_THAT(outcome.output,
              HasSubstr("WATCHDOG: the program and what it has started are ended\n"));
  // The grandchild had it, and has died without giving it back.
  constexpr DWORD kLongEnough = 60'000;
  EXPECT_EQ(WaitForSingleObject(begun.Get(), 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(mutex.Get(), kLongEnough), DWORD{WAIT_ABANDONED});
}

TEST(TestRun, TestThatIsLeftOutWithoutAnExcuseFails) {
  const Outcome outcome = RunProgram("careless_program.exe");
  EXPECT_EQ(outcome.exitCode, 1U);
  EXPECT_THAT(outcome.output, HasSubstr("skipped, and not among the excused tests"));
  EXPECT_THAT(outcome.output, HasSubstr("[  FAILED  ] Careless.LeavesItselfOut"));
  EXPECT_THAT(outcome.output, HasSubstr("[       OK ] Careless.Passes"));
}

TEST(TestRun, RunWithoutATestFails) {
  const Outcome outcome = RunProgram("careless_program.exe --gtest_filter=Other.*");
  EXPECT_EQ(outcome.exitCode, 1U);
  EXPECT_THAT(outcome.output, HasSubstr("FAILED: there was no test to run\n"));
}

TEST(TestRun, RunOfOneTestPasses) {
  EXPECT_EQ(RunProgram("careless_program.exe --gtest_filter=Careless.Passes").exitCode, 0U);
}

TEST(TestRun, UnknownArgumentFails) {
  const Outcome outcome = RunProgram("careless_program.exe Careless.Passes");
  EXPECT_EQ(outcome.exitCode, 1U);
  EXPECT_THAT(outcome.output, HasSubstr("unknown argument: Careless.Passes\n"));
}

TEST(TestRun, FirstLineTellsTheProgramAndTheSeedThatRepeatsTheOrder) {
  const EnvironmentVariable seed("VORL_TEST_SEED", "4711");
  const Outcome outcome = RunProgram("careless_program.exe --gtest_filter=Careless.Passes");
  EXPECT_THAT(outcome.output, StartsWith("careless_program.exe: VORL_TEST_SEED=4711\n"));
  EXPECT_THAT(outcome.output, HasSubstr("Randomizing tests' orders with a seed of 4711 ."));
}

TEST(TestRun, SeedThatIsNoneFails) {
  for (const char* given : {"0", "100000", "12x"}) {
    const EnvironmentVariable seed("VORL_TEST_SEED", given);
    const Outcome outcome = RunProgram("careless_program.exe --gtest_filter=Careless.Passes");
    EXPECT_EQ(outcome.exitCode, 1U) << given;
    EXPECT_THAT(outcome.output, HasSubstr("VORL_TEST_SEED must be a number from 1 to 99999\n"));
    EXPECT_THAT(outcome.output, Not(HasSubstr("[ RUN")));
  }
}

}  // namespace
