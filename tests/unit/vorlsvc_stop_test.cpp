// The ends of the service's body: stops at every moment, early and late.
#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/vorlsvc_run_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST_F(RunTest, AStopByTheUserStopControlLeadsToNotifyValue2) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(140); });
  service->Run();
  EXPECT_EQ(core->notify, 2);
  EXPECT_THAT(kRun.In(journal), ::testing::Contains(kRun.Info("Notify server is TRUE")));
}

TEST_F(RunTest, AUserStopDuringTheWaitForTheWatcherLeadsToNotifyValue2) {
  HeldCore core(root);
  atWait = [] { TestService::Handler(140); };
  service->Run();
  EXPECT_EQ(waitsForWatcher, 1U);
  EXPECT_EQ(core->notify, 2);
}

TEST_F(RunTest, AnOrdinaryStopLeadsToNotifyValue1) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(SERVICE_CONTROL_STOP); });
  service->Run();
  EXPECT_EQ(core->notify, 1);
  EXPECT_THAT(kRun.In(journal), ::testing::Contains(kRun.Info("Notify server is false")));
}

TEST_F(RunTest, AShutdownLeadsToNotifyValue1) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(SERVICE_CONTROL_SHUTDOWN); });
  service->Run();
  EXPECT_EQ(core->notify, 1);
}

TEST_F(RunTest, TheExitEventSignalledByAnotherProcessLeadsToTheCleanUp) {
  HeldCore core(root);
  AtStartUp(core, [this] {
    // The event must be there for the other process to open it.
    const HANDLE event = OpenOrCreateEvent(kExitEvent);
    const std::string command = "set_event.exe " + VersionedName(kExitEvent);
    StartProcess({command.begin(), command.end()});
    AwaitWatcher();
    CloseHandle(event);
  });
  service->Run();
  EXPECT_EQ(core->cleanUpCalls, 1U);
  EXPECT_EQ(core->notify, 1);
  EXPECT_THAT(
      kWatch.In(journal),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Exit Event Signalled"), kWatch.Info("Exit")));
}

// A control that comes when the exit event has ended the wait, or still runs then.
class LateStop : public RunTest {
 protected:
  // Run up to the clean-up of the security attributes, each of whose two pieces is freed under the
  // eyes of `atFree`.
  void RunToTheEnd(std::function<void()> atFree) {
    HeldCore core(root);
    AtStartUp(core, [] {
      const HANDLE event = OpenOrCreateEvent(kExitEvent);
      SetEvent(event);
      // Stays, or the signal would be gone when the watcher looks for the event.
      s_exitEvent = event;
    });
    const void* const descriptor = service->m_pSecurityDescriptor;
    const void* const acl = service->m_pAcl;
    const CallPatch<struct LocalFreeTag, HLOCAL(HLOCAL)> free(
        "KERNEL32.dll", "LocalFree", [&](HLOCAL memory) {
          if (memory == descriptor || memory == acl) {
            ++frees;
            atFree();
          }
          return free.CallOriginal(memory);
        });
    service->Run();
    EXPECT_EQ(frees, 2U);
    CloseHandle(s_exitEvent);
  }

  unsigned frees = 0;

 private:
  static inline HANDLE s_exitEvent;
};

TEST_F(LateStop, FindsNoDescriptorThatIsBeingFreed) {
  const void* passed = &passed;
  handles.BeforeCreation([&](const std::string& label) {
    if (label == kCloseEvent) {
      passed = service->m_SecurityAttributes.lpSecurityDescriptor;
    }
  });
  RunToTheEnd([&] {
    EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, nullptr);
    TestService::Handler(SERVICE_CONTROL_STOP);
    EXPECT_EQ(passed, nullptr);
  });
  EXPECT_EQ(handles.Creations().back().attributes->nLength, sizeof(SECURITY_ATTRIBUTES));
}

TEST_F(LateStop, ThatIsAboutToUseTheDescriptorIsWaitedFor) {
  const KernelHandle isInside(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const KernelHandle mayLeave(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::atomic<std::thread::id> handlerId;
  std::thread handler;
  handles.BeforeCreation([&](const std::string& label) {
    if (label == kCloseEvent && std::this_thread::get_id() == handlerId) {
      SetEvent(isInside.Get());
      WaitForSingleObject(mayLeave.Get(), INFINITE);
    }
  });
  DWORD patience = 0;
  const CallPatch<struct HandlerWaitTag, decltype(WaitForSingleObjectEx)> wait(
      "KERNEL32.dll", "WaitForSingleObjectEx",
      [&](HANDLE handlerLeft, DWORD milliseconds, BOOL /*isAlertable*/) {
        patience = milliseconds;
        EXPECT_EQ(WaitForSingleObject(handlerLeft, 0), DWORD{WAIT_TIMEOUT});
        EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, nullptr);
        SetEvent(mayLeave.Get());
        return WaitForSingleObject(handlerLeft, INFINITE);
      });
  atWait = [&] {
    AwaitWatcher();
    handler = std::thread([&] {
      handlerId = std::this_thread::get_id();
      TestService::Handler(SERVICE_CONTROL_STOP);
    });
    WaitForSingleObject(isInside.Get(), INFINITE);
  };
  RunToTheEnd([&] {
    EXPECT_EQ(kHandler.In(journal).size(), 2U);  // with its Exit
    SetEvent(mayLeave.Get());
  });
  EXPECT_EQ(patience, 5000U);
  handler.join();
}

// Another module may close the handle of the watcher's thread.
TEST_F(RunTest, FreesNothingOfAWatcherThatCannotBeWaitedFor) {
  HoldWatcher();
  waitFails = true;
  const void* const descriptor = service->m_pSecurityDescriptor;
  const void* const acl = service->m_pAcl;
  unsigned frees = 0;
  const CallPatch<struct LocalFreeTag, HLOCAL(HLOCAL)> free(
      "KERNEL32.dll", "LocalFree", [&](HLOCAL memory) {
        frees += memory == descriptor || memory == acl ? 1U : 0U;
        return free.CallOriginal(memory);
      });
  HeldCore core(root);
  service->Run();
  EXPECT_EQ(core->cleanUpCalls, 1U);
  EXPECT_EQ(frees, 0U);
  EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, descriptor);
  EXPECT_THAT(kRun.In(journal), ::testing::Contains(kRun.Error("WaitForSingleObject Failed 6")));
  EXPECT_EQ(Lines().back(), kRun.Info("Exit"));
}

