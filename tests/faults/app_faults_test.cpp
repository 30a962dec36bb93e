// Every call that fails in the operations of app/, up to the whole program.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "app/identifierstore.h"
#include "app/vorlsrvc.h"
#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/console_capture.h"
#include "tests/support/fake_helper_pipe.h"
#include "tests/support/fake_machine.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/long_run.h"
#include "tests/unit/configuration_folder.h"

// The program's main, under the name that the tests' build gives it.
int VorlsrvcMain(int argc, char** argv);

namespace {

constexpr wchar_t kOwn[] = L"FEDCBA9876543210FEDCBA9876543210";
constexpr char kOther[] = "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nserver=10.0.0.1\r\n";

// Whether the file is as it was, or holds one whole identifier besides.
bool IsWhole(const std::string& file, const std::string& before) {
  if (file == before) {
    return true;
  }
  const std::string key = "clientuniqueid=";
  const std::size_t at = file.find(key);
  return at != std::string::npos && file.find("\r\n", at) == at + key.size() + 32 &&
         (before.empty() || file.find("server=10.0.0.1\r\n") != std::string::npos);
}

TEST(AppFaults, IsClientUUIDPresent) {
  SweepFaults("IsClientUUIDPresent", [](FaultRun& run) {
    const ConfigurationFolder configuration;
    configuration.Write(kStored);
    TraceRecorder recorder;
    bool isPresent = false;
    run.Call([&] { isPresent = IsClientUUIDPresent(); });
    // What Windows' function cannot read is read without it.
    EXPECT_EQ(isPresent, !run.IsFaultIn({"vorlmisc.dll#2"}));
    EXPECT_EQ(configuration.Read(), kStored);
    run.ExpectLines(recorder.Lines(), {{"vorlmisc.dll#2", "GetClientAgentConfigDir failed"}});
  });
  SweepFaults("IsClientUUIDPresent, none", [](FaultRun& run) {
    const ConfigurationFolder configuration;
    configuration.Write(kOther);
    TraceRecorder recorder;
    bool isPresent = true;
    run.Call([&] { isPresent = IsClientUUIDPresent(); });
    EXPECT_FALSE(isPresent);
    EXPECT_EQ(configuration.Read(), kOther);
    run.ExpectLines(recorder.Lines());
  });
}

TEST(AppFaults, StoreIdentifier) {
  for (const std::string& before : {std::string(kOther), std::string(kStored)}) {
    SweepFaults("StoreIdentifier", [&](FaultRun& run) {
      const ConfigurationFolder configuration;
      configuration.Write(before);
      StoredIdentifier found;
      StoreOutcome outcome = StoreOutcome::kFailed;
      run.Call([&] { outcome = StoreIdentifier(kOwn, configuration.File().c_str(), found); });
      const std::string after = configuration.Read();
      const bool isToldMissing =
          run.FaultError() == ERROR_FILE_NOT_FOUND || run.FaultError() == ERROR_PATH_NOT_FOUND;
      if (before == kStored && isToldMissing) {
        // There is no file, as far as Windows says.
        EXPECT_TRUE(after == kStored || after == FileWith("FEDCBA9876543210FEDCBA9876543210"));
      } else if (before == kStored) {
        // Whatever else fails, one that is there is never replaced.
        EXPECT_EQ(after, kStored);
        EXPECT_NE(outcome, StoreOutcome::kStored);
      } else {
        EXPECT_TRUE(IsWhole(after, before)) << after;
        EXPECT_EQ(after != before, outcome == StoreOutcome::kStored);
      }
    });
  }
}

TEST(AppFaults, SetClientUUID) {
  SweepFaults("SetClientUUID", [](FaultRun& run) {
    const ConfigurationFolder configuration;
    TraceRecorder recorder;
    bool isSet = false;
    run.Call([&] { isSet = SetClientUUID("0123456789ABCDEF0123456789ABCDEF"); });
    EXPECT_EQ(isSet, configuration.Read() == kStored || run.IsFaultIn({"MultiByteToWideChar"}));
    run.ExpectLines(recorder.Lines(),
                    {{"vorlmisc.dll#2", "GetClientAgentConfigDir failed"},
                     {"WritePrivateProfileStringW", "WritePrivateProfileString failed."}});
  });
}

// A start on a machine that has no identifier yet.
TEST(AppFaults, Main) {
  for (const std::string word : {"-install", "-stop", "-uninstall", "x"}) {
    for (const std::string& before : {std::string(kOther), std::string(kStored)}) {
      if (!IsLongRun() && before == kOther && word != "-install") {
        continue;  // the identifier is made in the same way ahead of every command
      }
      SweepFaults(
          "vorlsrvc " + word,
          [&](FaultRun& run) {
            const ConfigurationFolder configuration;
            configuration.Write(before);
            FakeInfoReset();
            Journal journal;
            TraceRecorder recorder;
            Machine machine;
            machine.SetEverything();
            FakeServiceManager manager(journal);
            FakeHelperPipe helper(journal);
            manager.AnswerStatus({{SERVICE_STOPPED}});
            const CallPatch<struct DispatcherTag, decltype(StartServiceCtrlDispatcherA)> dispatcher(
                "ADVAPI32.dll", "StartServiceCtrlDispatcherA",
                [](const SERVICE_TABLE_ENTRYA*) { return TRUE; });
            std::string name = "vorlsrvc.exe";
            std::string option = word;
            char* arguments[] = {name.data(), option.data(), nullptr};
            int status = -1;
            {
              const ConsoleCapture capture;
              run.Call([&] { status = VorlsrvcMain(2, arguments); });
            }
            EXPECT_EQ(status, 0);
            const std::string after = configuration.Read();
            // One that cannot be converted is stored empty, which the next start finds missing.
            EXPECT_TRUE(IsWhole(after, before) || run.IsFaultIn({"MultiByteToWideChar"})) << after;
            if (before == kStored) {
              EXPECT_EQ(after, kStored);
            }
            const std::vector<TraceLine> lines = recorder.LinesOf("main");
            ASSERT_FALSE(lines.empty());
            EXPECT_EQ(lines.front().text, "Entry");
            EXPECT_EQ(lines.back().text, run.IsFaultIn({"vorlinfo.dll#9"})
                                             ? "After Calling SetClientAgentLogOptions"
                                             : "Exit");
            run.ExpectLines(recorder.Lines(),
                            {{"vorlmisc.dll#5", "SetClientAgentLogOptions Failed"}});
          },
          {.left = {}, .memory = true, .mostCalls = 12});
    }
  }
}

}  // namespace
