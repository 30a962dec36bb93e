// How a service is started by its name, and what Windows does when it fails.
#include "service/vorlfun.h"

#include <gmock/gmock.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/journal.h"
#include "tests/unit/operations.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Values;

namespace {

// ---- StartServiceByName ----

class StartServiceByNameTest : public ::testing::Test {
 protected:
  // The calls of a start that got as far as its first status.
  const std::vector<std::string> m_start = {"OpenSCManagerA(null, null, 0xF003F) = manager1",
                                            "OpenServiceA(manager1, \"Sample\", 0x14) = service1",
                                            "StartServiceA(service1, 0, null)"};

  std::vector<std::string> StartAndThen(const std::vector<std::string>& calls) const {
    std::vector<std::string> all = m_start;
    all.insert(all.end(), calls.begin(), calls.end());
    all.insert(all.end(), {"CloseServiceHandle(service1)", "CloseServiceHandle(manager1)"});
    return all;
  }

  Journal m_journal;
  FakeServiceManager m_manager{m_journal};
};

TEST_F(StartServiceByNameTest, SucceedsWhenTheServiceRuns) {
  EXPECT_TRUE(StartServiceByName("Sample"));
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kStartByName.Info("Entry"), "OpenSCManagerA(null, null, 0xF003F) = manager1",
                  "OpenServiceA(manager1, \"Sample\", 0x14) = service1",
                  "StartServiceA(service1, 0, null)", "QueryServiceStatus(service1) = state 4",
                  "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)",
                  kStartByName.Info("Service Started Successfully"), kStartByName.Info("Exit")));
}

TEST_F(StartServiceByNameTest, RefusesANullName) {
  EXPECT_FALSE(StartServiceByName(nullptr));
  EXPECT_THAT(m_journal.Entries(), ElementsAre(kStartByName.Info("Entry"),
                                               kStartByName.Error("NULL Parameter received")));
}

TEST_F(StartServiceByNameTest, FailsWithoutTheServiceControlManager) {
  m_manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(m_journal.Entries(), ElementsAre(kStartByName.Info("Entry"),
                                               "OpenSCManagerA(null, null, 0xF003F) = error 5",
                                               kStartByName.Error("OpenSCManager Failed (5)")));
}

TEST_F(StartServiceByNameTest, FailsWhenTheServiceCannotBeOpened) {
  m_manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kStartByName.Info("Entry"), "OpenSCManagerA(null, null, 0xF003F) = manager1",
                  "OpenServiceA(manager1, \"Sample\", 0x14) = error 1060",
                  kStartByName.Error("OpenService Failed (1060)"), "CloseServiceHandle(manager1)"));
}

TEST_F(StartServiceByNameTest, FailsWhenTheServiceRunsAlready) {
  m_manager.Fail("StartServiceA", ERROR_SERVICE_ALREADY_RUNNING);
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_ALREADY_RUNNING});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kStartByName.Info("Entry"), "OpenSCManagerA(null, null, 0xF003F) = manager1",
                  "OpenServiceA(manager1, \"Sample\", 0x14) = service1",
                  "StartServiceA(service1, 0, null) = error 1056",
                  kStartByName.Error("StartService Failed (1056)"), "CloseServiceHandle(service1)",
                  "CloseServiceHandle(manager1)"));
}

TEST_F(StartServiceByNameTest, FailsWhenTheFirstStatusCannotBeRead) {
  m_manager.AnswerStatus({{0, 0, 0, ERROR_ACCESS_DENIED}});
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kStartByName.Info("Entry"), "OpenSCManagerA(null, null, 0xF003F) = manager1",
                  "OpenServiceA(manager1, \"Sample\", 0x14) = service1",
                  "StartServiceA(service1, 0, null)", "QueryServiceStatus(service1) = error 5",
                  kStartByName.Error("QueryServiceStatus Failed (5)"),
                  "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)"));
}

TEST_F(StartServiceByNameTest, FailsWithoutALineWhenTheServiceStoppedAtOnce) {
  m_manager.AnswerStatus({{SERVICE_STOPPED}});
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_THAT(m_journal.Calls(),
              ElementsAreArray(StartAndThen({"QueryServiceStatus(service1) = state 1"})));
  EXPECT_THAT(m_journal.Traces(), ElementsAre(kStartByName.Info("Entry")));
}

