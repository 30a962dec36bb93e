// The start and the end of a service, and its controls.
#include <gmock/gmock.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/unit/ntservc_test.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

// ---- ServiceMain and Initialize ----

TEST_F(NTService, ServiceMainRunsTheServiceFromStartPendingToStopped) {
  JournalService service(m_journal, "Sample");
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(Joined(
                  {{kServiceMain.Info("Entry"), "RegisterServiceCtrlHandlerA(\"Sample\", Handler)",
                    kInitialize.Info("Entry")},
                   SetStatusSteps(2, Report(2)),
                   {"OnInit"},
                   SetStatusSteps(4, Report(4, kRubbishError)),
                   {kInitialize.Info("Exit"), "Run"},
                   SetStatusSteps(1, Report(1)),
                   {kServiceMain.Info("Exit")}})));
  EXPECT_EQ(service.ExitCode(), 0U);
}

TEST_F(NTService, ServiceMainSetsStartPendingBeforeItRegistersTheHandler) {
  JournalService service(m_journal, "Sample");
  m_registration = nullptr;
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_EQ(service.m_ServiceStatus.dwCurrentState, 2U);
}

TEST_F(NTService, ServiceMainReportsNothingWhenTheHandlerCannotBeRegistered) {
  JournalService service(m_journal, "Sample");
  m_registration = nullptr;
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kServiceMain.Info("Entry"), "RegisterServiceCtrlHandlerA(\"Sample\", Handler)",
                  kServiceMain.Error("pService->m_hServiceStatus == NULL")));
}

TEST_F(NTService, RunFindsTheServiceRunningAndItsRecordClear) {
  JournalService service(m_journal, "Sample");
  service.init = [&] {
    service.m_ServiceStatus.dwCheckPoint = 3;
    service.m_ServiceStatus.dwWaitHint = 1000;
    SetLastError(ERROR_FILE_NOT_FOUND);
    return TRUE;
  };
  bool ran = false;
  service.run = [&] {
    ran = true;
    EXPECT_EQ(service.m_bRunning, TRUE);
    EXPECT_EQ(service.m_hServiceStatus, kStatusHandle);
    EXPECT_EQ(service.m_ServiceStatus.dwWin32ExitCode, 0U);
    EXPECT_EQ(service.m_ServiceStatus.dwCheckPoint, 0U);
    EXPECT_EQ(service.m_ServiceStatus.dwWaitHint, 0U);
  };
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_TRUE(ran);
}

TEST_F(NTService, ServiceMainClearsWhatInitializationLeftInTheRecord) {
  JournalService service(m_journal, "Sample");
  service.init = [] {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return TRUE;
  };
  m_beforeReport = [&](const SERVICE_STATUS& status) {
    if (status.dwCurrentState == SERVICE_RUNNING) {
      // Between Initialize and Run nothing else can write there.
      service.m_ServiceStatus.dwCheckPoint = 8;
      service.m_ServiceStatus.dwWaitHint = 9;
    }
  };
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Calls(), ::testing::Contains(Report(1, 0, 0, 0)));
}

TEST_F(NTService, InitializeReportsRunningWithTheLastErrorOfOnInit) {
  JournalService service(m_journal, "Sample");
  service.m_hServiceStatus = kStatusHandle;
  service.m_ServiceStatus.dwCheckPoint = 3;
  service.m_ServiceStatus.dwWaitHint = 1000;
  service.init = [] {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return TRUE;
  };
  EXPECT_TRUE(service.Initialize());
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(Joined({{kInitialize.Info("Entry")},
                                       SetStatusSteps(2, Report(2, 0, 3, 1000)),
                                       {"OnInit"},
                                       SetStatusSteps(4, Report(4, 2)),
                                       {kInitialize.Info("Exit")}})));
}

TEST_F(NTService, OnInitReturningFalseWithTheLastErrorFiveEndsTheServiceWithExitCodeFive) {
  JournalService service(m_journal, "Sample");
  service.init = [] {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  };
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(Joined(
                  {{kServiceMain.Info("Entry"), "RegisterServiceCtrlHandlerA(\"Sample\", Handler)",
                    kInitialize.Info("Entry")},
                   SetStatusSteps(2, Report(2)),
                   {"OnInit"},
                   SetStatusSteps(1, Report(1, 5)),
                   SetStatusSteps(1, Report(1, 5)),
                   {kServiceMain.Info("Exit")}})));
  EXPECT_EQ(service.ExitCode(), 5U);
  EXPECT_EQ(service.m_bRunning, FALSE);
}

TEST_F(NTService, AnOrdinaryRunReportsStartPendingRunningStopPendingStopped) {
  JournalService service(m_journal, "Sample");
  service.run = [] { ExposedService::Handler(SERVICE_CONTROL_STOP); };
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 3U, 3U, 1U));
}

// ---- Handler ----

class Handler : public NTService {
 protected:
  Handler() {
    m_service.m_hServiceStatus = kStatusHandle;
    m_service.m_ServiceStatus.dwCurrentState = SERVICE_RUNNING;
    m_service.m_bRunning = TRUE;
    m_journal.Clear();
  }

