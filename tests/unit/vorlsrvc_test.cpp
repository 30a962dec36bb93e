// The program's main.
#include "app/vorlsrvc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "tests/unit/vorlsrvc_test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

// The whole program, beside stand-ins for the service control manager, the helper process and the
// machine's WMI.
class MainTest : public CreateAndSetClientUUIDTest {
 protected:
  MainTest() {
    FakeInfoReset();
    journal.Clear();
  }

  // Runs main with these arguments after the program's name.
  int Run(std::vector<std::string> words) {
    words.insert(words.begin(), "vorlsrvc.exe");
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    ConsoleCapture capture;
    const int exitCode = VorlsrvcMain(static_cast<int>(words.size()), argv.data());
    console = capture.End();
    return exitCode;
  }

  void HaveIdentifier() { configuration.Write(kStored); }

  FakeServiceManager manager{journal};
  FakeHelperPipe helper{journal};
  std::string console;

  // What the dispatcher was given, and what it does.
  unsigned dispatchers = 0;
  std::string dispatchedName;
  bool tableEnds = false;
  std::function<BOOL(LPSERVICE_MAIN_FUNCTIONA)> dispatch = [](LPSERVICE_MAIN_FUNCTIONA) {
    SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    return FALSE;
  };

 private:
  CallPatch<struct DispatcherTag, decltype(StartServiceCtrlDispatcherA)> m_dispatcher{
      "ADVAPI32.dll", "StartServiceCtrlDispatcherA", [this](const SERVICE_TABLE_ENTRYA* table) {
        ++dispatchers;
        dispatchedName = table[0].lpServiceName;
        tableEnds = table[1].lpServiceName == nullptr && table[1].lpServiceProc == nullptr;
        return dispatch(table[0].lpServiceProc);
      }};
  CallPatch<struct RegisterTag, decltype(RegisterServiceCtrlHandlerA)> m_register{
      "ADVAPI32.dll", "RegisterServiceCtrlHandlerA", [](LPCSTR, LPHANDLER_FUNCTION) {
        return reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{0x5500});
      }};
  CallPatch<struct StatusTag, decltype(SetServiceStatus)> m_status{
      "ADVAPI32.dll", "SetServiceStatus",
      [](SERVICE_STATUS_HANDLE, LPSERVICE_STATUS) { return TRUE; }};
};

// Journal entries whose handles are numbered by a count over the whole test.
std::vector<std::string> WithoutHandleNumbers(std::vector<std::string> entries) {
  for (std::string& entry : entries) {
    entry = std::regex_replace(entry, std::regex("(manager|service)[0-9]+"), "$1");
  }
  return entries;
}

TEST_F(MainTest, WithoutArgumentsBecomesTheService) {
  HaveIdentifier();
  EXPECT_EQ(Run({}), 0);
  const std::string expected[] = {kMain.Info("Entry"),
                                  kMain.Info("Before Calling SetClientAgentLogOptions"),
                                  kMain.Info("After Calling SetClientAgentLogOptions"),
                                  kIsPresent.Info("Entry"),
                                  FetchedLine(kIdentifier),
                                  kIsPresent.Info("Exit"),
                                  kMain.Info("Before Creating CAcAsSvc Object"),
                                  kBaseConstructor.Info("Entry"),
                                  kBaseConstructor.Info("Exit"),
                                  kConstructor.Info("Entry"),
                                  kConstructor.Info("Exit"),
                                  kMain.Info("After Creating CAcAsSvc Object"),
                                  kMain.Info("Before Calling asServiceObj.ParseStandardArgs"),
                                  kParse.Info("Entry"),
                                  kParse.Info("No Arguments hence returning"),
                                  kParse.Info("Exit"),
                                  kMain.Error("asServiceObj.ParseStandardArgs Failed"),
                                  kMain.Info("Before Calling asServiceObj.StartService"),
                                  kStartService.Info("Entry"),
                                  kStartService.Info("Before calling StartServiceCtrlDispatcher"),
                                  kStartService.Info("After calling StartServiceCtrlDispatcher"),
                                  kStartService.Info("Exit"),
                                  kMain.Info("After Calling asServiceObj.StartService"),
                                  kMain.Info("After Calling asServiceObj.ParseStandardArgs"),
                                  kMain.Info("Exit"),
                                  kDestructor.Info("Entry"),
                                  kDestructor.Info("Exit"),
                                  kBaseDestructor.Info("Entry"),
                                  kBaseDestructor.Info("Exit")};
  EXPECT_THAT(journal.Traces(), ElementsAreArray(expected));
  EXPECT_EQ(dispatchers, 1U);
  EXPECT_EQ(dispatchedName, "Test Client Agent");
  EXPECT_TRUE(tableEnds);
  EXPECT_EQ(console, "");
}

