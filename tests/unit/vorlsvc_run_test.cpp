// The service's body, from the start of the closure watcher to the clean-up of the core module.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/unit/vorlsvc_run_test.h"

using ::testing::ElementsAre;

namespace {

TEST_F(RunTest, HostsTheModulesUntilTheWatcherEnds) {
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  EXPECT_THAT(
      Lines(),
      ElementsAre(
          kRun.Info("Entry"), kRun.Info("Before calling GetClientAgentStartUpOptions"),
          kRun.Info("Calling for pending update..."), kPatch.Info("Entry."),
          kPatch.InfoDirect(L"wszFilePath: %s", PathText("vorlupd.dll")), kPatch.Info("Exit."),
          kRun.Info("After calling GetClientAgentStartUpOptions"), kLoadCore.Info("Entry."),
          kLoadCore.VerboseDirect(L"wszFilePath: %s", PathText("vorlcore.dll")),
          kLoadCore.Info("Exit."), kRun.Info("Before calling ClientAgentCoreStartUp"),
          kOnStop.Info("Entry"), kOnStop.Info("Before setting close Event"),
          kOnStop.Info("After setting close Event"), kOnStop.Info("Exit"),
          kRun.Info("After calling ClientAgentCoreStartUp"),
          kRun.Info("Before Calling WaitForSingleObject"),
          kRun.Info("After Calling WaitForSingleObject"),
          kRun.Info("Before calling ClientAgentCoreCleanUp"), kRun.Info("Notify server is false"),
          kRun.Info("After calling ClientAgentCoreCleanUp"),
          kRun.Info("Before calling FreeSecurityAttributeForEveryone"),
          kFreeAttributes.Info("Entry"), kFreeAttributes.Info("Before calling g_pfnFreeSid"),
          kFreeAttributes.Info("Before calling LocalFree"),
          kFreeAttributes.Info("Before calling LocalFree"), kFreeAttributes.Info("Exit"),
          kRun.Info("After calling FreeSecurityAttributeForEveryone"), kRun.Info("Exit")));
  EXPECT_EQ(core->startUpCalls, 1U);
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(RunTest, CallsWindowsInOrder) {
  UseRoot(L"complete");
  HeldCore core(root);
  // Ended from outside, so that the service itself touches no event here.
  AtStartUp(core, [this] {
    const HANDLE event = OpenOrCreateEvent(kExitEvent);
    SetEvent(event);
    AwaitWatcher();
    CloseHandle(event);
    journal.Clear();
  });
  service->Run();
  EXPECT_THAT(
      RunAndCalls(),
      ElementsAre(
          kRun.Info("After calling ClientAgentCoreStartUp"),
          kRun.Info("Before Calling WaitForSingleObject"), "WaitForSingleObject watcher thread",
          kRun.Info("After Calling WaitForSingleObject"), "CloseHandle watcher thread",
          kRun.Info("Before calling ClientAgentCoreCleanUp"), kRun.Info("Notify server is false"),
          kRun.Info("After calling ClientAgentCoreCleanUp"),
          kRun.Info("Before calling FreeSecurityAttributeForEveryone"), "FreeLibrary vorlcore.dll",
          "FreeLibrary advapi32.dll", kRun.Info("After calling FreeSecurityAttributeForEveryone"),
          kRun.Info("Exit")));
}

TEST_F(RunTest, WritesEachLineInItsPlaceAmongAllCalls) {
  HeldCore core(root);
  JournalCore(core);
  journalsLookUps = true;
  const LibraryCalls libraries(journal);
  // The watcher works while the service waits for it, and at no other time.
  HoldWatcher();
  const HANDLE exitEvent = OpenOrCreateEvent(kExitEvent);
  SetEvent(exitEvent);
  atWait = [this] {
    ReleaseWatcher();
    AwaitWatcher();
  };
  service->Run();
  CloseHandle(exitEvent);
  EXPECT_THAT(
      RunAndCalls(),
      ElementsAre(
          kRun.Info("Entry"), "_beginthreadex",
          kRun.Info("Before calling GetClientAgentStartUpOptions"), "GetClientAgentStartUpOptions",
          kRun.Info("Calling for pending update..."), "GetClientAgentRootDir",
          "LoadLibraryExW vorlupd.dll", "GetProcAddress vorlupd.dll UpdateBeforeClientService",
          "FreeLibrary vorlupd.dll", kRun.Info("After calling GetClientAgentStartUpOptions"),
          "GetClientAgentRootDir", "LoadLibraryExW vorlcore.dll",
          "GetProcAddress vorlcore.dll ClientAgentCoreStartUp",
          kRun.Info("Before calling ClientAgentCoreStartUp"), "ClientAgentCoreStartUp",
          kRun.Info("After calling ClientAgentCoreStartUp"),
          kRun.Info("Before Calling WaitForSingleObject"), "WaitForSingleObject watcher thread",
          "GetEventNameByVersion " + kCloseEvent, "GetEventNameByVersion " + kExitEvent,
          "CreateEventA " + kCloseEvent, "CreateEventA " + kExitEvent, "CloseHandle " + kExitEvent,
          kRun.Info("After Calling WaitForSingleObject"), "CloseHandle watcher thread",
          kRun.Info("Before calling ClientAgentCoreCleanUp"),
          "GetProcAddress vorlcore.dll ClientAgentCoreCleanUp", kRun.Info("Notify server is false"),
          "ClientAgentCoreCleanUp", kRun.Info("After calling ClientAgentCoreCleanUp"),
          kRun.Info("Before calling FreeSecurityAttributeForEveryone"), "FreeLibrary vorlcore.dll",
          "FreeLibrary advapi32.dll", kRun.Info("After calling FreeSecurityAttributeForEveryone"),
          kRun.Info("Exit")));
}

TEST_F(RunTest, UnloadsTheUpdateModuleBeforeItLoadsTheCore) {
  HeldCore core(root);
  HoldWatcher();
  core->startUpResult = 0;
  service->Run();
  const std::vector<std::string> calls = journal.Calls();
  ASSERT_GE(calls.size(), 4U);
  EXPECT_THAT(std::vector(calls.begin(), calls.begin() + 4),
              ElementsAre("_beginthreadex", "LoadLibraryExW vorlupd.dll", "FreeLibrary vorlupd.dll",
                          "LoadLibraryExW vorlcore.dll"));
}

TEST_F(RunTest, HandsTheOptionsToTheCoreFieldByField) {
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  EXPECT_TRUE(FakeMisc()->startUpOptionsWereZero);
  EXPECT_EQ(FakeMisc()->startUpOptionsCalls, 1U);

  EXPECT_STREQ(core->startUpTexts[0], "first text");
  EXPECT_STREQ(core->startUpTexts[1], "second text");
  EXPECT_STREQ(core->startUpTexts[2], "third text");
  EXPECT_STREQ(core->startUpTexts[3], "fourth text");
  EXPECT_THAT(core->startUpWords, ElementsAre(0xF001, 0xF002, 0xF003, 0xF004));
  EXPECT_THAT(core->startUpDwords, ElementsAre(0xF0000001U, 0xF0000002U, 0xF0000003U, 0xF0000004U,
                                               0xF0000005U, 0xF0000006U));
  EXPECT_EQ(core->startUpByte1, 0xB1);

  EXPECT_STREQ(core->cleanUpTexts[0], "first text");
  EXPECT_STREQ(core->cleanUpTexts[1], "second text");
  EXPECT_STREQ(core->cleanUpTexts[2], "third text");
  EXPECT_STREQ(core->cleanUpTexts[3], "fourth text");
  EXPECT_EQ(core->cleanUpWord1, 0xF001);
  EXPECT_THAT(core->cleanUpDwords, ElementsAre(0xF0000001U, 0xF0000002U, 0xF0000003U, 0xF0000006U));
}

TEST_F(RunTest, HandsOverAddressesInsideTheOneOptionsBlock) {
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  const char* const block = core->startUpAddresses[0];
  EXPECT_EQ(core->startUpAddresses[1] - block, 520);
  EXPECT_EQ(core->startUpAddresses[2] - block, 1040);
  EXPECT_EQ(core->startUpAddresses[3] - block, 1080);
  EXPECT_THAT(core->cleanUpAddresses, ElementsAre(block, block + 520, block + 1040, block + 1080));
}

TEST_F(RunTest, StartsTheWatcherWithTheService) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  EXPECT_EQ(beginCalls, 1U);
  EXPECT_EQ(beginArgument, static_cast<CAcAsSvc*>(service.get()));
}

TEST_F(RunTest, EndsWhenTheWatcherCannotBeStarted) {
  beginFails = true;
  service->Run();
  EXPECT_THAT(journal.Entries(), ElementsAre(kRun.Info("Entry"), "_beginthreadex",
                                             kRun.Error("_beginthreadex Failed 8")));
  EXPECT_EQ(FakeMisc()->startUpOptionsCalls, 0U);
}

// Without start-up options.

TEST_F(RunTest, FailingOptionsSignalTheCloseEventSoThatTheWatcherEndsAtOnceAndLoadNoCore) {
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  AwaitWatcher();
  EXPECT_THAT(Lines(), ElementsAre(kRun.Info("Entry"),
                                   kRun.Info("Before calling GetClientAgentStartUpOptions"),
                                   kRun.Error("GetClientAgentStartUpOptions Failed")));
  EXPECT_THAT(
      kWatch.In(journal),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Close Event Signalled"), kWatch.Info("Exit")));
  EXPECT_EQ(FakeMisc()->rootDirCalls, 0U);
  EXPECT_EQ(waitsForWatcher, 0U);
  EXPECT_THAT(handles.Open(), ::testing::Contains("watcher thread"));
}

TEST_F(RunTest, FailingOptionsSignalTheCloseEventAndCloseTheHandle) {
  const LibraryCalls libraries(journal);
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kRun.Info("Entry"), "_beginthreadex",
                  kRun.Info("Before calling GetClientAgentStartUpOptions"),
                  "GetClientAgentStartUpOptions", kRun.Error("GetClientAgentStartUpOptions Failed"),
                  "GetEventNameByVersion " + kCloseEvent, "CreateEventA " + kCloseEvent,
                  "DuplicateHandle " + kCloseEvent, "SetEvent " + kCloseEvent,
                  "CloseHandle " + kCloseEvent));
  const HandleCalls::Creation creation = handles.Creations()[0];
  EXPECT_EQ(creation.name, VersionedName("AcClientAgentSrvcCloseFromServicef"));
  EXPECT_EQ(creation.attributes, &service->m_SecurityAttributes);
  EXPECT_EQ(creation.manualReset, TRUE);
  EXPECT_EQ(creation.initialState, FALSE);
  EXPECT_EQ(FakeInfo()->eventNameCapacity, 500U);
}

