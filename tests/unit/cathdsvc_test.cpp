#include "agent/cathdsvc.h"

#include <aclapi.h>
#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/vorlinfo_fake.h"
#include "tests/support/handle_calls.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/support/library_calls.h"
#include "tests/support/start_process.h"
#include "tests/unit/agent_service.h"
#include "tests/unit/operations.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Runs the closure watcher, mostly on the test's own thread. Its wait does not block: it answers
// what a wait of no length answers, so that a signal that is lost shows as a time-out.
class WaitForServiceClosureTest : public ::testing::Test {
 protected:
  struct WaitCall {
    std::vector<HANDLE> handles;
    BOOL all;
    DWORD milliseconds;
    DWORD result;
  };

  WaitForServiceClosureTest() {
    FakeInfoReset();
    service.OnInit();
    journal.Clear();
  }

  ~WaitForServiceClosureTest() override {
    for (const HANDLE event : own) {
      CloseHandle(event);
    }
    CloseHandle(waiting);
  }

  // An event of the test's own that is signalled before the watcher starts.
  void Signal(const std::string& baseName) {
    own.push_back(OpenOrCreateEvent(baseName));
    SetEvent(own.back());
  }

  Journal journal;
  TestService service;
  HandleCalls handles{journal};
  std::vector<HANDLE> own;

  bool blocks = false;
  // What the wait answers instead of waiting.
  std::optional<DWORD> waitAnswer;
  std::vector<WaitCall> waits;
  // Set when the watcher enters its wait.
  HANDLE waiting = CreateEventW(nullptr, TRUE, FALSE, nullptr);

 private:
  struct WaitTag;

  CallPatch<WaitTag, DWORD(DWORD, const HANDLE*, BOOL, DWORD)> m_wait{
      "KERNEL32.dll", "WaitForMultipleObjects",
      [this](DWORD count, const HANDLE* waitHandles, BOOL all, DWORD milliseconds) {
        journal.Call("WaitForMultipleObjects");
        waits.push_back({{waitHandles, waitHandles + count},
                         all,
                         milliseconds,
                         waitAnswer.value_or(WAIT_FAILED)});
        if (!waitAnswer) {
          SetEvent(waiting);
          waits.back().result =
              m_wait.CallOriginal(count, waitHandles, all, blocks ? milliseconds : 0);
        }
        return waits.back().result;
      }};
};

TEST_F(WaitForServiceClosureTest, EndsAtOnceWithoutAnObject) {
  EXPECT_EQ(WaitForServiceClosure(nullptr), 0U);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kWatch.Info("Entry"), kWatch.Info("NULL Parameter Received")));
  EXPECT_THAT(journal.Calls(), IsEmpty());
}

TEST_F(WaitForServiceClosureTest, TheCloseEventSignalledBeforeItStartsEndsTheWaitAtOnceWithIndex0) {
  Signal(kCloseEvent);
  EXPECT_EQ(service.Watch(), 0U);
  ASSERT_EQ(waits.size(), 1U);
  EXPECT_EQ(waits[0].result, 0U);
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Close Event Signalled"), kWatch.Info("Exit")));
}

TEST_F(WaitForServiceClosureTest, AStopBeforeItStartsEndsTheWaitAtOnceWithIndex0) {
  service.OnStop();
  journal.Clear();
  EXPECT_EQ(service.Watch(), 0U);
  ASSERT_EQ(waits.size(), 1U);
  EXPECT_EQ(waits[0].result, 0U);
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Close Event Signalled"), kWatch.Info("Exit")));
}

TEST_F(WaitForServiceClosureTest, TheExitEventEndsTheWaitWithIndex1) {
  Signal(kExitEvent);
  EXPECT_EQ(service.Watch(), 0U);
  ASSERT_EQ(waits.size(), 1U);
  EXPECT_EQ(waits[0].result, 1U);
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Exit Event Signalled"), kWatch.Info("Exit")));
}