TEST_F(MainTest, WritesEachLineInItsPlaceAmongTheCallsOfTheLibraries) {
  HaveIdentifier();
  const LibraryCalls libraries(journal);
  Run({});
  std::vector<std::string> entries = journal.Entries();
  std::erase_if(entries, [](const std::string& entry) {
    return entry.starts_with("level ") && !kMain.Wrote(entry);
  });
  EXPECT_THAT(
      entries,
      ElementsAre(kMain.Info("Entry"), kMain.Info("Before Calling SetClientAgentLogOptions"),
                  "SetClientAgentLogOptions", kMain.Info("After Calling SetClientAgentLogOptions"),
                  "GetServiceNameByVersion Client Agent", "GetClientAgentConfigDir",
                  kMain.Info("Before Creating CAcAsSvc Object"),
                  kMain.Info("After Creating CAcAsSvc Object"),
                  kMain.Info("Before Calling asServiceObj.ParseStandardArgs"),
                  kMain.Error("asServiceObj.ParseStandardArgs Failed"),
                  kMain.Info("Before Calling asServiceObj.StartService"),
                  kMain.Info("After Calling asServiceObj.StartService"),
                  kMain.Info("After Calling asServiceObj.ParseStandardArgs"), kMain.Info("Exit")));
}

TEST_F(MainTest, WithACommandNeverBecomesTheService) {
  HaveIdentifier();
  for (const char* const command :
       {"-install", "-uninstall", "-start", "-reset", "-stop", "-stopmanual", "-restart"}) {
    SCOPED_TRACE(command);
    journal.Clear();
    EXPECT_EQ(Run({command}), 0);
    EXPECT_EQ(dispatchers, 0U);
    EXPECT_THAT(
        kMain.In(journal),
        ElementsAre(kMain.Info("Entry"), kMain.Info("Before Calling SetClientAgentLogOptions"),
                    kMain.Info("After Calling SetClientAgentLogOptions"),
                    kMain.Info("Before Creating CAcAsSvc Object"),
                    kMain.Info("After Creating CAcAsSvc Object"),
                    kMain.Info("Before Calling asServiceObj.ParseStandardArgs"),
                    kMain.Info("After Calling asServiceObj.ParseStandardArgs"),
                    kMain.Info("Exit")));
  }
}

TEST_F(MainTest, GoesOnWithoutLogOptions) {
  HaveIdentifier();
  FakeMisc()->logOptionsResult = 0;
  EXPECT_EQ(Run({"-start"}), 0);
  const std::vector<std::string> lines = kMain.In(journal);
  ASSERT_GE(lines.size(), 5U);
  EXPECT_THAT(
      std::vector(lines.begin(), lines.begin() + 5),
      ElementsAre(kMain.Info("Entry"), kMain.Info("Before Calling SetClientAgentLogOptions"),
                  kMain.Error("SetClientAgentLogOptions Failed"),
                  kMain.Info("After Calling SetClientAgentLogOptions"),
                  kMain.Info("Before Creating CAcAsSvc Object")));
  EXPECT_EQ(FakeMisc()->logOptionsCalls, 1U);
}

TEST_F(MainTest, OnlyTheLowByteOfTheLibrariesResultsCounts) {
  HaveIdentifier();
  FakeMisc()->logOptionsResult = 2;
  FakeInfo()->serviceNameResult = 2;
  Run({"-start"});
  EXPECT_THAT(kMain.In(journal), Not(Contains(kMain.Error("SetClientAgentLogOptions Failed"))));
  EXPECT_EQ(kMain.In(journal).back(), kMain.Info("Exit"));
}

TEST_F(MainTest, EndsWith0WithoutAServiceName) {
  FakeInfo()->serviceNameResult = 0;
  EXPECT_EQ(Run({"-install"}), 0);
  EXPECT_THAT(journal.Traces(), ElementsAre(kMain.Info("Entry"),
                                            kMain.Info("Before Calling SetClientAgentLogOptions"),
                                            kMain.Info("After Calling SetClientAgentLogOptions")));
  EXPECT_EQ(FakeMisc()->configDirCalls, 0U);
  EXPECT_THAT(journal.Calls(), IsEmpty());
  EXPECT_EQ(console, "");
  EXPECT_EQ(dispatchers, 0U);
}

TEST_F(MainTest, AsksForTheNameOfTheClientAgent) {
  HaveIdentifier();
  Run({"-start"});
  EXPECT_STREQ(FakeInfo()->serviceBaseName, "Client Agent");
  EXPECT_EQ(FakeInfo()->serviceNameCapacity, 100U);
  EXPECT_EQ(FakeInfo()->serviceNameCalls, 1U);
  EXPECT_THAT(journal.Calls(), Contains(::testing::HasSubstr("\"Test Client Agent\"")));
}

