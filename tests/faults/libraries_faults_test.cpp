// Every call that fails in the in-house libraries and modules, as they are staged.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "companions/vlevtlog/trace_control.h"
#include "support/vlevtlog.h"
#include "support/vorlcore.h"
#include "support/vorlmisc.h"
#include "tests/faults/whole_trace.h"
#include "tests/support/call_hooks.h"
#include "tests/support/empty_machine_key.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/installation.h"
#include "tests/unit/vorlupd_sample.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::IsSupersetOf;
using testing::StartsWith;

// ---- vlevtlog.dll ----

// How many lines the trace says are lost.
std::size_t LostIn(const std::vector<std::string>& lines) {
  static const std::regex notice(R"(.* (\d+) lines lost: .*)");
  std::size_t lost = 0;
  std::smatch match;
  for (const std::string& line : lines) {
    if (std::regex_match(line, match, notice)) {
      lost += std::stoul(match[1]);
    }
  }
  return lost;
}

class TraceFaults : public testing::Test {
 protected:
  static constexpr unsigned kLines = 4;

  // A trace that is full, so that the first line begins a new file; `isNew`: none at all.
  static void Prepare(const Installation& installation, bool isNew) {
    WriteText(installation / "conf" / "vorlconf.ini",
              "[TRACE]\r\nFileSizeKB=4\r\nFiles=3\r\nLevels=ERROR,INFO\r\n");
    LetRest(installation / "conf" / "vorlconf.ini");
    if (isNew) {
      return;
    }
    const std::string full = FullTraceFile();
    WriteText(installation / "logs" / "vorltrace.000001.log", full);
    WriteText(installation / "logs" / "vorltrace.000002.log", full);
    WriteText(installation / "logs" / "vorltrace.log", full);
  }

  // Lines that fail, lines when all is well again, and the end of the library.
  static void WriteAndUnload(FaultRun& run, bool isNew) {
    const EmptyMachineKey machine;
    const Installation installation({"vlevtlog.dll"});
    Prepare(installation, isNew);
    Library library(installation / "vlevtlog.dll");
    auto* const logTrace = library.Ordinal<decltype(LogTrace)>(2);
    run.LeaveProgramAlone();
    run.Hook(library.Handle());
    bool isErrorKept = true;
    const auto write = [&](const char* text, unsigned number) {
      SetLastError(1234);
      logTrace(kTraceLevelInfo, "module", "f", "s.cpp", 1, "%s %u.", text, number);
      isErrorKept = isErrorKept && GetLastError() == 1234;
    };
    run.Call(
        [&] {
          for (unsigned i = 1; i <= kLines; ++i) {
            write("line", i);
          }
        },
        [&] {
          for (unsigned i = 1; i <= 3; ++i) {
            AdvanceClock(3000);
            write("later", i);
          }
          library.Free();
        });
    EXPECT_TRUE(isErrorKept);
    const std::vector<std::string> lines = WholeTraceOf(installation);
    std::size_t found = 0;
    for (unsigned i = 1; i <= kLines; ++i) {
      const std::size_t count = CountEndingWith(lines, " line " + std::to_string(i) + ".");
      EXPECT_LE(count, 1U) << "line " << i;
      found += count;
    }
    EXPECT_EQ(found + LostIn(lines), kLines) << testing::PrintToString(lines);
    EXPECT_EQ(CountEndingWith(lines, " later 3."), 1U) << testing::PrintToString(lines);
  }
};

TEST_F(TraceFaults, FirstLinesInANewFolder) {
  SweepFaults("vlevtlog.dll, a new trace", [](FaultRun& run) { WriteAndUnload(run, true); });
}

TEST_F(TraceFaults, LinesThatBeginANewFile) {
  SweepFaults("vlevtlog.dll, a full trace", [](FaultRun& run) { WriteAndUnload(run, false); });
}

TEST_F(TraceFaults, EndOfTheLibrary) {
  SweepFaults("vlevtlog.dll, unloaded", [](FaultRun& run) {
    const EmptyMachineKey machine;
    const Installation installation({"vlevtlog.dll"});
    Prepare(installation, true);
    Library library(installation / "vlevtlog.dll");
    auto* const logTrace = library.Ordinal<decltype(LogTrace)>(2);
    auto* const apply = library.Ordinal<ApplyTraceOptionsFunction>(kApplyTraceOptionsOrdinal);
    run.LeaveProgramAlone();
    run.Hook(library.Handle());
    run.Call([&] {
      logTrace(kTraceLevelInfo, "module", "f", "s.cpp", 1, "%s", "x");
      static_cast<void>(apply((installation / "conf" / "vorlconf.ini").c_str()));
      library.Free();
    });
    EXPECT_EQ(GetModuleHandleW((installation / "vlevtlog.dll").c_str()), nullptr);
    EXPECT_LE(WholeTraceOf(installation).size(), 2U);
  });
}

// ---- vorlmisc.dll and vorlinfo.dll ----

