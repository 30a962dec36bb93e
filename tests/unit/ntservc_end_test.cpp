// What the two threads of a service do at its end.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/ntservc_test.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

// ---- The order of the last reports ----

// How long the service thread waits for the handler, and StartService for both.
constexpr DWORD kHandlerPatience = 5000;
constexpr DWORD kLeavePatience = 10000;

// For what only a defect keeps from happening.
constexpr DWORD kTestPatience = 60000;

// Waits for `object` and says so when it is waited for in vain.
DWORD Await(HANDLE object) {
  const DWORD result = WaitForSingleObject(object, kTestPatience);
  EXPECT_EQ(result, DWORD{WAIT_OBJECT_0});
  return result;
}

// A service thread and a control handler at the same time. The service's Run waits until Finish.
class LastReport : public NTService {
 protected:
  LastReport() {
    m_service.run = [this] {
      SetEvent(m_runs.Get());
      Await(m_finish.Get());
    };
    m_service.stop = [this] { Finish(); };
  }

  static KernelHandle MakeEvent() {
    return KernelHandle(CreateEventW(nullptr, /*bManualReset=*/TRUE, FALSE, nullptr));
  }

  void Finish() const { SetEvent(m_finish.Get()); }

  std::thread StartServiceThread() const {
    std::thread thread([] { ExposedService::ServiceMain(0, nullptr); });
    Await(m_runs.Get());
    return thread;
  }

  const KernelHandle m_runs = MakeEvent();
  const KernelHandle m_finish = MakeEvent();
  // Set when the service thread waits for the handler, or has gone ahead without waiting.
  const KernelHandle m_serviceThreadIsThere = MakeEvent();
  JournalService m_service{m_journal, "Sample"};

  // The service thread's wait for the handler.
  std::function<DWORD(HANDLE)> m_wait = [this](HANDLE handler) {
    SetEvent(m_serviceThreadIsThere.Get());
    return Await(handler);
  };
  CallPatch<struct WaitTag, decltype(WaitForSingleObjectEx)> m_waitForObject{
      "KERNEL32.dll", "WaitForSingleObjectEx",
      [this](HANDLE object, DWORD milliseconds, BOOL isAlertable) {
        return milliseconds == kHandlerPatience
                   ? m_wait(object)
                   : m_waitForObject.CallOriginal(object, milliseconds, isAlertable);
      }};
};

TEST_F(LastReport, OfAStopWaitsForTheHandlersSecondReport) {
  unsigned stopPending = 0;
  m_beforeReport = [&](const SERVICE_STATUS& status) {
    if (status.dwCurrentState == SERVICE_STOPPED) {
      SetEvent(m_serviceThreadIsThere.Get());
    } else if (status.dwCurrentState == SERVICE_STOP_PENDING && ++stopPending == 2) {
      Await(m_serviceThreadIsThere.Get());
    }
  };
  std::thread serviceThread = StartServiceThread();
  ExposedService::Handler(SERVICE_CONTROL_STOP);
  serviceThread.join();
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 3U, 3U, 1U));
}

TEST_F(LastReport, WaitsForAnInterrogateInFlight) {
  m_service.interrogate = [this] { Finish(); };
  m_beforeReport = [&](const SERVICE_STATUS& status) {
    if (status.dwCurrentState == SERVICE_STOPPED) {
      SetEvent(m_serviceThreadIsThere.Get());
    } else if (WaitForSingleObject(m_finish.Get(), 0) == WAIT_OBJECT_0) {
      Await(m_serviceThreadIsThere.Get());
    }
  };
  std::thread serviceThread = StartServiceThread();
  ExposedService::Handler(SERVICE_CONTROL_INTERROGATE);
  serviceThread.join();
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 4U, 1U));
}

// STOPPED goes out for the first time while the service is initialised.
TEST_F(LastReport, OfAFailedInitialisationWaitsForTheHandlerToo) {
  std::thread handler;
  m_service.init = [&] {
    handler = std::thread([] { ExposedService::Handler(SERVICE_CONTROL_INTERROGATE); });
    Await(m_runs.Get());
    return FALSE;
  };
  m_service.interrogate = [this] { SetEvent(m_runs.Get()); };
  m_beforeReport = [&](const SERVICE_STATUS& status) {
    if (status.dwCurrentState == SERVICE_STOPPED) {
      SetEvent(m_serviceThreadIsThere.Get());
    } else if (WaitForSingleObject(m_runs.Get(), 0) == WAIT_OBJECT_0) {
      Await(m_serviceThreadIsThere.Get());
    }
  };
  ExposedService::ServiceMain(0, nullptr);
  handler.join();
  EXPECT_THAT(States(), ElementsAre(2U, 2U, 1U, 1U));
}