TEST_F(MainTest, LeavesAnIdentifierThatExistsAloneEvenOnOtherHardware) {
  HaveBiosUuid();
  HaveIdentifier();
  Run({"-start"});
  EXPECT_EQ(configuration.Read(), kStored);
  EXPECT_EQ(comSetUps, 0U);
  EXPECT_THAT(kCreateIdentifier.In(journal), IsEmpty());
}

TEST_F(MainTest, ReplacesAnEmptyIdentifierByANewOne) {
  HaveBiosUuid();
  configuration.Write("[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=\r\n");
  Run({"-start"});
  EXPECT_EQ(configuration.Read(), FileWith(kIdentifierOfBiosUuid));
}

TEST_F(MainTest, CreatesTheIdentifierBeforeTheCommandIsLookedAt) {
  HaveBiosUuid();
  for (const char* const command :
       {"-install", "-uninstall", "-start", "-reset", "-stop", "-stopmanual", "-restart", "x"}) {
    SCOPED_TRACE(command);
    DeleteFileW(configuration.File().c_str());
    journal.Clear();
    Run({command});
    EXPECT_EQ(configuration.Read(), FileWith(kIdentifierOfBiosUuid));
    const std::vector<std::string> entries = journal.Entries();
    const auto stored = std::find(entries.begin(), entries.end(), kSetIdentifier.Verbose(" Exit"));
    const auto looked = std::find(entries.begin(), entries.end(), kParse.Info("Entry"));
    EXPECT_LT(stored, looked);
    EXPECT_NE(looked, entries.end());
  }
}

TEST_F(MainTest, WithoutAConfigurationFolderStartsAllTheSame) {
  HaveBiosUuid();
  FakeMisc()->configDirResult = 0;
  EXPECT_EQ(Run({}), 0);
  EXPECT_EQ(dispatchers, 1U);
  EXPECT_THAT(
      kIsPresent.In(journal),
      ElementsAre(kIsPresent.Info("Entry"), kIsPresent.Error("GetClientAgentConfigDir failed")));
  EXPECT_THAT(kSetIdentifier.In(journal),
              ElementsAre(kSetIdentifier.Verbose(" Entry"),
                          kSetIdentifier.Error("GetClientAgentConfigDir failed")));
  EXPECT_THAT(kCreateIdentifier.In(journal),
              ElementsAre(kCreateIdentifier.Info("Entry"), NewIdentifierLine(),
                          kCreateIdentifier.Error("SetClientUUID failed.")));
}

TEST_F(MainTest, WithoutAnIdentifierStartsAllTheSame) {
  comResult = E_FAIL;
  EXPECT_EQ(Run({}), 0);
  EXPECT_EQ(dispatchers, 1U);
  EXPECT_EQ(configuration.Read(), "");
}

// Commands, as far as main has a part in them.

TEST_F(MainTest, LetterCaseOfTheCommandDoesNotCount) {
  HaveIdentifier();
  for (const char* const command : {"-Install", "-INSTALL", "-install"}) {
    EXPECT_EQ(Run({command}), 0);
    EXPECT_EQ(console, "Test Client Agent is already installed\n");
  }
  EXPECT_EQ(dispatchers, 0U);
}

TEST_F(MainTest, ResetBehavesLikeStart) {
  HaveIdentifier();
  Run({"-start"});
  const std::vector<std::string> start = journal.Entries();
  EXPECT_THAT(start, Contains(kParse.Info("-start")));
  journal.Clear();
  Run({"-reset"});
  EXPECT_THAT(WithoutHandleNumbers(journal.Entries()),
              ElementsAreArray(WithoutHandleNumbers(start)));
}

TEST_F(MainTest, InstallOnAnInstalledServiceDoesNotTouchItsConfiguration) {
  HaveIdentifier();
  Run({"-install"});
  EXPECT_EQ(console, "Test Client Agent is already installed\n");
  for (const std::string& call : journal.Calls()) {
    EXPECT_THAT(call, ::testing::AnyOf(StartsWith("OpenSCManagerA"), StartsWith("OpenServiceA"),
                                       StartsWith("CloseServiceHandle")));
  }
}

TEST_F(MainTest, UninstallOfAServiceThatIsNotInstalledSaysSo) {
  HaveIdentifier();
  manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  EXPECT_EQ(Run({"-uninstall"}), 0);
  EXPECT_EQ(console, "Test Client Agent is not installed\n");
}