// The lines that the recording trace library got. An operation that fails says why, in one line.
void ExpectOneLineOf(bool isDone) {
  EXPECT_EQ(FakeTraceCount(), isDone ? 0U : 1U);
  for (unsigned i = 0; i < FakeTraceCount(); ++i) {
    FakeTraceLine line{};
    FakeTraceGet(i, &line);
    EXPECT_EQ(line.level, 1);
    EXPECT_STREQ(line.moduleName, "vorlmisc.dll");
    EXPECT_STRNE(line.text, "");
  }
}

class SupportFaults : public testing::Test {
 protected:
  static void Sweep(const std::string& operation,
                    const std::function<bool(const Library&, FaultRun&)>& call,
                    bool hasConfiguration = true) {
    SweepFaults(operation, [&](FaultRun& run) {
      const EmptyMachineKey machine;
      const Installation installation({"vorlmisc.dll"});
      if (hasConfiguration) {
        const auto file = installation / "conf" / "vorlconf.ini";
        WriteText(file, "[STARTUP_OPTIONS]\r\nText1=a\r\nText2=\xC4\r\nWord1=7\r\nDword1=8\r\n");
        LetRest(file);
      }
      const Library library(installation / "vorlmisc.dll");
      run.LeaveProgramAlone();
      run.Hook(library.Handle());
      FakeTraceClear();
      const bool isDone = call(library, run);
      EXPECT_TRUE(isDone || run.IsFaulted());
      // A text that cannot be converted is refused, with its line, and the other options are given.
      ExpectOneLineOf(isDone && !run.IsFaultIn({"WideCharToMultiByte"}));
    });
  }
};

TEST_F(SupportFaults, Folders) {
  for (const WORD ordinal : {WORD{1}, WORD{2}}) {
    for (const bool hasConfiguration : {true, false}) {
      Sweep(
          ordinal == 1 ? "GetClientAgentRootDir" : "GetClientAgentConfigDir",
          [ordinal](const Library& library, FaultRun& run) {
            constexpr wchar_t untouched = 0x5A5A;
            std::vector<wchar_t> folder(kFolderCapacity + 8, untouched);
            BOOLEAN isGiven = FALSE;
            run.Call([&] {
              isGiven = library.Ordinal<BOOLEAN(wchar_t*, DWORD)>(ordinal)(folder.data(),
                                                                           kFolderCapacity);
            });
            const auto used = isGiven != FALSE ? std::wcslen(folder.data()) + 1 : 0;
            EXPECT_TRUE(std::all_of(folder.begin() + static_cast<std::ptrdiff_t>(used),
                                    folder.end(), [](wchar_t c) { return c == untouched; }));
            return isGiven != FALSE;
          },
          hasConfiguration);
    }
  }
}

TEST_F(SupportFaults, LogOptions) {
  Sweep("SetClientAgentLogOptions", [](const Library& library, FaultRun& run) {
    BOOLEAN isDone = FALSE;
    run.Call([&] { isDone = library.Ordinal<BOOLEAN()>(5)(); });
    return isDone != FALSE;
  });
}

TEST_F(SupportFaults, StartUpOptions) {
  Sweep("GetClientAgentStartUpOptions", [](const Library& library, FaultRun& run) {
    CLIENT_AGENT_STARTUP_OPTIONS options;
    std::memset(&options, 0xA5, sizeof(options));
    BOOLEAN isDone = FALSE;
    run.Call(
        [&] { isDone = library.Ordinal<BOOLEAN(CLIENT_AGENT_STARTUP_OPTIONS*)>(6)(&options); });
    if (isDone == FALSE) {
      const CLIENT_AGENT_STARTUP_OPTIONS zero{};
      EXPECT_EQ(std::memcmp(&options, &zero, sizeof(zero)), 0);
    } else {
      EXPECT_EQ(WORD{options.Word1}, 7);
      EXPECT_EQ(DWORD{options.Dword1}, 8U);
      EXPECT_STREQ(options.Text1,
                   run.IsFaultIn({"WideCharToMultiByte"}) && run.FaultNumber() <= 2 ? "" : "a");
    }
    return isDone != FALSE;
  });
}

TEST(VersionFaults, NothingThatTheLibraryCallsCanFail) {
  const Installation installation({"vorlinfo.dll"});
  const Library library(installation / "vorlinfo.dll");
  EXPECT_THAT(FallibleImports(library.Handle()), IsEmpty());
}

// ---- vorlupd.dll ----

// One installation for all runs: what the runtime keeps for exceptions is made once for a module
// that stays loaded.
class UpdateFaults : public testing::Test {
 protected:
  void Clear() const {
    for (const auto& entry : fs::directory_iterator(m_installation.Path())) {
      if (entry.path().filename() != "vorlupd.dll") {
        fs::remove_all(entry.path());
      }
    }
  }

  bool RunHooked(FaultRun& run) const {
    run.LeaveProgramAlone();
    run.Hook(m_module.Handle());
    bool isDone = false;
    run.Call([&] { isDone = sample_update::RunUpdate(m_module); });
    EXPECT_TRUE(isDone || run.IsFaulted());
    return isDone;
  }