TEST_F(LastReport, ComesAfterFiveSecondsWhenTheHandlerHangsWhichThenReportsNothing) {
  unsigned waits = 0;
  m_wait = [&](HANDLE handler) {
    ++waits;
    EXPECT_EQ(WaitForSingleObject(handler, 0), DWORD{WAIT_TIMEOUT});
    return DWORD{WAIT_TIMEOUT};
  };
  const KernelHandle hangs = MakeEvent();
  const KernelHandle release = MakeEvent();
  m_service.interrogate = [&] {
    SetEvent(hangs.Get());
    Await(release.Get());
  };
  std::thread serviceThread = StartServiceThread();
  std::thread handler([] { ExposedService::Handler(SERVICE_CONTROL_INTERROGATE); });
  Await(hangs.Get());
  Finish();
  serviceThread.join();
  EXPECT_EQ(waits, 1U);
  SetEvent(release.Get());
  handler.join();
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 1U));
}

TEST_F(LastReport, IsNotHeldUpWithoutAHandler) {
  DWORD result = WAIT_FAILED;
  m_wait = [&](HANDLE handler) { return result = WaitForSingleObject(handler, 0); };
  Finish();
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_EQ(result, DWORD{WAIT_OBJECT_0});
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 1U));
}

// A handler that the wait did not see must not report any more.
TEST_F(LastReport, IsAnnouncedBeforeTheWaitForTheHandler) {
  m_wait = [&](HANDLE handler) {
    const DWORD result = WaitForSingleObject(handler, 0);
    ExposedService::Handler(SERVICE_CONTROL_STOP);
    return result;
  };
  Finish();
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 1U));
}

TEST_F(LastReport, IsNotFollowedByAControlThatComesWhileItIsMade) {
  m_beforeReport = [](const SERVICE_STATUS& status) {
    if (status.dwCurrentState == SERVICE_STOPPED) {
      ExposedService::Handler(SERVICE_CONTROL_STOP);
    }
  };
  Finish();
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 1U));
  EXPECT_EQ(m_service.m_ServiceStatus.dwCurrentState, DWORD{SERVICE_STOPPED});
}

TEST_F(LastReport, IsStoppedInEveryOneOfManyStops) {
  for (int i = 0; i < 500; ++i) {
    ResetEvent(m_runs.Get());
    ResetEvent(m_finish.Get());
    JournalService service(m_journal, "Sample");
    service.run = m_service.run;
    service.stop = m_service.stop;
    std::thread serviceThread = StartServiceThread();
    ExposedService::Handler(SERVICE_CONTROL_STOP);
    serviceThread.join();
    ASSERT_EQ(States().back(), DWORD{SERVICE_STOPPED}) << "in run " << i;
  }
}

// ---- Controls that come when Run has ended ----

// Everything but the report is done.
class WhileEnding : public LastReport {
 protected:
  // What `control` does when it comes at the last moment before STOPPED is reported.
  std::vector<std::string> Entries(DWORD control) {
    std::vector<std::string> entries;
    m_beforeReport = [&](const SERVICE_STATUS& status) {
      if (status.dwCurrentState == SERVICE_STOPPED) {
        m_journal.Clear();
        ExposedService::Handler(control);
        entries = m_journal.Entries();
      }
    };
    m_service.stop = [] {};
    Finish();
    ExposedService::ServiceMain(0, nullptr);
    EXPECT_THAT(States(), ElementsAre(2U, 4U, 1U));
    EXPECT_EQ(m_service.m_ServiceStatus.dwCurrentState, DWORD{SERVICE_STOPPED});
    return entries;
  }

  // The steps of a state that is not reported.
  static std::vector<std::string> Unreported(DWORD state) {
    std::vector<std::string> steps = SetStatusSteps(state, "");
    steps.erase(steps.end() - 2);
    return steps;
  }
};

TEST_F(WhileEnding, AStopDoesAllButTheReports) {
  EXPECT_THAT(Entries(SERVICE_CONTROL_STOP),
              ElementsAreArray(Joined(
                  {{kHandler.Info("Entry")}, Unreported(3), {"OnStop", kHandler.Info("Exit")}})));
  EXPECT_EQ(m_service.m_bRunning, FALSE);
  EXPECT_FALSE(m_service.m_bNotifyServer);
}

TEST_F(WhileEnding, AUserStopLeavesItsLineAndItsFlag) {
  EXPECT_THAT(Entries(140), ElementsAreArray(Joined({{kHandler.Info("Entry"),
                                                      kHandler.Info("Got user stop notification")},
                                                     Unreported(3),
                                                     {"OnStop", kHandler.Info("Exit")}})));
  EXPECT_EQ(m_service.m_bRunning, FALSE);
  EXPECT_TRUE(m_service.m_bNotifyServer);
}