TEST_F(RunTest, LeavesNoFreedDescriptorToAStopThatComesAfterTheCleanUp) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(SERVICE_CONTROL_STOP); });
  service->Run();
  EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, nullptr);
}

TEST_F(RunTest, EventsWithoutNamesEndTheWatcherAtOnceAndTheServiceAsSoonAsItWaits) {
  FakeInfo()->eventNameResult = 0;
  HeldCore core(root);
  service->Run();
  EXPECT_EQ(core->cleanUpCalls, 1U);
  EXPECT_THAT(kWatch.In(journal),
              ElementsAre(kWatch.Info("Entry"), kWatch.Error("GetEventNameByVersion Failed")));
  EXPECT_EQ(Lines().back(), kRun.Info("Exit"));
}

// A stop may arrive before the watcher holds the close event. These tests would hang if the
// signal were lost, and say so instead: the watcher's wait then takes no time and ends without a
// line.
class EarlyStop : public RunTest {
 protected:
  struct WaitAllTag;

  std::vector<DWORD> m_waitResults;
  CallPatch<WaitAllTag, DWORD(DWORD, const HANDLE*, BOOL, DWORD)> m_waitAll{
      "KERNEL32.dll", "WaitForMultipleObjects",
      [this](DWORD count, const HANDLE* waitHandles, BOOL all, DWORD) {
        m_waitResults.push_back(m_waitAll.CallOriginal(count, waitHandles, all, 0));
        return m_waitResults.back();
      }};
};

TEST_F(EarlyStop, BeforeTheWatchersFirstStepIsNotLost) {
  HoldWatcher();
  HeldCore core(root);
  AtStartUp(core, [this] {
    TestService::Handler(SERVICE_CONTROL_STOP);
    ReleaseWatcher();
  });
  service->Run();
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
  EXPECT_THAT(
      kWatch.In(journal),
      ElementsAre(kWatch.Info("Entry"), kWatch.Info("Close Event Signalled"), kWatch.Info("Exit")));
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(EarlyStop, JustBeforeTheWatcherCreatesTheCloseEventIsNotLost) {
  HeldCore core(root);
  // The stop runs inside the watcher's own call that creates the event.
  bool stopped = false;
  handles.BeforeCreation([&](const std::string& label) {
    if (label == kCloseEvent && !stopped) {
      stopped = true;
      std::thread([] { TestService::Handler(SERVICE_CONTROL_STOP); }).join();
    }
  });
  service->Run();
  EXPECT_TRUE(stopped);
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(EarlyStop, FromAFailedStartIsNotLost) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  ReleaseWatcher();
  AwaitWatcher();
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
}

TEST_F(EarlyStop, LeavesEveryHandleClosedOnceAtTheEnd) {
  HoldWatcher();
  HeldCore core(root);
  AtStartUp(core, [this] {
    TestService::Handler(SERVICE_CONTROL_STOP);
    ReleaseWatcher();
  });
  service->Run();
  service.reset();
  EXPECT_THAT(handles.Open(), IsEmpty());
  EXPECT_EQ(handles.FailedCloses(), 0U);
}

// A failed start and a stop control signal from two threads at the same time: each has created its
// handle before either goes on.
TEST_F(EarlyStop, OfTwoSignalsAtTheSameTimeBothReachTheOneEvent) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  std::mutex mutex;
  int arrived = 0;
  const HANDLE both = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  handles.BeforeCreation([&](const std::string&) {
    bool last = false;
    {
      const std::lock_guard guard(mutex);
      last = ++arrived == 2;
    }
    if (last) {
      SetEvent(both);
    }
    WaitForSingleObject(both, INFINITE);
  });
  std::thread control([] { TestService::Handler(SERVICE_CONTROL_STOP); });
  service->Run();
  control.join();
  handles.BeforeCreation({});
  EXPECT_EQ(arrived, 2);
  // One kept handle, whoever came last.
  EXPECT_THAT(handles.Open(), ::testing::UnorderedElementsAre(kCloseEvent, "watcher thread"));
  ReleaseWatcher();
  AwaitWatcher();
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
  service.reset();
  EXPECT_THAT(handles.Open(), ElementsAre("watcher thread"));
  EXPECT_EQ(handles.FailedCloses(), 0U);
  CloseHandle(both);
}

}  // namespace
