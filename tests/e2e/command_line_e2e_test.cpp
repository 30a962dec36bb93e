// The command words against the real service control manager.
#include <algorithm>

#include "support/handle.h"
#include "tests/e2e/service_fixture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class Commands : public ServiceTest {};

class CommandsInFolderWithBlank : public ServiceTest {
 protected:
  CommandsInFolderWithBlank() : ServiceTest(" with blank") {}
};

struct EventSource {
  std::wstring messageFile;
  DWORD messageFileType;
  DWORD messageFileBytes;
  DWORD typesSupported;
};

EventSource ReadEventSource(const std::string& serviceName) {
  const std::string path =
      "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\" + serviceName;
  RegistryKey key;
  EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.Receive()), 0);
  EventSource source{};
  wchar_t messageFile[512] = {};
  source.messageFileBytes = sizeof(messageFile);
  EXPECT_EQ(RegQueryValueExW(key.Get(), L"EventMessageFile", nullptr, &source.messageFileType,
                             reinterpret_cast<BYTE*>(messageFile), &source.messageFileBytes),
            0);
  source.messageFile = messageFile;
  DWORD size = sizeof(source.typesSupported);
  DWORD type = 0;
  EXPECT_EQ(RegQueryValueExW(key.Get(), L"TypesSupported", nullptr, &type,
                             reinterpret_cast<BYTE*>(&source.typesSupported), &size),
            0);
  EXPECT_EQ(type, DWORD{REG_DWORD});
  return source;
}

TEST_F(Commands, InstallRegistersTheServiceAsItIsDocumented) {
  const CommandResult result = installation.Run("-install");
  EXPECT_EQ(result.exitCode, 0U);
  EXPECT_EQ(result.output, InstalledText());

  const ServiceConfiguration configuration = service.Configuration();
  EXPECT_EQ(configuration.type, DWORD{SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS});
  EXPECT_EQ(configuration.startType, DWORD{SERVICE_AUTO_START});
  EXPECT_EQ(configuration.errorControl, DWORD{SERVICE_ERROR_NORMAL});
  EXPECT_EQ(configuration.commandPath, installation.Program().wstring());
  EXPECT_EQ(configuration.account, L"LocalSystem");
  EXPECT_EQ(configuration.displayName, std::wstring(name.begin(), name.end()));
  EXPECT_EQ(configuration.loadOrderGroup, L"");
  EXPECT_EQ(configuration.dependencies, L"");

  const EventSource source = ReadEventSource(name);
  EXPECT_EQ(source.messageFile, installation.Program().wstring());
  EXPECT_EQ(source.messageFileType, DWORD{REG_EXPAND_SZ});
  EXPECT_EQ(source.messageFileBytes, (source.messageFile.size() + 1) * sizeof(wchar_t));
  EXPECT_EQ(source.typesSupported, 7U);
}

TEST_F(CommandsInFolderWithBlank, PathIsRegisteredInQuotesAndTheServiceStarts) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  const std::wstring quoted = L"\"" + installation.Program().wstring() + L"\"";
  EXPECT_EQ(service.Configuration().commandPath, quoted);
  const EventSource source = ReadEventSource(name);
  EXPECT_EQ(source.messageFile, quoted);
  EXPECT_EQ(source.messageFileBytes, (quoted.size() + 1) * sizeof(wchar_t));

  EXPECT_EQ(service.Start(), 0U);
  EXPECT_TRUE(service.WaitForState(SERVICE_RUNNING));
  EXPECT_EQ(installation.Run("-stop").exitCode, 0U);
  EXPECT_EQ(service.State(), DWORD{SERVICE_STOPPED});
}

// The recovery command itself is checked where ChangeServiceConfig2W can be watched: Wine accepts
// failure actions, stores none and never runs any.

TEST_F(Commands, InstallOnAnInstalledServiceSaysSoAndDoesNotTouchTheConfiguration) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  service.SetStartType(SERVICE_DEMAND_START);
  const CommandResult again = installation.Run("-install");
  EXPECT_EQ(again.exitCode, 0U);
  EXPECT_EQ(again.output, name + " is already installed\r\n");
  EXPECT_EQ(service.Configuration().startType, DWORD{SERVICE_DEMAND_START});
}

TEST_F(Commands, OptionWordsAreReadInAnyLetterCase) {
  EXPECT_EQ(installation.Run("-INSTALL").output, InstalledText());
  EXPECT_EQ(installation.Run("-Install").output, name + " is already installed\r\n");
  EXPECT_EQ(installation.Run("-UnInstall").output, "");
  EXPECT_FALSE(service.IsInstalled());
}

TEST_F(Commands, SecondArgumentNeverChangesWhatHappens) {
  EXPECT_EQ(installation.Run("-install -uninstall").output, InstalledText());
  EXPECT_TRUE(service.IsInstalled());
}

// Outside the service control manager the dispatcher fails: at once on Windows, after 10 seconds
// under Wine. So the three run beside each other.
TEST_F(Commands, WordsThatAreNoOptionsFallThroughToTheDispatcher) {
  BackgroundProgram withoutDash(installation.Program(), "install");
  BackgroundProgram withSlash(installation.Program(), "/install");
  BackgroundProgram withoutArguments(installation.Program(), "");
  for (BackgroundProgram* program : {&withoutDash, &withSlash, &withoutArguments}) {
    const CommandResult result = program->Finish();
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.output, "");
  }
  EXPECT_FALSE(service.IsInstalled());
  EXPECT_THAT(installation.TextsOf("CNTService::StartService"),
              Contains("After calling StartServiceCtrlDispatcher").Times(3));
  EXPECT_THAT(installation.TextsOf("CNTService::ParseStandardArgs"),
              Contains("No Arguments hence returning").Times(1));
}