TEST_F(WaitForServiceClosureTest, TheCloseEventCountsWhenBothAreSignalled) {
  Signal(kExitEvent);
  Signal(kCloseEvent);
  service.Watch();
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Close Event Signalled"), kWatch.Info("Exit")));
}

TEST_F(WaitForServiceClosureTest, WaitsForEitherEventWithoutALimit) {
  Signal(kCloseEvent);
  service.Watch();
  const std::vector<HandleCalls::Creation> creations = handles.Creations();
  ASSERT_EQ(creations.size(), 2U);
  ASSERT_EQ(waits.size(), 1U);
  EXPECT_THAT(waits[0].handles, ElementsAre(creations[0].handle, creations[1].handle));
  EXPECT_EQ(waits[0].handles[0], service.m_hCloseEvent);
  EXPECT_FALSE(waits[0].all);
  EXPECT_EQ(waits[0].milliseconds, INFINITE);
}

TEST_F(WaitForServiceClosureTest, CreatesBothEventsManualAndNotSignalledWithTheAttributes) {
  Signal(kCloseEvent);
  service.Watch();
  const std::vector<HandleCalls::Creation> creations = handles.Creations();
  ASSERT_EQ(creations.size(), 2U);
  EXPECT_EQ(creations[0].name, VersionedName("AcClientAgentSrvcCloseFromServicef"));
  EXPECT_EQ(creations[1].name, VersionedName("AcClientAgentSrvcExitFromOuterModuleEvent"));
  for (const HandleCalls::Creation& creation : creations) {
    EXPECT_EQ(creation.attributes, &service.m_SecurityAttributes);
    EXPECT_EQ(creation.manualReset, TRUE);
    EXPECT_EQ(creation.initialState, FALSE);
  }
  EXPECT_EQ(FakeInfo()->eventNameCalls, 2U);
  EXPECT_EQ(FakeInfo()->eventNameCapacity, 500U);
}

TEST_F(WaitForServiceClosureTest, ClosesTheExitEventAndLeavesTheCloseEventToTheService) {
  const LibraryCalls libraries(journal);
  Signal(kCloseEvent);
  service.Watch();
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kWatch.Info("Entry"), "GetEventNameByVersion " + kCloseEvent,
                          "GetEventNameByVersion " + kExitEvent, "CreateEventA " + kCloseEvent,
                          "CreateEventA " + kExitEvent, "WaitForMultipleObjects",
                          kWatch.Info("Close Event Signalled"), "CloseHandle " + kExitEvent,
                          kWatch.Info("Exit")));
  EXPECT_THAT(handles.Open(), ElementsAre(kCloseEvent));
  EXPECT_TRUE(IsSignalled(service.m_hCloseEvent));
  EXPECT_EQ(handles.FailedCloses(), 0U);
}

TEST_F(WaitForServiceClosureTest, EndsWhenTheCloseEventHasNoName) {
  FakeInfo()->eventNameFailingCall = 1;
  service.m_hCloseEvent = INVALID_HANDLE_VALUE;
  EXPECT_EQ(service.Watch(), 0U);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kWatch.Info("Entry"), kWatch.Error("GetEventNameByVersion Failed")));
  EXPECT_EQ(FakeInfo()->eventNameCalls, 1U);
  EXPECT_EQ(service.m_hCloseEvent, nullptr);
  EXPECT_THAT(journal.Calls(), IsEmpty());
}

TEST_F(WaitForServiceClosureTest, EndsWhenTheExitEventHasNoName) {
  FakeInfo()->eventNameFailingCall = 2;
  service.m_hCloseEvent = INVALID_HANDLE_VALUE;
  EXPECT_EQ(service.Watch(), 0U);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kWatch.Info("Entry"), kWatch.Error("GetEventNameByVersion Failed")));
  EXPECT_EQ(FakeInfo()->eventNameCalls, 2U);
  EXPECT_EQ(service.m_hCloseEvent, nullptr);
  EXPECT_THAT(journal.Calls(), IsEmpty());
}