TEST_F(StartServiceByNameTest, FailsWithoutALineWhenTheServiceStopsWhileItStarts) {
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 1, 5000}, {SERVICE_STOPPED}});
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_THAT(m_journal.Traces(), ElementsAre(kStartByName.Info("Entry")));
}

TEST_F(StartServiceByNameTest, LeavesTheLoopWithoutALineWhenAQueryFails) {
  m_manager.AnswerStatus(
      {{SERVICE_START_PENDING, 1, 5000}, {0, 0, 0, ERROR_ACCESS_DENIED}, {SERVICE_RUNNING}});
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_THAT(
      m_journal.Calls(),
      ElementsAreArray(StartAndThen({"QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = error 5"})));
  EXPECT_THAT(m_journal.Traces(), ElementsAre(kStartByName.Info("Entry")));
}

struct WaitHintCase {
  DWORD waitHint;
  const char* sleep;

  friend std::ostream& operator<<(std::ostream& out, const WaitHintCase& test) {
    return out << test.waitHint;
  }
};

class StartServiceWaitHint : public StartServiceByNameTest,
                             public ::testing::WithParamInterface<WaitHintCase> {};

TEST_P(StartServiceWaitHint, SetsTheLengthOfAStep) {
  m_manager.AnswerStatus(
      {{SERVICE_START_PENDING, 1, GetParam().waitHint}, {SERVICE_RUNNING, 0, 0}});
  EXPECT_TRUE(StartServiceByName("Sample"));
  EXPECT_THAT(
      m_journal.Calls(),
      ElementsAreArray(StartAndThen({"QueryServiceStatus(service1) = state 2", GetParam().sleep,
                                     "QueryServiceStatus(service1) = state 4"})));
}

// A tenth of the hint, at least one second, at most ten.
INSTANTIATE_TEST_SUITE_P(
    , StartServiceWaitHint,
    Values(WaitHintCase{0, "Sleep(1000)"}, WaitHintCase{5000, "Sleep(1000)"},
           WaitHintCase{10009, "Sleep(1000)"}, WaitHintCase{10010, "Sleep(1001)"},
           WaitHintCase{30000, "Sleep(3000)"}, WaitHintCase{99999, "Sleep(9999)"},
           WaitHintCase{100000, "Sleep(10000)"}, WaitHintCase{200000, "Sleep(10000)"},
           WaitHintCase{0xFFFFFFFF, "Sleep(10000)"}),
    [](const auto& test) { return "Of" + std::to_string(test.param.waitHint) + "Milliseconds"; });

TEST_F(StartServiceByNameTest, ReadsTheWaitHintAnewAtEveryStep) {
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 1, 5000},
                          {SERVICE_START_PENDING, 2, 40000},
                          {SERVICE_START_PENDING, 3, 200000},
                          {SERVICE_RUNNING}});
  EXPECT_TRUE(StartServiceByName("Sample"));
  EXPECT_THAT(
      m_journal.Calls(),
      ElementsAreArray(StartAndThen({"QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(4000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(10000)",
                                     "QueryServiceStatus(service1) = state 4"})));
}

// The hint of 3,000 ms has not yet passed after three steps of one second, but after the fourth.
TEST_F(StartServiceByNameTest, GivesUpWhenTheCheckPointNeverGrows) {
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 7, 3000}});
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_THAT(
      m_journal.Calls(),
      ElementsAreArray(StartAndThen({"QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2"})));
  EXPECT_THAT(m_journal.Traces(), ElementsAre(kStartByName.Info("Entry")));
}

TEST_F(StartServiceByNameTest, GoesOnWaitingWhileTheCheckPointGrows) {
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 1, 500},
                          {SERVICE_START_PENDING, 2, 500},
                          {SERVICE_START_PENDING, 3, 500},
                          {SERVICE_START_PENDING, 9, 500},
                          {SERVICE_RUNNING}});
  // Without progress the hint of 500 ms would be over after the first step.
  EXPECT_TRUE(StartServiceByName("Sample"));
}

