// Processes that end at every call of the trace library and of the update module, and in the middle
// of what they write.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/vlevtlog.h"
#include "tests/faults/death.h"
#include "tests/faults/whole_trace.h"
#include "tests/support/call_hooks.h"
#include "tests/support/installation.h"
#include "tests/support/long_run.h"
#include "tests/support/start_process.h"
#include "tests/unit/vorlupd_sample.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAreArray;
using testing::SizeIs;

// Runs a victim; false when it has not come to that call.
bool Die(const char* what, const Installation& installation, unsigned number, bool isIn) {
  wchar_t program[1024];
  GetModuleFileNameW(nullptr, program, 1024);
  const fs::path victim = fs::path(program).parent_path() / "death_victim.exe";
  const std::string command = "\"" + victim.string() + "\" " + what + " \"" +
                              installation.Path().string() + "\" " + std::to_string(number) +
                              (isIn ? " in" : " at");
  const KernelHandle process = StartProcess(fs::path(command).wstring()).process;
  EXPECT_EQ(WaitForSingleObject(process.Get(), INFINITE), WAIT_OBJECT_0);
  DWORD exitCode = EXIT_FAILURE;
  GetExitCodeProcess(process.Get(), &exitCode);
  EXPECT_TRUE(exitCode == kEndedAtCall || exitCode == EXIT_SUCCESS) << exitCode;
  return exitCode == kEndedAtCall;
}

// Calls `test` with the numbers of the calls to end at, until it gives false: all of them, or, in a
// bounded run, one of `stride` that follow each other, chosen by the program's seed.
void ForEachDeath(unsigned stride, const std::function<bool(unsigned)>& test) {
  std::mt19937 random(static_cast<unsigned>(GTEST_FLAG_GET(random_seed)));
  if (IsLongRun()) {
    stride = 1;
  }
  unsigned deaths = 0;
  for (unsigned first = 1;; first += stride) {
    const unsigned number = first + random() % stride;
    SCOPED_TRACE("call " + std::to_string(number));
    if (!test(number)) {
      break;
    }
    ++deaths;
  }
  std::printf("deaths %u\n", deaths);
  EXPECT_GT(deaths, 0U);
}

class DeathOfAWriter : public testing::TestWithParam<bool> {
 protected:
  static void Prepare(const Installation& installation, bool isFull) {
    WriteText(installation / "conf" / "vorlconf.ini",
              "[TRACE]\r\nFileSizeKB=4\r\nFiles=3\r\nLevels=ERROR,INFO\r\n");
    LetRest(installation / "conf" / "vorlconf.ini");
    if (isFull) {
      for (const char* const name :
           {"vorltrace.000001.log", "vorltrace.000002.log", "vorltrace.log"}) {
        WriteText(installation / "logs" / name, FullTraceFile());
      }
    }
  }

  // What a process that comes after the victim finds and does.
  static void ExpectToGoOn(const Installation& installation) {
    {
      const Library library(installation / "vlevtlog.dll");
      auto* const logTrace = library.Ordinal<decltype(LogTrace)>(2);
      std::vector<std::thread> threads;
      for (const char* const name : {"one", "two"}) {
        threads.emplace_back([=] {
          for (unsigned i = 1; i <= 5; ++i) {
            logTrace(kTraceLevelInfo, "module", "f", "s.cpp", 1, "after %s %u.", name, i);
          }
        });
      }
      for (std::thread& thread : threads) {
        thread.join();
      }
    }
    const std::vector<std::string> lines = WholeTraceOf(installation);
    const auto returned = static_cast<unsigned>(fs::file_size(installation / kDeathProgress));
    unsigned found = 0;
    for (unsigned i = 1; i <= kDeathLines; ++i) {
      const std::size_t count = CountEndingWith(lines, " line " + std::to_string(i) + ".");
      EXPECT_LE(count, 1U) << "line " << i;
      // The line in flight may be there or not, and nothing behind it.
      EXPECT_TRUE(i > returned ? i <= returned + 1 || count == 0 : count == 1) << "line " << i;
      found += static_cast<unsigned>(count);
    }
    EXPECT_GE(found, returned);
    for (const std::string name : {"one", "two"}) {
      for (unsigned i = 1; i <= 5; ++i) {
        EXPECT_EQ(CountEndingWith(lines, " after " + name + " " + std::to_string(i) + "."), 1U);
      }
    }
    // The dead one's lock was taken over: nobody had to write beside the file.
    for (const auto& entry : fs::directory_iterator(installation / "logs")) {
      EXPECT_FALSE(entry.path().filename().string().starts_with("vorltrace.process"));
    }
  }
};

TEST_P(DeathOfAWriter, AtAnyCallLeavesWholeLinesAndAFreeLock) {
  ForEachDeath(12, [](unsigned number) {
    const Installation installation({"vlevtlog.dll"});
    Prepare(installation, GetParam());
    const bool isDead = Die("trace", installation, number, /*isIn=*/false);
    ExpectToGoOn(installation);
    return isDead;
  });
}

TEST_P(DeathOfAWriter, InTheMiddleOfAnyTransferLeavesWholeLinesAndAFreeLock) {
  ForEachDeath(1, [](unsigned number) {
    const Installation installation({"vlevtlog.dll"});
    Prepare(installation, GetParam());
    const bool isDead = Die("trace", installation, number, /*isIn=*/true);
    ExpectToGoOn(installation);
    return isDead;
  });
}