TEST_F(WaitForServiceClosureTest, OnlyTheLowByteOfTheNamesResultCounts) {
  FakeInfo()->eventNameResult = 2;
  Signal(kCloseEvent);
  service.Watch();
  EXPECT_EQ(waits.size(), 1U);
}

TEST_F(WaitForServiceClosureTest, EndsWhenTheCloseEventCannotBeCreated) {
  handles.FailCreation(kCloseEvent, ERROR_ACCESS_DENIED);
  EXPECT_EQ(service.Watch(), 0U);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kWatch.Info("Entry"), kWatch.Info("CreateEvent Failed for " +
                                                            VersionedName(kCloseEvent) + " (5):")));
  EXPECT_EQ(service.m_hCloseEvent, nullptr);
  EXPECT_THAT(journal.Calls(), ElementsAre("CreateEventA " + kCloseEvent));
}

TEST_F(WaitForServiceClosureTest, EndsWhenAnotherKindOfObjectHasTheCloseEventsName) {
  const HANDLE mutex = CreateMutexA(nullptr, FALSE, VersionedName(kCloseEvent).c_str());
  ASSERT_NE(mutex, nullptr);
  service.Watch();
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kWatch.Info("Entry"), kWatch.Info("CreateEvent Failed for " +
                                                            VersionedName(kCloseEvent) + " (6):")));
  CloseHandle(mutex);
}

TEST_F(WaitForServiceClosureTest, ClosesTheCloseEventOnceWhenTheExitEventCannotBeCreated) {
  handles.FailCreation(kExitEvent, ERROR_ACCESS_DENIED);
  EXPECT_EQ(service.Watch(), 0U);
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kWatch.Info("Entry"), "CreateEventA " + kCloseEvent, "CreateEventA " + kExitEvent,
                  kWatch.Info("CreateEvent Failed for " + VersionedName(kExitEvent) + " (5):"),
                  "CloseHandle " + kCloseEvent));
  // The member keeps the value.
  EXPECT_EQ(service.m_hCloseEvent, handles.Creations()[0].handle);
  EXPECT_EQ(handles.FailedCloses(), 0U);
  service.m_hCloseEvent = nullptr;
}

// As long as a versioned name may be. An event's own name may have 260 characters only.
TEST_F(WaitForServiceClosureTest, TakesALongNameWhole) {
  const std::string prefix = std::string(450, 'n') + "_";
  StringCchCopyA(FakeInfo()->eventNamePrefix, sizeof(FakeInfo()->eventNamePrefix), prefix.c_str());
  EXPECT_EQ(service.Watch(), 0U);
  const std::vector<HandleCalls::Creation> creations = handles.Creations();
  ASSERT_EQ(creations.size(), 1U);
  EXPECT_EQ(creations[0].name, prefix + "AcClientAgentSrvcCloseFromServicef");
  // A message has room for 499 characters.
  const std::string line =
      "CreateEvent Failed for " + prefix + "AcClientAgentSrvcCloseFromServicef (206):";
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kWatch.Info("Entry"), kWatch.Info(line.substr(0, 499))));
}

TEST_F(WaitForServiceClosureTest, AFailedWaitIsAnErrorAndAnEnd) {
  waitAnswer = WAIT_FAILED;
  EXPECT_EQ(service.Watch(), 0U);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kWatch.Info("Entry"), kWatch.Error("WaitForMultipleObjects Failed"),
                          kWatch.Info("Exit")));
  EXPECT_THAT(handles.Open(), ElementsAre(kCloseEvent));
}

TEST_F(WaitForServiceClosureTest, AnyOtherAnswerOfTheWaitWritesNoLine) {
  for (const DWORD answer : {DWORD{WAIT_TIMEOUT}, DWORD{WAIT_ABANDONED_0}, WAIT_OBJECT_0 + 2}) {
    TestService fresh;
    journal.Clear();
    waitAnswer = answer;
    EXPECT_EQ(fresh.Watch(), 0U);
    EXPECT_THAT(journal.Traces(), ElementsAre(kWatch.Info("Entry"), kWatch.Info("Exit")));
  }
}