TEST_F(StartServiceByNameTest, CountsTheHintFromTheLastProgress) {
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 1, 1500},
                          {SERVICE_START_PENDING, 1, 1500},  // 1,000 ms: still within the hint
                          {SERVICE_START_PENDING, 2, 1500},  // progress at 2,000 ms
                          {SERVICE_START_PENDING, 2, 1500},  // 1,000 ms after it
                          {SERVICE_START_PENDING, 2, 1500},  // 2,000 ms after it: over
                          {SERVICE_RUNNING}});
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_THAT(
      m_journal.Calls(),
      ElementsAreArray(StartAndThen({"QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2"})));
}

TEST_F(StartServiceByNameTest, ACheckPointThatFallsIsNoProgress) {
  m_manager.AnswerStatus(
      {{SERVICE_START_PENDING, 5, 500}, {SERVICE_START_PENDING, 4, 500}, {SERVICE_RUNNING}});
  EXPECT_FALSE(StartServiceByName("Sample"));
}

TEST_F(StartServiceByNameTest, MeasuresAgainstTheCurrentWaitHint) {
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 1, 500},
                          {SERVICE_START_PENDING, 1, 60000},  // longer than what has passed
                          {SERVICE_RUNNING}});
  EXPECT_TRUE(StartServiceByName("Sample"));
}

// The end of the wait hint lies behind the wrap-around, the first steps before it.
TEST_F(StartServiceByNameTest, WaitsAcrossTheWrapAroundOfTheTickCount) {
  m_manager.SetTick(0xFFFFF700);  // 2,304 ms before the wrap-around
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 1, 5000},
                          {SERVICE_START_PENDING, 1, 5000},
                          {SERVICE_START_PENDING, 1, 5000},
                          {SERVICE_START_PENDING, 1, 5000},
                          {SERVICE_RUNNING}});
  EXPECT_TRUE(StartServiceByName("Sample"));
}

// The end of the wait hint lies before the wrap-around, the step that notices it behind.
TEST_F(StartServiceByNameTest, GivesUpAcrossTheWrapAroundOfTheTickCount) {
  m_manager.SetTick(0xFFFFFC00);  // 1,024 ms before the wrap-around
  m_manager.AnswerStatus({{SERVICE_START_PENDING, 1, 1010},
                          {SERVICE_START_PENDING, 1, 1010},
                          {SERVICE_START_PENDING, 1, 1010},
                          {SERVICE_RUNNING}});
  EXPECT_FALSE(StartServiceByName("Sample"));
  EXPECT_THAT(
      m_journal.Calls(),
      ElementsAreArray(StartAndThen({"QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2", "Sleep(1000)",
                                     "QueryServiceStatus(service1) = state 2"})));
}

// ---- ConfigureServiceRecoveryOptionsW ----

class RecoveryOptions : public ::testing::Test {
 protected:
  // A service handle of the fake, which shows as service1.
  SC_HANDLE Service() const {
    return OpenServiceA(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS), "Sample",
                        SERVICE_ALL_ACCESS);
  }

  Journal m_journal;
  FakeServiceManager m_manager{m_journal};
  const SC_HANDLE m_service = Service();

  void SetUp() override {
    ASSERT_NE(m_service, nullptr);
    m_journal.Clear();
  }
};

TEST_F(RecoveryOptions, CommandIsTheCommandPathOneBlankAndReset) {
  EXPECT_TRUE(ConfigureServiceRecoveryOptionsW(m_service, L"\"C:\\my agent\\vorlsrvc.exe\"",
                                               SC_ACTION_RUN_COMMAND, SC_ACTION_RUN_COMMAND,
                                               SC_ACTION_NONE));
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kRecovery.Info("Entry"),
                  "ChangeServiceConfig2W(service1, 2, reset 3600, reboot message null, command "
                  "\"\"C:\\my agent\\vorlsrvc.exe\" -reset\", actions (3, 0) (3, 0) (0, 0))",
                  kRecovery.Info("Exit")));
}