TEST_F(RunTest, FailingOptionsAndACloseEventWithoutANameAreTwoErrors) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  FakeInfo()->eventNameFailingCall = 1;
  service->Run();
  EXPECT_THAT(Lines(), ElementsAre(kRun.Info("Entry"),
                                   kRun.Info("Before calling GetClientAgentStartUpOptions"),
                                   kRun.Error("GetClientAgentStartUpOptions Failed"),
                                   kRun.Error("GetEventNameByVersion Failed")));
  EXPECT_THAT(journal.Calls(), ElementsAre("_beginthreadex"));
}

TEST_F(RunTest, FailingOptionsAndACloseEventThatCannotBeCreatedAreTwoErrors) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  handles.FailCreation(kCloseEvent, ERROR_ACCESS_DENIED);
  service->Run();
  EXPECT_THAT(Lines(), ElementsAre(kRun.Info("Entry"),
                                   kRun.Info("Before calling GetClientAgentStartUpOptions"),
                                   kRun.Error("GetClientAgentStartUpOptions Failed"),
                                   kRun.Error("CreateEvent Failed for Close Event : 5")));
  EXPECT_THAT(journal.Calls(), ElementsAre("_beginthreadex", "CreateEventA " + kCloseEvent));
}

// Without one of the modules or of its exports.

