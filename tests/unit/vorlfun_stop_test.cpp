// How a service is stopped by its name.
#include <gmock/gmock.h>

#include <ostream>
#include <string>
#include <vector>

#include "service/vorlfun.h"
#include "support/windows_api.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/journal.h"
#include "tests/unit/operations.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::TestWithParam;
using ::testing::Values;

namespace {

struct StopCase {
  const char* name;
  BOOL (*stop)(const char* serviceName);
  const char* control;

  friend std::ostream& operator<<(std::ostream& out, const StopCase& test) {
    return out << test.name;
  }
};

class StopService : public TestWithParam<StopCase> {
 protected:
  BOOL Stop(const char* serviceName) const { return GetParam().stop(serviceName); }

  std::string ControlCall(const std::string& result = "") const {
    return std::string("ControlService(service1, ") + GetParam().control + ")" + result;
  }

  // Everything up to the first status that was read.
  std::vector<std::string> UpToFirstStatus(int state) const {
    return {m_trace.Info("Entry"),
            m_trace.Info("before calling OpenSCManager"),
            "OpenSCManagerA(null, null, 0xF003F) = manager1",
            m_trace.Info("After calling OpenSCManager"),
            m_trace.Info("before calling OpenService"),
            "OpenServiceA(manager1, \"Sample\", 0xF01FF) = service1",
            m_trace.Info("After calling OpenService"),
            m_trace.Info("Before calling ControlService To stop"),
            ControlCall(),
            m_trace.Info("After calling ControlService To stop"),
            m_trace.Info("Before calling QueryServiceStatus"),
            "QueryServiceStatus(service1) = state " + std::to_string(state),
            m_trace.Info("After calling QueryServiceStatus")};
  }
  std::vector<std::string> UpToFirstStatus(int state, const std::vector<std::string>& rest) const {
    std::vector<std::string> all = UpToFirstStatus(state);
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
  }

  Journal m_journal;
  FakeServiceManager m_manager{m_journal};
  const ExpectedTrace m_trace{GetParam().name, kControlSource};
};

INSTANTIATE_TEST_SUITE_P(, StopService,
                         Values(StopCase{"StopServiceByName", &StopServiceByName, "1"},
                                StopCase{"StopServiceByNameEx", &StopServiceByNameEx, "140"}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(StopService, SucceedsWhenTheServiceStopsAtOnce) {
  m_manager.AnswerStatus({{SERVICE_STOPPED}});
  EXPECT_TRUE(Stop("Sample"));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(UpToFirstStatus(
                  1, {m_trace.Info("Value is : 1 "), "CloseServiceHandle(service1)",
                      "CloseServiceHandle(manager1)", m_trace.Info("Service stoped successfully"),
                      m_trace.Info("Exit")})));
}

TEST_P(StopService, WaitsWhileStopIsPending) {
  m_manager.AnswerStatus({{SERVICE_STOP_PENDING}, {SERVICE_STOP_PENDING}, {SERVICE_STOPPED}});
  EXPECT_TRUE(Stop("Sample"));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(UpToFirstStatus(
                  3, {"Sleep(50)", "QueryServiceStatus(service1) = state 3", "Sleep(50)",
                      "QueryServiceStatus(service1) = state 1", m_trace.Info("Value is : 1 "),
                      "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)",
                      m_trace.Info("Service stoped successfully"), m_trace.Info("Exit")})));
}

TEST_P(StopService, HasNoTimeLimit) {
  std::vector<FakeStatus> statuses(5000, FakeStatus{SERVICE_STOP_PENDING, 1, 100});
  statuses.push_back({SERVICE_STOPPED});
  m_manager.AnswerStatus(statuses);
  EXPECT_TRUE(Stop("Sample"));
}

TEST_P(StopService, FailsWhenTheServiceGoesOnRunning) {
  m_manager.AnswerStatus({{SERVICE_STOP_PENDING}, {SERVICE_RUNNING}});
  EXPECT_FALSE(Stop("Sample"));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(UpToFirstStatus(
                  3, {"Sleep(50)", "QueryServiceStatus(service1) = state 4",
                      m_trace.Info("Value is : 4 "), "CloseServiceHandle(service1)",
                      "CloseServiceHandle(manager1)", m_trace.Info("Unable to stop service")})));
}