TEST_F(RecoveryOptions, HaveNoCommandWhenNoActionRunsOne) {
  EXPECT_TRUE(ConfigureServiceRecoveryOptionsW(m_service, L"C:\\vorlsrvc.exe", SC_ACTION_RESTART,
                                               SC_ACTION_REBOOT, SC_ACTION_NONE));
  EXPECT_THAT(m_journal.Calls(),
              ElementsAre("ChangeServiceConfig2W(service1, 2, reset 3600, reboot message null, "
                          "command null, actions (1, 0) (2, 0) (0, 0))"));
}

TEST_F(RecoveryOptions, HaveTheCommandWhenOnlyTheThirdActionRunsOne) {
  EXPECT_TRUE(ConfigureServiceRecoveryOptionsW(m_service, L"C:\\vorlsrvc.exe", SC_ACTION_NONE,
                                               SC_ACTION_NONE, SC_ACTION_RUN_COMMAND));
  EXPECT_THAT(m_journal.Calls(),
              ElementsAre("ChangeServiceConfig2W(service1, 2, reset 3600, reboot message null, "
                          "command \"C:\\vorlsrvc.exe -reset\", actions (0, 0) (0, 0) (3, 0))"));
}

TEST_F(RecoveryOptions, RefuseANullServiceHandle) {
  EXPECT_FALSE(ConfigureServiceRecoveryOptionsW(nullptr, L"C:\\vorlsrvc.exe", SC_ACTION_RUN_COMMAND,
                                                SC_ACTION_RUN_COMMAND, SC_ACTION_NONE));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kRecovery.Info("Entry"), kRecovery.Info("Invalid Service handle.")));
}

TEST_F(RecoveryOptions, RefuseANullCommandPath) {
  EXPECT_FALSE(ConfigureServiceRecoveryOptionsW(m_service, nullptr, SC_ACTION_NONE, SC_ACTION_NONE,
                                                SC_ACTION_NONE));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kRecovery.Info("Entry"), kRecovery.Info("Invalid Service handle.")));
}

// 259 characters and the terminating null fill the buffer: 252 of the path and " -reset".
TEST_F(RecoveryOptions, TakeACommandThatJustFits) {
  const std::wstring path = L"C:\\" + std::wstring(249, L'x');
  EXPECT_TRUE(ConfigureServiceRecoveryOptionsW(m_service, path.c_str(), SC_ACTION_RUN_COMMAND,
                                               SC_ACTION_NONE, SC_ACTION_NONE));
  EXPECT_THAT(m_journal.Calls(),
              ElementsAre("ChangeServiceConfig2W(service1, 2, reset 3600, reboot message null, "
                          "command \"C:\\" +
                          std::string(249, 'x') + " -reset\", actions (3, 0) (0, 0) (0, 0))"));
}

TEST_F(RecoveryOptions, LogAnInvalidServiceHandleWhenTheCommandDoesNotFit) {
  const std::wstring path = L"C:\\" + std::wstring(250, L'x');
  EXPECT_FALSE(ConfigureServiceRecoveryOptionsW(m_service, path.c_str(), SC_ACTION_RUN_COMMAND,
                                                SC_ACTION_NONE, SC_ACTION_NONE));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kRecovery.Info("Entry"), kRecovery.Info("Invalid Service handle.")));
}

TEST_F(RecoveryOptions, DoNotLookAtThePathsLengthWhenNoActionRunsACommand) {
  const std::wstring path(1000, L'x');
  EXPECT_TRUE(ConfigureServiceRecoveryOptionsW(m_service, path.c_str(), SC_ACTION_RESTART,
                                               SC_ACTION_NONE, SC_ACTION_NONE));
}

TEST_F(RecoveryOptions, LogAnInvalidServiceHandleWhenTheConfigurationFails) {
  m_manager.Fail("ChangeServiceConfig2W", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(ConfigureServiceRecoveryOptionsW(m_service, L"C:\\vorlsrvc.exe",
                                                SC_ACTION_RUN_COMMAND, SC_ACTION_RUN_COMMAND,
                                                SC_ACTION_NONE));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kRecovery.Info("Entry"),
                          "ChangeServiceConfig2W(service1, 2, reset 3600, reboot message null, "
                          "command \"C:\\vorlsrvc.exe -reset\", actions (3, 0) (3, 0) (0, 0)) = "
                          "error 5",
                          kRecovery.Info("Invalid Service handle.")));
}

}  // namespace