TEST_F(RunTest, StartsTheCoreWithoutAnUpdateModule) {
  UseRoot(L"core_only");
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  std::vector<std::string> lines = Lines();
  ASSERT_GE(lines.size(), 8U);
  EXPECT_THAT(
      std::vector(lines.begin(), lines.begin() + 8),
      ElementsAre(kRun.Info("Entry"), kRun.Info("Before calling GetClientAgentStartUpOptions"),
                  kRun.Info("Calling for pending update..."), kPatch.Info("Entry."),
                  kPatch.InfoDirect(L"wszFilePath: %s", PathText("vorlupd.dll")),
                  kPatch.ErrorDirect(L"File not exist (%s)",
                                     "File not exist (" + Utf8(root) + "\\vorlupd.dll)"),
                  kRun.Info("DoPendingPatchTasks failed..."),
                  kRun.Info("After calling GetClientAgentStartUpOptions")));
  EXPECT_EQ(core->startUpCalls, 1U);
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(RunTest, EndsWithoutACoreModuleAndSignalsNothing) {
  HoldWatcher();
  UseRoot(L"without_update");
  service->Run();
  EXPECT_THAT(
      kRun.In(journal),
      ElementsAre(kRun.Info("Entry"), kRun.Info("Before calling GetClientAgentStartUpOptions"),
                  kRun.Info("Calling for pending update..."),
                  kRun.Info("DoPendingPatchTasks failed..."),
                  kRun.Info("After calling GetClientAgentStartUpOptions"),
                  kRun.Error("LoadAcresDll() failed.")));
  EXPECT_THAT(journal.Calls(),
              ElementsAre("_beginthreadex", "LoadLibraryExW vorlupd.dll", "FreeLibrary vorlupd.dll",
                          "LoadLibraryExW vorlcore.dll"));
  EXPECT_THAT(handles.Open(), ElementsAre("watcher thread"));
}

TEST_F(RunTest, UnloadsACoreWithoutStartUpAndSignalsNothing) {
  HoldWatcher();
  UseRoot(L"without_startup");
  {
    HeldCore core(root);
    service->Run();
    EXPECT_EQ(core->cleanUpCalls, 0U);
  }
  EXPECT_THAT(
      kRun.In(journal),
      ElementsAre(kRun.Info("Entry"), kRun.Info("Before calling GetClientAgentStartUpOptions"),
                  kRun.Info("Calling for pending update..."),
                  kRun.Info("DoPendingPatchTasks failed..."),
                  kRun.Info("After calling GetClientAgentStartUpOptions"),
                  kRun.Error("GetProcAddress() failed for ClientAgentCoreStartUp.")));
  const std::vector<std::string> entries = RunAndCalls();
  EXPECT_THAT(std::vector(entries.end() - 4, entries.end()),
              ElementsAre("LoadLibraryExW vorlcore.dll",
                          kRun.Error("GetProcAddress() failed for ClientAgentCoreStartUp."),
                          "FreeLibrary vorlcore.dll", "FreeLibrary vorlcore.dll"))
      << "the second one is the test's own";
  EXPECT_THAT(handles.Open(), ElementsAre("watcher thread"));
}

TEST_F(RunTest, UnloadsACoreWithoutCleanUpAfterTwoCallsWithoutAHandle) {
  UseRoot(L"without_cleanup");
  HeldCore core(root);
  AtStartUp(core, [this] {
    const HANDLE event = OpenOrCreateEvent(kExitEvent);
    SetEvent(event);
    AwaitWatcher();
    CloseHandle(event);
    journal.Clear();
  });
  service->Run();
  EXPECT_THAT(Lines(),
              ElementsAre(kRun.Info("After calling ClientAgentCoreStartUp"),
                          kRun.Info("Before Calling WaitForSingleObject"),
                          kRun.Info("After Calling WaitForSingleObject"),
                          kRun.Info("Before calling ClientAgentCoreCleanUp"),
                          kRun.Error("GetProcAddress() failed for ClientAgentCoreCleanUp.")));
  EXPECT_THAT(
      RunAndCalls(),
      ElementsAre(kRun.Info("After calling ClientAgentCoreStartUp"),
                  kRun.Info("Before Calling WaitForSingleObject"),
                  "WaitForSingleObject watcher thread",
                  kRun.Info("After Calling WaitForSingleObject"), "CloseHandle watcher thread",
                  kRun.Info("Before calling ClientAgentCoreCleanUp"),
                  kRun.Error("GetProcAddress() failed for ClientAgentCoreCleanUp."),
                  "SetEvent null", "CloseHandle null", "FreeLibrary vorlcore.dll"));
}

// With a core that reports failures.

class FailedStartUp : public RunTest, public ::testing::WithParamInterface<ULONGLONG> {};

TEST_P(FailedStartUp, UnloadsTheCoreSignalsTheCloseEventAndNeverCallsCleanUp) {
  HoldWatcher();
  HeldCore core(root);
  core->startUpResult = GetParam();
  service->Run();
  EXPECT_EQ(core->startUpCalls, 1U);
  EXPECT_EQ(core->cleanUpCalls, 0U);
  const std::vector<std::string> entries = RunAndCalls();
  ASSERT_GE(entries.size(), 7U);
  EXPECT_THAT(std::vector(entries.end() - 7, entries.end()),
              ElementsAre(kRun.Info("Before calling ClientAgentCoreStartUp"),
                          kRun.Error("ClientAgentCoreStartUp Failed"), "FreeLibrary vorlcore.dll",
                          "CreateEventA " + kCloseEvent, "DuplicateHandle " + kCloseEvent,
                          "SetEvent " + kCloseEvent, "CloseHandle " + kCloseEvent));
  EXPECT_EQ(Lines().back(), kRun.Error("ClientAgentCoreStartUp Failed"));

  // The watcher ends by itself, also when it starts only now.
  ReleaseWatcher();
  AwaitWatcher();
  EXPECT_THAT(
      kWatch.In(journal),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Close Event Signalled"), kWatch.Info("Exit")));
  EXPECT_EQ(waitsForWatcher, 0U);
}

INSTANTIATE_TEST_SUITE_P(Run, FailedStartUp, ::testing::Values(0, 0x100, 0xDEADBEEFCAFEB000));

TEST_F(RunTest, AFailedStartUpAndACloseEventThatCannotBeCreatedAreTwoErrors) {
  HoldWatcher();
  HeldCore core(root);
  core->startUpResult = 0;
  handles.FailCreation(kCloseEvent, ERROR_ACCESS_DENIED);
  service->Run();
  const std::vector<std::string> lines = Lines();
  EXPECT_THAT(std::vector(lines.end() - 2, lines.end()),
              ElementsAre(kRun.Error("ClientAgentCoreStartUp Failed"),
                          kRun.Error("CreateEvent Failed for Close Event : 5")));
}

TEST_F(RunTest, AnyLowByteOfTheCoresResultButZeroIsSuccess) {
  HeldCore core(root);
  core->startUpResult = 0x02;
  core->cleanUpResult = 0xDEADBEEFCAFEB080;
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  EXPECT_EQ(core->cleanUpCalls, 1U);
  EXPECT_EQ(Lines().back(), kRun.Info("Exit"));
  EXPECT_THAT(Lines(),
              ::testing::Not(::testing::Contains(kRun.Error("ClientAgentCoreCleanUp Failed"))));
}

class FailedCleanUp : public RunTest, public ::testing::WithParamInterface<ULONGLONG> {};

TEST_P(FailedCleanUp, IsAnErrorAndTheServiceStillReleasesEverything) {
  HeldCore core(root);
  core->cleanUpResult = GetParam();
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  std::vector<std::string> lines = kRun.In(journal);
  ASSERT_GE(lines.size(), 7U);
  EXPECT_THAT(
      std::vector(lines.end() - 7, lines.end()),
      ElementsAre(kRun.Info("Before calling ClientAgentCoreCleanUp"),
                  kRun.Info("Notify server is false"), kRun.Error("ClientAgentCoreCleanUp Failed"),
                  kRun.Info("After calling ClientAgentCoreCleanUp"),
                  kRun.Info("Before calling FreeSecurityAttributeForEveryone"),
                  kRun.Info("After calling FreeSecurityAttributeForEveryone"), kRun.Info("Exit")));
}

INSTANTIATE_TEST_SUITE_P(Run, FailedCleanUp, ::testing::Values(0, 0x100));

// Stops.

}  // namespace