INSTANTIATE_TEST_SUITE_P(Full, DeathOfAWriter, testing::Bool());

class DeathOfAnUpdate : public testing::TestWithParam<bool> {};

TEST_P(DeathOfAnUpdate, AtAnyCallIsUndoneOrCompleteButNeverHalf) {
  using namespace sample_update;
  ForEachDeath(GetParam() ? 1 : 16, [](unsigned number) {
    const Installation installation({"vorlupd.dll"});
    sample_update::Prepare(installation);
    const bool isDead = Die("update", installation, number, /*isIn=*/GetParam());
    const bool mayUndoOnly = number % 2 == 0 && isDead;
    if (mayUndoOnly) {
      fs::rename(installation / "pending", installation / "taken away");
    }
    {
      const Library module(installation / "vorlupd.dll");
      EXPECT_TRUE(RunUpdate(module));
    }
    if (mayUndoOnly) {
      fs::remove_all(installation / "taken away");
      const Tree tree = TreeOfInstallation(installation);
      EXPECT_TRUE(tree == Old() || tree == New()) << testing::PrintToString(tree);
    } else {
      EXPECT_THAT(TreeOfInstallation(installation),
                  ElementsAreArray(WithPending(New(), {"pending\\"})));
    }
    return isDead;
  });
}

INSTANTIATE_TEST_SUITE_P(Middle, DeathOfAnUpdate, testing::Bool());

// The calls of an update by which it changes files, with the files' names in the installation.
class FileCalls : public CallListener {
 public:
  explicit FileCalls(const fs::path& installation) : m_installation(installation.wstring()) {}

  Verdict OnCall(const HookedCall& call) override {
    const std::string name = call.name;
    if (name == "MoveFileExW") {
      moves.push_back({Name(call, 1), Name(call, 2), static_cast<DWORD>(call.Argument(3)),
                       static_cast<unsigned>(calls.size())});
      calls.push_back("move " + moves.back().from + " to " + moves.back().to);
    } else if (name == "CopyFileW") {
      calls.push_back("copy to " + Name(call, 2));
    } else if (name == "CreateDirectoryW") {
      calls.push_back("folder " + Name(call, 1));
    } else if (name == "WriteFile") {
      calls.push_back("write " + m_open[call.Argument(1)]);
    } else if (name == "FlushFileBuffers") {
      calls.push_back("flush " + m_open[call.Argument(1)]);
    }
    return {};
  }
  void OnReturn(const HookedCall& call, std::uintptr_t result, bool) override {
    if (std::string(call.name) == "CreateFileW") {
      m_open[result] = Name(call, 1);
    }
  }
  void OnUnexpected(const char*) override {}

  struct Move {
    std::string from;
    std::string to;
    DWORD flags;
    unsigned call;
  };
  std::vector<std::string> calls;
  std::vector<Move> moves;

 private:
  std::string Name(const HookedCall& call, int number) const {
    const std::wstring path = reinterpret_cast<const wchar_t*>(call.Argument(number));
    const std::size_t at = path.find(m_installation);
    return at == std::wstring::npos
               ? "?"
               : fs::path(path.substr(at + m_installation.size() + 1)).string();
  }

  std::wstring m_installation;
  std::map<std::uintptr_t, std::string> m_open;
};

bool IsOfUpdating(const std::string& name) { return name.starts_with("update.work"); }

TEST(Durability, EveryCopyAndTheJournalAreOnTheDiskBeforeTheFirstChange) {
  const Installation installation({"vorlupd.dll"});
  sample_update::Prepare(installation);
  FileCalls watched(installation.Path());
  {
    const Library module(installation / "vorlupd.dll");
    const CallHooks hooks(watched, {module.Handle()});
    EXPECT_TRUE(sample_update::RunUpdate(module));
  }
  const auto at = [&](const std::string& call) {
    return std::find(watched.calls.begin(), watched.calls.end(), call);
  };
  const auto firstChange =
      std::find_if(watched.calls.begin(), watched.calls.end(), [](const std::string& call) {
        const bool isMove = call.starts_with("move ");
        return (isMove && !IsOfUpdating(call.substr(call.find(" to ") + 4))) ||
               (call.starts_with("folder ") && !IsOfUpdating(call.substr(7)));
      });
  ASSERT_NE(firstChange, watched.calls.end());
  for (const std::string file : {"update.work\\staged\\a.txt", "update.work\\staged\\sub\\b.txt",
                                 "update.work\\staged\\fresh\\c.txt", "update.work\\backup\\a.txt",
                                 "update.work\\backup\\sub\\b.txt"}) {
    EXPECT_LT(at("copy to " + file), at("flush " + file)) << file;
    EXPECT_LT(at("flush " + file), at("write update.work\\journal.new")) << file;
  }
  EXPECT_LT(at("write update.work\\journal.new"), at("flush update.work\\journal.new"));
  EXPECT_LT(at("flush update.work\\journal.new"),
            at("move update.work\\journal.new to update.work\\journal"));
  EXPECT_LT(at("move update.work\\journal.new to update.work\\journal"), firstChange);
  EXPECT_THAT(watched.moves, SizeIs(testing::Ge(4U)));
  for (const FileCalls::Move& move : watched.moves) {
    EXPECT_NE(move.flags & MOVEFILE_WRITE_THROUGH, 0U) << watched.calls[move.call];
  }
}

}  // namespace