TEST_F(MainTest, WordsThatAreNoCommandBecomeTheService) {
  HaveIdentifier();
  for (const char* const word : {"install", "/install", "-install2", "--install", ""}) {
    SCOPED_TRACE(word);
    dispatchers = 0;
    EXPECT_EQ(Run({word}), 0);
    EXPECT_EQ(dispatchers, 1U);
    EXPECT_EQ(console, "");
  }
}

TEST_F(MainTest, ASecondArgumentNeverChangesWhatHappens) {
  HaveIdentifier();
  for (const char* const further : {"-uninstall", "x", ""}) {
    EXPECT_EQ(Run({"-install", further}), 0);
    EXPECT_EQ(console, "Test Client Agent is already installed\n");
  }
  EXPECT_EQ(Run({"x", "-install"}), 0);
  EXPECT_EQ(dispatchers, 1U);
}

TEST_F(MainTest, EndsWith0AfterAFailedInstall) {
  HaveIdentifier();
  manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  manager.Fail("CreateServiceW", ERROR_ACCESS_DENIED);
  EXPECT_EQ(Run({"-install"}), 0);
  EXPECT_EQ(console, "Unable to install Test Client Agent. (Error 5)\n");
}

TEST_F(MainTest, EndsWith0AfterAFailedUninstall) {
  HaveIdentifier();
  manager.Fail("DeleteService", ERROR_SERVICE_MARKED_FOR_DELETE);
  EXPECT_EQ(Run({"-uninstall"}), 0);
  EXPECT_EQ(console, "Could not remove Test Client Agent. Error 1072\n");
}

TEST_F(MainTest, EndsWith0AfterAFailedStop) {
  HaveIdentifier();
  manager.Fail("ControlService", ERROR_SERVICE_NOT_ACTIVE);
  EXPECT_EQ(Run({"-stop"}), 0);
  EXPECT_THAT(kParse.In(journal), Contains(kParse.Info("Stop service Failed")));
  EXPECT_EQ(console, "");
}

TEST_F(MainTest, WithoutTheRightToOpenTheManagerNothingCountsAsInstalled) {
  HaveIdentifier();
  manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_EQ(Run({"-install"}), 0);
  EXPECT_EQ(console, "Unable to install Test Client Agent. (Error 5)\n");
  EXPECT_EQ(Run({"-uninstall"}), 0);
  EXPECT_EQ(console, "Test Client Agent is not installed\n");
  for (const char* const command : {"-stop", "-stopmanual"}) {
    journal.Clear();
    EXPECT_EQ(Run({command}), 0);
    EXPECT_EQ(console, "");
    EXPECT_THAT(journal.Calls(), Not(Contains(StartsWith("helper pipe"))));
  }
}

// The exit code of the service's process.

TEST_F(MainTest, EndsWithTheErrorOfAServiceThatCannotInitialise) {
  HaveIdentifier();
  const CallPatch<struct LoadTag, HMODULE(const char*)> load("KERNEL32.dll", "LoadLibraryA",
                                                             [](const char*) -> HMODULE {
                                                               SetLastError(ERROR_ACCESS_DENIED);
                                                               return nullptr;
                                                             });
  dispatch = [](LPSERVICE_MAIN_FUNCTIONA serviceMain) {
    serviceMain(0, nullptr);
    return TRUE;
  };
  EXPECT_EQ(Run({}), 5);
  EXPECT_EQ(journal.Traces().back(), kBaseDestructor.Info("Exit"));
}

TEST_F(MainTest, EndsWith0AfterAServiceThatRan) {
  HaveIdentifier();
  // Without start-up options the service's body ends at once.
  FakeMisc()->startUpOptionsResult = 0;
  FakeInfo()->eventNameResult = 0;
  // So does the watcher, for which nobody waits then: not beyond this test.
  using Procedure = unsigned(__stdcall*)(void*);
  CallPatch<struct BeginTag, std::uintptr_t(void*, unsigned, Procedure, void*, unsigned, unsigned*)>
      begin{"msvcrt.dll", "_beginthreadex",
            [&](void* security, unsigned stackSize, Procedure procedure, void* argument,
                unsigned flags, unsigned* id) {
              const std::uintptr_t thread =
                  begin.CallOriginal(security, stackSize, procedure, argument, flags, id);
              WaitForSingleObject(reinterpret_cast<HANDLE>(thread), INFINITE);
              return thread;
            }};
  dispatch = [](LPSERVICE_MAIN_FUNCTIONA serviceMain) {
    SetLastError(ERROR_ACCESS_DENIED);
    serviceMain(0, nullptr);
    return TRUE;
  };
  EXPECT_EQ(Run({}), 0);
  EXPECT_THAT(kRun.In(journal), Contains(kRun.Error("GetClientAgentStartUpOptions Failed")));
}

}  // namespace