TEST_F(Commands, StartAndResetStartTheServiceAndTraceTheSameWord) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  for (const std::string word : {"-start", "-reset"}) {
    const CommandResult result = installation.Run(word);
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});
    installation.Run("-stop");
    EXPECT_EQ(service.State(), DWORD{SERVICE_STOPPED});
  }
  const std::vector<std::string> texts = installation.TextsOf("CNTService::ParseStandardArgs");
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "-start"), 2);
  EXPECT_THAT(texts, Not(Contains("-reset")));
}

TEST_F(Commands, StartOfARunningServiceFailsWithError1056AndExitCode0) {
  InstallAndStart();
  EXPECT_EQ(installation.Run("-start").exitCode, 0U);
  EXPECT_THAT(installation.TextsOf("StartServiceByName"),
              ElementsAre("Entry", "StartService Failed (1056)"));
  EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});
}

TEST_F(Commands, StopOfAStoppedServiceFailsInControlServiceWithExitCode0) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  const CommandResult result = installation.Run("-stop");
  EXPECT_EQ(result.exitCode, 0U);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(installation.TextsOf("StopServiceByName"), Contains("ControlService Failed (1062)"));
  EXPECT_THAT(installation.TextsOf("CNTService::ParseStandardArgs"),
              Contains("Stop service Failed"));
}

TEST_F(Commands, StopsOfAServiceThatIsNotInstalledAreSilent) {
  for (const std::string word : {"-stop", "-stopmanual"}) {
    const CommandResult result = installation.Run(word);
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.output, "");
  }
  EXPECT_THAT(installation.TextsOf("CNTService::ParseStandardArgs"),
              ElementsAre("Entry", "-stop", "Entry", "-stopmanual"));
}

TEST_F(Commands, RestartOfAServiceThatIsNotInstalledStillTriesToStartIt) {
  const CommandResult result = installation.Run("-restart");
  EXPECT_EQ(result.exitCode, 0U);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(installation.TextsOf("CNTService::ParseStandardArgs"),
              ElementsAre("Entry", "-restart", "Before calling StartServiceByName",
                          "StartServiceByName Failed", "After calling StartServiceByName", "Exit"));
  EXPECT_THAT(installation.TextsOf("StartServiceByName"),
              ElementsAre("Entry", "OpenService Failed (1060)"));
}

TEST_F(Commands, RestartReplacesTheRunningProcess) {
  InstallAndStart();
  const DWORD before = service.Status().dwProcessId;
  EXPECT_EQ(installation.Run("-restart").exitCode, 0U);
  EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});
  EXPECT_NE(service.Status().dwProcessId, before);
}

TEST_F(Commands, UninstallOfAServiceThatIsNotInstalledSaysSo) {
  const CommandResult result = installation.Run("-uninstall");
  EXPECT_EQ(result.exitCode, 0U);
  EXPECT_EQ(result.output, name + " is not installed\r\n");
}

TEST_F(Commands, UninstallRemovesTheServiceAndLeavesTheEventSource) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  const CommandResult result = installation.Run("-uninstall");
  EXPECT_EQ(result.exitCode, 0U);
  EXPECT_EQ(result.output, "");
  EXPECT_FALSE(service.IsInstalled());
  EXPECT_EQ(ReadEventSource(name).typesSupported, 7U);
}

TEST_F(Commands, UninstallOfARunningServiceLeavesItRunning) {
  InstallAndStart();
  const DWORD processId = service.Status().dwProcessId;
  const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, processId));
  EXPECT_EQ(installation.Run("-uninstall").exitCode, 0U);
  EXPECT_EQ(WaitForSingleObject(process.Get(), 0), DWORD{WAIT_TIMEOUT});
}

// Each command begins when the one before is seen to be over: a start that has not led to RUNNING
// would leave the helper waiting for what nobody says.
TEST_F(Commands, StopsAndUninstallationAreToldToTheHelperProcess) {
  InstallAndStart();
  BackgroundProgram helper(installation.Folder() / "vorlhelper.exe", "--count 5");
  ASSERT_TRUE(helper.WaitForOutput("waiting for notifications"));
  installation.Run("-stop");
  ASSERT_TRUE(helper.WaitForOutput("(action 2, flag 0)"));
  ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
  installation.Run("-start");
  ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING));
  installation.Run("-stopmanual");
  ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
  installation.Run("-uninstall");

  const CommandResult told = helper.Finish();
  EXPECT_EQ(told.exitCode, 0U);
  const std::string quoted = "\"" + name + "\"";
  EXPECT_EQ(told.output, "waiting for notifications\r\n" + quoted +
                             ": about to be stopped (action 1, flag 0)\r\n" + quoted +
                             ": stop carried out (action 2, flag 0)\r\n" + quoted +
                             ": about to be stopped (action 1, flag 0)\r\n" + quoted +
                             ": stop carried out (action 2, flag 0)\r\n" + quoted +
                             ": about to be uninstalled (action 5, flag 0)\r\n");
}

TEST_F(Commands, IdentifierIsCreatedBeforeTheOptionIsLookedAt) {
  EXPECT_THAT(installation.Run("-uninstall").output, HasSubstr("is not installed"));
  std::vector<std::string> functions;
  for (const TraceEntry& entry : installation.Trace()) {
    if (functions.empty() || functions.back() != entry.function) {
      functions.push_back(entry.function);
    }
  }
  const auto created = std::find(functions.begin(), functions.end(), "CreateAndSetClientUUID");
  const auto parsed =
      std::find(functions.begin(), functions.end(), "CNTService::ParseStandardArgs");
  ASSERT_NE(created, functions.end());
  ASSERT_NE(parsed, functions.end());
  EXPECT_LT(created, parsed);
}

}  // namespace