  // Whether the fault is that Windows does not know what lies there. That is an answer, by which
  // the module goes, so that the installation can become a mixture of both.
  static bool IsMisled(const FaultRun& run) {
    return run.IsFaultIn({"DeleteFileW", "FindFirstFileW"}) &&
           (run.FaultError() == ERROR_FILE_NOT_FOUND || run.FaultError() == ERROR_PATH_NOT_FOUND);
  }

  // What holds even then, after the next start: no file is lost, none is another one than before or
  // afterwards.
  void ExpectWholeFiles() const {
    using namespace sample_update;
    static_cast<void>(RunUpdate(m_module));
    const Tree rest = Rest(m_installation);
    EXPECT_THAT(rest, IsSubsetOf(WithPending(Old(), New())));
    EXPECT_THAT(rest, IsSupersetOf({StartsWith("a.txt="), StartsWith("sub\\b.txt=")}));
  }

  const Installation m_installation{{"vorlupd.dll"}};
  const Library m_module{m_installation / "vorlupd.dll"};
};

TEST_F(UpdateFaults, Update) {
  SweepFaults("UpdateBeforeClientService",
              [this](FaultRun& run) {
                using namespace sample_update;
                Clear();
                Prepare(m_installation);
                FakeTraceClear();
                const bool isApplied = RunHooked(run);
                EXPECT_GT(FakeTraceCount(), 1U);
                if (IsMisled(run)) {
                  ExpectWholeFiles();
                  return;
                }
                const Tree rest = Rest(m_installation);
                EXPECT_TRUE(rest == (isApplied ? New() : Old()) ||
                            // What cannot be undone now is undone next time.
                            (!isApplied && fs::exists(m_installation / "update.work" / "journal")))
                    << testing::PrintToString(rest);
                EXPECT_TRUE(RunUpdate(m_module));
                EXPECT_THAT(TreeOfInstallation(m_installation),
                            ElementsAreArray(WithPending(New(), {"pending\\"})));
              },
              {.left = {}, .memory = true, .mostCalls = 6});
}

TEST_F(UpdateFaults, Undo) {
  SweepFaults("UpdateBeforeClientService, cut off before",
              [this](FaultRun& run) {
                using namespace sample_update;
                Clear();
                // Everything is in place, and nothing is pending any more.
                WriteText(m_installation / "update.work" / "backup" / "a.txt", "old a");
                WriteText(m_installation / "update.work" / "backup" / "sub" / "b.txt", "old b");
                fs::create_directories(m_installation / "update.work" / "staged");
                WriteText(m_installation / "a.txt", "new a");
                WriteText(m_installation / "fresh" / "c.txt", "new c");
                WriteText(m_installation / "sub" / "b.txt", "new b");
                const std::wstring journal =
                    L"\xFEFF"
                    L"vorlupd journal 1\r\nreplace a.txt\r\nfolder fresh\r\ncreate fresh\\c.txt\r\n"
                    L"replace sub\\b.txt\r\nend\r\n";
                WriteText(m_installation / "update.work" / "journal",
                          {reinterpret_cast<const char*>(journal.data()), journal.size() * 2});
                RunHooked(run);
                if (IsMisled(run)) {
                  ExpectWholeFiles();
                  return;
                }
                EXPECT_TRUE(RunUpdate(m_module));
                Tree tree = TreeOfInstallation(m_installation);
                // An empty folder that somebody holds is not worth holding back updates for.
                if (run.IsFaultIn({"RemoveDirectoryW"})) {
                  std::erase(tree, "fresh\\");
                }
                EXPECT_THAT(tree, ElementsAreArray(Old()));
              },
              {.left = {}, .memory = true, .mostCalls = 6});
}

// ---- vorlcore.dll ----

TEST(CoreFaults, StartUpAndCleanUp) {
  SweepFaults(
      "ClientAgentCoreStartUp, ClientAgentCoreCleanUp",
      [](FaultRun& run) {
        const Installation installation({"vorlcore.dll"});
        const Library module(installation / "vorlcore.dll");
        run.LeaveProgramAlone();
        run.Hook(module.Handle());
        auto* const startUp = module.Name<ClientAgentCoreStartUpFn>("ClientAgentCoreStartUp");
        auto* const cleanUp = module.Name<ClientAgentCoreCleanUpFn>("ClientAgentCoreCleanUp");
        BOOLEAN isStarted = FALSE;
        BOOLEAN isEnded = FALSE;
        run.Call([&] {
          isStarted = startUp("", "", "", "", 0, 0, 0, 0, 3'600'000, 0, 0, 0, 0, 0, 0);
          isEnded = cleanUp("", "", "", "", 0, 0, 0, 0, 0, kNotifyNone);
        });
        EXPECT_EQ(isStarted != FALSE, !run.IsFaultIn({"CreateEventW", "_beginthreadex"}));
        EXPECT_EQ(isEnded, isStarted);
      },
      // The module may not go before its thread has been told and waited for: both calls
      // get valid handles.
      {.left = {"SetEvent", "WaitForSingleObject"}});
}

}  // namespace