  JournalService m_service{m_journal, "Sample"};
};

TEST_F(Handler, StopReportsStopPendingTwiceAndEndsTheRun) {
  m_service.stop = [&] { EXPECT_EQ(m_service.m_bRunning, TRUE); };
  ExposedService::Handler(SERVICE_CONTROL_STOP);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(Joined({{kHandler.Info("Entry")},
                                       SetStatusSteps(3, Report(3)),
                                       {"OnStop", Report(3), kHandler.Info("Exit")}})));
  EXPECT_EQ(m_service.m_bRunning, FALSE);
  EXPECT_FALSE(m_service.m_bNotifyServer);
}

TEST_F(Handler, ControlCode140NotifiesTheServerAndStopsLikeCodeOne) {
  m_service.stop = [&] { EXPECT_TRUE(m_service.m_bNotifyServer); };
  ExposedService::Handler(140);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(
                  Joined({{kHandler.Info("Entry"), kHandler.Info("Got user stop notification")},
                          SetStatusSteps(3, Report(3)),
                          {"OnStop", Report(3), kHandler.Info("Exit")}})));
  EXPECT_EQ(m_service.m_bRunning, FALSE);
  EXPECT_TRUE(m_service.m_bNotifyServer);
}

TEST_F(Handler, ReportsTheRecordAsTheHookLeftIt) {
  m_service.interrogate = [&] {
    m_service.m_ServiceStatus.dwCheckPoint = 12;
    m_service.m_ServiceStatus.dwWaitHint = 3000;
    m_service.m_ServiceStatus.dwWin32ExitCode = 7;
  };
  ExposedService::Handler(SERVICE_CONTROL_INTERROGATE);
  EXPECT_THAT(m_journal.Calls(), ElementsAre("OnInterrogate", Report(4, 7, 12, 3000)));
}

// Called twice, so that a first call that left something behind would show.
TEST_F(Handler, TakesOneControlAfterAnother) {
  ExposedService::Handler(SERVICE_CONTROL_INTERROGATE);
  ExposedService::Handler(128);
  ExposedService::Handler(SERVICE_CONTROL_STOP);
  EXPECT_THAT(States(), ElementsAre(4U, 4U, 3U, 3U));
}

class HandlerControl : public Handler, public ::testing::WithParamInterface<ControlCase> {};

TEST_P(HandlerControl, CallsItsHookAndReportsTheStatus) {
  ExposedService::Handler(GetParam().control);
  std::vector<std::string> expected = {kHandler.Info("Entry")};
  if (GetParam().hook != nullptr) {
    expected.push_back(GetParam().hook);
  }
  expected.insert(expected.end(), {Report(4), kHandler.Info("Exit")});
  EXPECT_THAT(m_journal.Entries(), ElementsAreArray(expected));
  EXPECT_EQ(m_service.m_bRunning, TRUE);
  EXPECT_FALSE(m_service.m_bNotifyServer);
}

INSTANTIATE_TEST_SUITE_P(, HandlerControl,
                         ::testing::Values(ControlCase{0, nullptr}, ControlCase{2, "OnPause"},
                                           ControlCase{3, "OnContinue"},
                                           ControlCase{4, "OnInterrogate"},
                                           ControlCase{5, "OnShutdown"}, ControlCase{6, nullptr},
                                           ControlCase{7, nullptr}, ControlCase{127, nullptr},
                                           ControlCase{128, "OnUserControl(128)"},
                                           ControlCase{139, "OnUserControl(139)"},
                                           ControlCase{141, "OnUserControl(141)"},
                                           ControlCase{255, "OnUserControl(255)"},
                                           ControlCase{0x80000000, "OnUserControl(2147483648)"},
                                           ControlCase{0xFFFFFFFF, "OnUserControl(4294967295)"}),
                         [](const auto& test) {
                           return "Code" + std::to_string(test.param.control);
                         });

TEST_F(Handler, ControlCode140SetsTheNotifyFlagBehindItsLine) {
  m_journal.Watch([this, notifies = m_service.m_bNotifyServer]() mutable -> std::string {
    const bool changed = notifies != m_service.m_bNotifyServer;
    notifies = m_service.m_bNotifyServer;
    return changed ? "m_bNotifyServer = " + std::to_string(notifies) : std::string();
  });
  ExposedService::Handler(140);
  m_journal.Watch({});
  const std::vector<std::string> entries = m_journal.Entries();
  ASSERT_GE(entries.size(), 4U);
  EXPECT_THAT(std::vector(entries.begin(), entries.begin() + 4),
              ElementsAre(kHandler.Info("Entry"), kHandler.Info("Got user stop notification"),
                          "m_bNotifyServer = 1", kSetStatus.Info("Entry")));
}

TEST_F(NTService, PauseAndContinueAreNotAmongTheAcceptedControls) {
  const ExposedService service("Sample");
  EXPECT_EQ(service.m_ServiceStatus.dwControlsAccepted & DWORD{SERVICE_ACCEPT_PAUSE_CONTINUE}, 0U);
}

}  // namespace