TEST_P(StopService, RefusesANullName) {
  EXPECT_FALSE(Stop(nullptr));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(m_trace.Info("Entry"), m_trace.Error("NULL Parameter Received")));
}

TEST_P(StopService, FailsWithoutTheServiceControlManager) {
  m_manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(Stop("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(m_trace.Info("Entry"), m_trace.Info("before calling OpenSCManager"),
                          "OpenSCManagerA(null, null, 0xF003F) = error 5",
                          m_trace.Error("OpenSCManager Failed (5)")));
}

TEST_P(StopService, FailsWhenTheServiceCannotBeOpened) {
  m_manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  EXPECT_FALSE(Stop("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(m_trace.Info("Entry"), m_trace.Info("before calling OpenSCManager"),
                  "OpenSCManagerA(null, null, 0xF003F) = manager1",
                  m_trace.Info("After calling OpenSCManager"),
                  m_trace.Info("before calling OpenService"),
                  "OpenServiceA(manager1, \"Sample\", 0xF01FF) = error 1060",
                  m_trace.Error("OpenService Failed (1060)"), "CloseServiceHandle(manager1)"));
}

TEST_P(StopService, FailsInControlServiceWhenTheServiceIsStoppedAlready) {
  m_manager.Fail("ControlService", ERROR_SERVICE_NOT_ACTIVE);
  EXPECT_FALSE(Stop("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_NOT_ACTIVE});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(m_trace.Info("Entry"), m_trace.Info("before calling OpenSCManager"),
                  "OpenSCManagerA(null, null, 0xF003F) = manager1",
                  m_trace.Info("After calling OpenSCManager"),
                  m_trace.Info("before calling OpenService"),
                  "OpenServiceA(manager1, \"Sample\", 0xF01FF) = service1",
                  m_trace.Info("After calling OpenService"),
                  m_trace.Info("Before calling ControlService To stop"),
                  ControlCall(" = error 1062"), m_trace.Error("ControlService Failed (1062)"),
                  "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)"));
}

TEST_P(StopService, FailsWhenTheFirstStatusCannotBeRead) {
  m_manager.AnswerStatus({{0, 0, 0, ERROR_ACCESS_DENIED}});
  EXPECT_FALSE(Stop("Sample"));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(m_trace.Info("Entry"), m_trace.Info("before calling OpenSCManager"),
                          "OpenSCManagerA(null, null, 0xF003F) = manager1",
                          m_trace.Info("After calling OpenSCManager"),
                          m_trace.Info("before calling OpenService"),
                          "OpenServiceA(manager1, \"Sample\", 0xF01FF) = service1",
                          m_trace.Info("After calling OpenService"),
                          m_trace.Info("Before calling ControlService To stop"), ControlCall(),
                          m_trace.Info("After calling ControlService To stop"),
                          m_trace.Info("Before calling QueryServiceStatus"),
                          "QueryServiceStatus(service1) = error 5",
                          m_trace.Error("QueryServiceStatus Failed (5)"),
                          "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)"));
}

TEST_P(StopService, LeavesTheLoopWhenAQueryFails) {
  m_manager.AnswerStatus(
      {{SERVICE_STOP_PENDING}, {0, 0, 0, ERROR_INVALID_HANDLE}, {SERVICE_STOPPED}});
  EXPECT_FALSE(Stop("Sample"));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(UpToFirstStatus(
                  3, {"Sleep(50)", "QueryServiceStatus(service1) = error 6",
                      m_trace.Error("QueryServiceStatus 1 Failed (6)"),
                      m_trace.Info("Value is : 3 "), "CloseServiceHandle(service1)",
                      "CloseServiceHandle(manager1)", m_trace.Info("Unable to stop service")})));
}

}  // namespace