class ControlWhileEnding : public WhileEnding, public ::testing::WithParamInterface<ControlCase> {};

TEST_P(ControlWhileEnding, CallsItsHook) {
  std::vector<std::string> expected = {kHandler.Info("Entry")};
  if (GetParam().hook != nullptr) {
    expected.push_back(GetParam().hook);
  }
  expected.push_back(kHandler.Info("Exit"));
  EXPECT_THAT(Entries(GetParam().control), ElementsAreArray(expected));
  EXPECT_EQ(m_service.m_bRunning, TRUE);
}

INSTANTIATE_TEST_SUITE_P(, ControlWhileEnding,
                         ::testing::Values(ControlCase{0, nullptr}, ControlCase{2, "OnPause"},
                                           ControlCase{3, "OnContinue"},
                                           ControlCase{4, "OnInterrogate"},
                                           ControlCase{5, "OnShutdown"}, ControlCase{127, nullptr},
                                           ControlCase{128, "OnUserControl(128)"},
                                           ControlCase{255, "OnUserControl(255)"}),
                         [](const auto& test) {
                           return "Code" + std::to_string(test.param.control);
                         });

// ---- After STOPPED ----

// A service whose memory is filled with rubbish as soon as STOPPED is reported.
class AfterStopped : public NTService {
 protected:
  AfterStopped() {
    m_beforeReport = [this](const SERVICE_STATUS& status) {
      if (status.dwCurrentState == SERVICE_STOPPED && m_service != nullptr) {
        m_service->~JournalService();
        m_service = nullptr;
        std::memset(m_memory, kRubbish, sizeof(m_memory));
        m_journal.Clear();
      }
    };
  }

  bool IsTouched() const {
    return std::any_of(std::begin(m_memory), std::end(m_memory),
                       [](unsigned char byte) { return byte != kRubbish; });
  }

 private:
  static constexpr unsigned char kRubbish = 0xDD;
  alignas(JournalService) unsigned char m_memory[sizeof(JournalService)];

 protected:
  JournalService* m_service = new (m_memory) JournalService(m_journal, "Sample");
};

TEST_F(AfterStopped, NothingOfTheObjectIsTouched) {
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(Report(1), kSetStatus.Info("Exit"), kServiceMain.Info("Exit")));
  EXPECT_FALSE(IsTouched());
}

TEST_F(AfterStopped, OfAFailedInitialisationTheSecondReportNeedsNoObject) {
  m_service->init = [] {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  };
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Entries(), ElementsAreArray(Joined({{Report(1, 5), kSetStatus.Info("Exit")},
                                                            SetStatusSteps(1, Report(1, 5)),
                                                            {kServiceMain.Info("Exit")}})));
  EXPECT_FALSE(IsTouched());
}

// ---- StartService waits for the callbacks ----

// The dispatcher starts the service on a thread of its own and returns when STOPPED is reported.
class ReturnOfStartService : public LastReport {
 protected:
  ReturnOfStartService() {
    Finish();
    m_beforeReport = [this](const SERVICE_STATUS& status) {
      if (status.dwCurrentState == SERVICE_STOPPED) {
        SetEvent(m_stopped.Get());
        Await(m_mainIsThere.Get());
      }
    };
  }

  // Runs StartService to its end, and the service's thread.
  void Run() {
    m_service.StartService();
    m_journal.Call("returned");
    SetEvent(m_mainIsThere.Get());
    if (m_serviceThread.joinable()) {
      m_serviceThread.join();
    }
  }

  // Set when StartService waits, or has returned without waiting.
  const KernelHandle m_mainIsThere = MakeEvent();
  const KernelHandle m_stopped = MakeEvent();
  std::thread m_serviceThread;
  bool m_isService = true;
  DWORD m_milliseconds = 0;

  std::function<DWORD(DWORD, const HANDLE*)> m_waitForBoth = [this](DWORD count,
                                                                    const HANDLE* objects) {
    SetEvent(m_mainIsThere.Get());
    return m_waitForObjects.CallOriginal(count, objects, TRUE, kTestPatience);
  };

  // What StartService does behind the dispatcher's return.
  std::vector<std::string> EndOfStartService() const {
    std::vector<std::string> entries = m_journal.Entries();
    std::erase_if(entries, [](const std::string& entry) {
      return entry != "returned" && entry.find("StartService ") == std::string::npos &&
             entry != kServiceMain.Info("Exit") && entry != kHandler.Info("Exit");
    });
    return entries;
  }