TEST_F(WaitForServiceClosureTest, TheServicesDestructorClosesTheCloseEventOnce) {
  auto stopped = std::make_unique<TestService>();
  Signal(kCloseEvent);
  stopped->Watch();
  EXPECT_THAT(handles.Open(), ElementsAre(kCloseEvent));
  stopped.reset();
  EXPECT_THAT(handles.Open(), IsEmpty());
  EXPECT_EQ(handles.FailedCloses(), 0U);
}

// The watcher on a thread of its own, in a real wait.
class WaitForServiceClosureThread : public WaitForServiceClosureTest {
 protected:
  WaitForServiceClosureThread() {
    blocks = true;
    watcher = std::thread([this] { service.Watch(); });
    WaitForSingleObject(waiting, INFINITE);
  }
  ~WaitForServiceClosureThread() override {
    if (watcher.joinable()) {
      service.OnStop();
      watcher.join();
    }
  }

  std::thread watcher;
};

TEST_F(WaitForServiceClosureThread, TheExitEventSignalledByAnotherProcessEndsTheWait) {
  const std::string command = "set_event.exe " + VersionedName(kExitEvent);
  const KernelHandle process = StartProcess({command.begin(), command.end()}).process;
  ASSERT_TRUE(process);
  watcher.join();
  WaitForSingleObject(process.Get(), INFINITE);
  DWORD exitCode = 1;
  GetExitCodeProcess(process.Get(), &exitCode);
  EXPECT_EQ(exitCode, 0U);
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Exit Event Signalled"), kWatch.Info("Exit")));
}

TEST_F(WaitForServiceClosureThread, AStopEndsTheWait) {
  service.OnStop();
  watcher.join();
  EXPECT_THAT(
      kWatch.In(journal),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Close Event Signalled"), kWatch.Info("Exit")));
}

// What a descriptor's list holds when it is exactly one allowing entry for everyone.
void ExpectEventAllAccessForEveryone(HANDLE event) {
  BYTE descriptor[1024];
  DWORD size = 0;
  ASSERT_TRUE(GetKernelObjectSecurity(event, DACL_SECURITY_INFORMATION, descriptor,
                                      sizeof(descriptor), &size));
  BOOL present = FALSE;
  BOOL defaulted = TRUE;
  PACL acl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &acl, &defaulted));
  ASSERT_TRUE(present);
  ASSERT_NE(acl, nullptr);
  ASSERT_EQ(acl->AceCount, 1);
  void* entry = nullptr;
  ASSERT_TRUE(GetAce(acl, 0, &entry));
  const auto& allowed = *static_cast<const ACCESS_ALLOWED_ACE*>(entry);
  EXPECT_EQ(allowed.Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
  EXPECT_EQ(allowed.Header.AceFlags, 3);
  EXPECT_EQ(allowed.Mask, 0x1F0003U);
  BYTE world[SECURITY_MAX_SID_SIZE];
  DWORD worldSize = sizeof(world);
  ASSERT_TRUE(CreateWellKnownSid(WinWorldSid, nullptr, world, &worldSize));
  PSID const sid = const_cast<DWORD*>(&allowed.SidStart);
  EXPECT_TRUE(EqualSid(sid, world));
}

TEST_F(WaitForServiceClosureThread, EveryoneHasAllAccessToBothEvents) {
  for (const std::string& baseName : {kCloseEvent, kExitEvent}) {
    SCOPED_TRACE(baseName);
    const HANDLE event =
        OpenEventA(EVENT_ALL_ACCESS, /*bInheritHandle=*/FALSE, VersionedName(baseName).c_str());
    ASSERT_NE(event, nullptr);
    ExpectEventAllAccessForEveryone(event);
    CloseHandle(event);
  }
}

}  // namespace