 private:
  CallPatch<struct WaitForBothTag, DWORD(DWORD, const HANDLE*, BOOL, DWORD)> m_waitForObjects{
      "KERNEL32.dll", "WaitForMultipleObjects",
      [this](DWORD count, const HANDLE* objects, BOOL all, DWORD milliseconds) {
        if (milliseconds != kLeavePatience) {
          return m_waitForObjects.CallOriginal(count, objects, all, milliseconds);
        }
        m_milliseconds = milliseconds;
        EXPECT_EQ(all, TRUE);
        return m_waitForBoth(count, objects);
      }};
  CallPatch<struct StartDispatcherTag, BOOL(const SERVICE_TABLE_ENTRYA*)> m_dispatcher{
      "ADVAPI32.dll", "StartServiceCtrlDispatcherA", [this](const SERVICE_TABLE_ENTRYA* table) {
        if (!m_isService) {
          SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
          return FALSE;
        }
        const LPSERVICE_MAIN_FUNCTIONA serviceMain = table[0].lpServiceProc;
        m_serviceThread = std::thread([serviceMain] { serviceMain(0, nullptr); });
        Await(m_stopped.Get());
        return TRUE;
      }};

 protected:
  DWORD TryBoth(DWORD count, const HANDLE* objects) const {
    return m_waitForObjects.CallOriginal(count, objects, TRUE, 0);
  }
};

TEST_F(ReturnOfStartService, ComesBehindTheLastLineOfServiceMain) {
  Run();
  EXPECT_THAT(EndOfStartService(),
              ElementsAre(kStartService.Info("Entry"),
                          kStartService.Info("Before calling StartServiceCtrlDispatcher"),
                          kStartService.Info("After calling StartServiceCtrlDispatcher"),
                          kServiceMain.Info("Exit"), kStartService.Info("Exit"), "returned"));
  EXPECT_EQ(m_milliseconds, kLeavePatience);
}

// On Windows the handler runs on the thread that StartService is on; a dispatcher may do otherwise.
TEST_F(ReturnOfStartService, ComesBehindTheLastLineOfTheHandler) {
  const KernelHandle handled = MakeEvent();
  std::thread handler;
  m_service.interrogate = [&] {
    SetEvent(handled.Get());
    Await(m_mainIsThere.Get());
  };
  m_beforeReport = [&](const SERVICE_STATUS& status) {
    if (status.dwCurrentState == SERVICE_STOPPED) {
      handler = std::thread([] { ExposedService::Handler(SERVICE_CONTROL_INTERROGATE); });
      Await(handled.Get());
      SetEvent(m_stopped.Get());
    }
  };
  // ServiceMain is over before StartService waits: only the handler is waited for.
  m_waitForBoth = [&](DWORD count, const HANDLE* objects) {
    m_serviceThread.join();
    EXPECT_EQ(TryBoth(count, objects), DWORD{WAIT_TIMEOUT});
    SetEvent(m_mainIsThere.Get());
    handler.join();
    return TryBoth(count, objects);
  };
  Run();
  EXPECT_THAT(
      EndOfStartService(),
      ElementsAre(kStartService.Info("Entry"),
                  kStartService.Info("Before calling StartServiceCtrlDispatcher"), ::testing::_,
                  ::testing::_, kHandler.Info("Exit"), kStartService.Info("Exit"), "returned"));
  if (handler.joinable()) {
    handler.join();
  }
}

TEST_F(ReturnOfStartService, DoesNotWaitForEver) {
  m_waitForBoth = [&](DWORD count, const HANDLE* objects) {
    EXPECT_EQ(TryBoth(count, objects), DWORD{WAIT_TIMEOUT});
    return DWORD{WAIT_TIMEOUT};
  };
  Run();
  EXPECT_THAT(EndOfStartService(),
              ElementsAre(kStartService.Info("Entry"),
                          kStartService.Info("Before calling StartServiceCtrlDispatcher"),
                          kStartService.Info("After calling StartServiceCtrlDispatcher"),
                          kStartService.Error("ServiceMain or Handler does not return"),
                          kStartService.Info("Exit"), "returned", kServiceMain.Info("Exit")));
}

TEST_F(ReturnOfStartService, IsNotHeldUpWhenServiceMainWasNeverStarted) {
  m_isService = false;
  DWORD result = WAIT_FAILED;
  m_waitForBoth = [&](DWORD count, const HANDLE* objects) {
    return result = TryBoth(count, objects);
  };
  Run();
  EXPECT_EQ(result, DWORD{WAIT_OBJECT_0});
  EXPECT_THAT(EndOfStartService(),
              ElementsAre(kStartService.Info("Entry"),
                          kStartService.Info("Before calling StartServiceCtrlDispatcher"),
                          kStartService.Info("After calling StartServiceCtrlDispatcher"),
                          kStartService.Info("Exit"), "returned"));
}

}  // namespace
