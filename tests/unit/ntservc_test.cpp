#include "service/ntservc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

constexpr char kSource[] = "service/ntservc.cpp";

// Its lower 32 bits are 591751049.
const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{0x1'2345'6789});

// Opens the parts of the base class that are for derived classes only.
class ExposedService : public CNTService {
 public:
  using CNTService::CNTService;

  using CNTService::DebugMsg;
  using CNTService::Handler;
  using CNTService::Initialize;
  using CNTService::OnContinue;
  using CNTService::OnInit;
  using CNTService::OnInterrogate;
  using CNTService::OnPause;
  using CNTService::OnShutdown;
  using CNTService::OnStop;
  using CNTService::OnUserControl;
  using CNTService::Run;
  using CNTService::ServiceMain;
  using CNTService::SetStatus;

  using CNTService::m_bNotifyServer;
  using CNTService::m_bRunning;
  using CNTService::m_hEventLogSource;
  using CNTService::m_hServiceStatus;
  using CNTService::m_nSpare1;
  using CNTService::m_nSpare2;
  using CNTService::m_ServiceStatus;
  using CNTService::m_szServiceName;

  template <typename Member>
  std::size_t OffsetOf(const Member& member) const {
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&member) -
                                    reinterpret_cast<const char*>(this));
  }
};

// A service whose hooks go to the journal and then do what the test says.
class JournalService : public ExposedService {
 public:
  JournalService(Journal& journal, const char* serviceName)
      : ExposedService(serviceName), m_journal(journal) {
    journal.Clear();
  }

  std::function<void()> run = [] {};
  std::function<BOOL()> init = [] { return TRUE; };
  std::function<void()> stop = [] {};
  std::function<void()> interrogate = [] {};

 protected:
  void Run() override {
    m_journal.Call("Run");
    run();
  }
  BOOL OnInit() override {
    m_journal.Call("OnInit");
    return init();
  }
  void OnStop() override {
    m_journal.Call("OnStop");
    stop();
  }
  void OnInterrogate() override {
    m_journal.Call("OnInterrogate");
    interrogate();
  }
  void OnPause() override { m_journal.Call("OnPause"); }
  void OnContinue() override { m_journal.Call("OnContinue"); }
  void OnShutdown() override { m_journal.Call("OnShutdown"); }
  BOOL OnUserControl(DWORD code) override {
    m_journal.Call("OnUserControl(" + std::to_string(code) + ")");
    return FALSE;
  }

 private:
  Journal& m_journal;
};

// What the journal shows of a report: the state, then all other members of the record.
std::string Report(DWORD state, DWORD exitCode = 0, DWORD checkPoint = 0, DWORD waitHint = 0) {
  return "SetServiceStatus(state " + std::to_string(state) + ", type 0x10, accepts 0x5, exit " +
         std::to_string(exitCode) + ", specific 0, check point " + std::to_string(checkPoint) +
         ", hint " + std::to_string(waitHint) + ")";
}

std::string Line(const std::string& operation, const std::string& text, int level = 2) {
  return Traced(level, "CNTService::" + operation, kSource, text);
}

// Everything that reporting a state on this thread writes and calls.
std::vector<std::string> SetStatusSteps(DWORD state, const std::string& report,
                                        const std::string& handle = "591751049") {
  return {Line("SetStatus", "Entry"),
          Line("DebugMsg", "Entry"),
          "OutputDebugStringA([Sample](" + std::to_string(GetCurrentThreadId()) +
              "): CNTService::SetStatus(" + handle + ", " + std::to_string(state) + ")\n)",
          Line("DebugMsg", "Exit"),
          report,
          Line("SetStatus", "Exit")};
}

std::vector<std::string> Joined(const std::vector<std::vector<std::string>>& parts) {
  std::vector<std::string> all;
  for (const std::vector<std::string>& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// The service control manager's side: takes registrations, reports and debugger texts.
class NTService : public ::testing::Test {
 protected:
  // The states that were reported, in the order in which the reports arrived.
  std::vector<DWORD> States() {
    const std::lock_guard guard(m_statesMutex);
    return m_states;
  }

  Journal m_journal;
  // Called with a copy of the record before a report arrives; may block.
  std::function<void(const SERVICE_STATUS&)> m_beforeReport = [](const SERVICE_STATUS&) {};
  SERVICE_STATUS_HANDLE m_registration = kStatusHandle;

 private:
  std::mutex m_statesMutex;
  std::vector<DWORD> m_states;

  CallPatch<struct RegisterTag, SERVICE_STATUS_HANDLE(LPCSTR, LPHANDLER_FUNCTION)> m_register{
      "ADVAPI32.dll", "RegisterServiceCtrlHandlerA",
      [this](LPCSTR name, LPHANDLER_FUNCTION handler) {
        m_journal.Call("RegisterServiceCtrlHandlerA(" + Quoted(name) + ", " +
                       (handler == &ExposedService::Handler ? "Handler" : "another function") +
                       ")");
        return m_registration;
      }};
  CallPatch<struct ReportTag, BOOL(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS)> m_report{
      "ADVAPI32.dll", "SetServiceStatus",
      [this](SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS record) {
        const SERVICE_STATUS status = *record;
        m_beforeReport(status);
        {
          const std::lock_guard guard(m_statesMutex);
          m_states.push_back(status.dwCurrentState);
        }
        m_journal.Call("SetServiceStatus(" +
                       std::string(handle == kStatusHandle ? "" : "without the handle, ") +
                       "state " + std::to_string(status.dwCurrentState) + ", type " +
                       Hex(status.dwServiceType) + ", accepts " + Hex(status.dwControlsAccepted) +
                       ", exit " + std::to_string(status.dwWin32ExitCode) + ", specific " +
                       std::to_string(status.dwServiceSpecificExitCode) + ", check point " +
                       std::to_string(status.dwCheckPoint) + ", hint " +
                       std::to_string(status.dwWaitHint) + ")");
        SetLastError(kRubbishError);
        return FALSE;  // which nobody minds
      }};
  CallPatch<struct DebugTag, void(LPCSTR)> m_debug{
      "KERNEL32.dll", "OutputDebugStringA", [this](LPCSTR text) {
        m_journal.Call(std::string("OutputDebugStringA(") + text + ")");
        SetLastError(kRubbishError);
      }};
};

// ---- Construction, layout, destruction ----

TEST_F(NTService, ConstructorSetsTheDefaults) {
  const ExposedService service("Sample");
  EXPECT_STREQ(service.m_szServiceName, "Sample");
  EXPECT_EQ(service.m_nSpare1, 1);
  EXPECT_EQ(service.m_nSpare2, 0);
  EXPECT_EQ(service.m_hServiceStatus, nullptr);
  EXPECT_EQ(service.m_ServiceStatus.dwServiceType, 0x10U);
  EXPECT_EQ(service.m_ServiceStatus.dwCurrentState, 1U);
  EXPECT_EQ(service.m_ServiceStatus.dwControlsAccepted, 0x5U);
  EXPECT_EQ(service.m_ServiceStatus.dwWin32ExitCode, 0U);
  EXPECT_EQ(service.m_ServiceStatus.dwServiceSpecificExitCode, 0U);
  EXPECT_EQ(service.m_ServiceStatus.dwCheckPoint, 0U);
  EXPECT_EQ(service.m_ServiceStatus.dwWaitHint, 0U);
  EXPECT_EQ(service.m_bRunning, FALSE);
  EXPECT_FALSE(service.m_bNotifyServer);
  EXPECT_EQ(service.m_hEventLogSource, nullptr);
  EXPECT_EQ(service.ExitCode(), 0U);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(Line("CNTService", "Entry"), Line("CNTService", "Exit")));
}

TEST_F(NTService, NameOf62CharactersIsKept) {
  const std::string name(62, 'n');
  const ExposedService service(name.c_str());
  EXPECT_EQ(service.m_szServiceName, name);
}

TEST_F(NTService, NameIsCutAt63Characters) {
  const ExposedService service(std::string(100, 'n').c_str());
  EXPECT_EQ(service.m_szServiceName, std::string(63, 'n'));
}

TEST_F(NTService, FieldsStandInTheirOrderBehindTheTableOfVirtualFunctions) {
  const ExposedService service("Sample");
  EXPECT_EQ(service.OffsetOf(service.m_szServiceName), 8U);
  EXPECT_EQ(sizeof(service.m_szServiceName), 64U);
  EXPECT_EQ(service.OffsetOf(service.m_nSpare1), 72U);
  EXPECT_EQ(service.OffsetOf(service.m_nSpare2), 76U);
  EXPECT_EQ(service.OffsetOf(service.m_hServiceStatus), 80U);
  EXPECT_EQ(service.OffsetOf(service.m_ServiceStatus), 88U);
  EXPECT_EQ(service.OffsetOf(service.m_bRunning), 116U);
  EXPECT_EQ(sizeof(service.m_bRunning), 4U);
  EXPECT_EQ(service.OffsetOf(service.m_bNotifyServer), 120U);
  EXPECT_EQ(sizeof(service.m_bNotifyServer), 1U);
  EXPECT_EQ(service.OffsetOf(service.m_hEventLogSource), 128U);
  EXPECT_EQ(sizeof(CNTService), 136U);
}

TEST_F(NTService, VirtualFunctionsStandInTheirOrderBehindTheDestructor) {
#ifdef _MSC_VER
  constexpr std::size_t kDestructorSlots = 1;
#else
  constexpr std::size_t kDestructorSlots = 2;  // one of them frees the object as well
#endif
  using Hook = BOOL (*)(CNTService*, DWORD);
  JournalService service(m_journal, "Sample");
  const auto* const table = *reinterpret_cast<const Hook* const*>(&service);
  for (std::size_t hook = 0; hook < 8; ++hook) {
    // What a hook does not take is left in a register.
    table[kDestructorSlots + hook](&service, 128);
  }
  EXPECT_THAT(m_journal.Calls(), ElementsAre("Run", "OnInit", "OnStop", "OnInterrogate", "OnPause",
                                             "OnContinue", "OnShutdown", "OnUserControl(128)"));
}

class EventSources : public NTService {
 protected:
  CallPatch<struct DeregisterTag, BOOL(HANDLE)> m_deregister{
      "ADVAPI32.dll", "DeregisterEventSource", [this](HANDLE source) {
        m_journal.Call("DeregisterEventSource(" + Hex(reinterpret_cast<ULONG_PTR>(source)) + ")");
        return TRUE;
      }};
};

TEST_F(EventSources, DestructorLeavesAMissingEventSourceAlone) {
  { const JournalService service(m_journal, "Sample"); }
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(Line("~CNTService", "Entry"), Line("~CNTService", "Exit")));
}

TEST_F(EventSources, DestructorDeregistersTheEventSource) {
  {
    JournalService service(m_journal, "Sample");
    service.m_hEventLogSource = reinterpret_cast<HANDLE>(ULONG_PTR{0x4711});
  }
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(Line("~CNTService", "Entry"), "DeregisterEventSource(0x4711)",
                          Line("~CNTService", "Exit")));
}

TEST_F(NTService, DestructorIsVirtual) {
  class Derived : public JournalService {
   public:
    explicit Derived(Journal& journal) : JournalService(journal, "Sample"), m_own(journal) {}
    ~Derived() override { m_own.Call("~Derived"); }

   private:
    Journal& m_own;
  };
  std::unique_ptr<CNTService> service = std::make_unique<Derived>(m_journal);
  service.reset();
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre("~Derived", Line("~CNTService", "Entry"), Line("~CNTService", "Exit")));
}

TEST_F(NTService, CallbacksReachTheObjectThatWasConstructedLast) {
  JournalService first(m_journal, "First");
  JournalService second(m_journal, "Second");
  first.m_hServiceStatus = kStatusHandle;
  second.m_hServiceStatus = kStatusHandle;
  ExposedService::Handler(SERVICE_CONTROL_USER_STOP);
  EXPECT_FALSE(first.m_bNotifyServer);
  EXPECT_TRUE(second.m_bNotifyServer);
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Calls(),
              ::testing::Contains("RegisterServiceCtrlHandlerA(\"Second\", Handler)"));
}

// ---- Default hooks ----

TEST_F(NTService, DefaultHooksOnlyWriteTheirLines) {
  ExposedService service("Sample");
  m_journal.Clear();
  service.Run();
  EXPECT_TRUE(service.OnInit());
  service.OnStop();
  service.OnInterrogate();
  service.OnPause();
  service.OnContinue();
  service.OnShutdown();
  EXPECT_FALSE(service.OnUserControl(128));
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(Line("Run", "Entry"), Line("Run", "Exit"), Line("OnInit", "Entry"),
                          Line("OnInit", "Exit"), Line("OnStop", "Entry"), Line("OnStop", "Exit"),
                          Line("OnInterrogate", "Entry"), Line("OnInterrogate", "Exit"),
                          Line("OnPause", "Entry"), Line("OnPause", "Exit"),
                          Line("OnContinue", "Entry"), Line("OnContinue", "Exit"),
                          Line("OnShutdown", "Entry"), Line("OnShutdown", "Exit"),
                          Line("OnUserControl", "Entry"), Line("OnUserControl", "Exit")));
}

TEST_F(NTService, WithTheDefaultRunTheServiceReportsRunningAndThenStoppedAtOnce) {
  const ExposedService service("Sample");
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 1U));
}

// ---- StartService ----

class Dispatcher : public NTService {
 protected:
  BOOL m_result = TRUE;

  CallPatch<struct DispatcherTag, BOOL(const SERVICE_TABLE_ENTRYA*)> m_dispatcher{
      "ADVAPI32.dll", "StartServiceCtrlDispatcherA", [this](const SERVICE_TABLE_ENTRYA* table) {
        const bool ends = table[1].lpServiceName == nullptr && table[1].lpServiceProc == nullptr;
        m_journal.Call(
            "StartServiceCtrlDispatcherA(" + Quoted(table[0].lpServiceName) + ", " +
            (table[0].lpServiceProc == &ExposedService::ServiceMain ? "ServiceMain" : "another") +
            (ends ? ", end)" : ", more)"));
        SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
        return m_result;
      }};
};

TEST_F(Dispatcher, GetsTheNameAndTheEntryPoint) {
  JournalService service(m_journal, "Sample");
  EXPECT_TRUE(service.StartService());
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(Line("StartService", "Entry"),
                          Line("StartService", "Before calling StartServiceCtrlDispatcher"),
                          "StartServiceCtrlDispatcherA(\"Sample\", ServiceMain, end)",
                          Line("StartService", "After calling StartServiceCtrlDispatcher"),
                          Line("StartService", "Exit")));
}

TEST_F(Dispatcher, FailureIsReturnedAndWritesNoLineOfItsOwn) {
  JournalService service(m_journal, "Sample");
  m_result = FALSE;
  EXPECT_FALSE(service.StartService());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FAILED_SERVICE_CONTROLLER_CONNECT});
  EXPECT_THAT(m_journal.Traces(),
              ElementsAre(Line("StartService", "Entry"),
                          Line("StartService", "Before calling StartServiceCtrlDispatcher"),
                          Line("StartService", "After calling StartServiceCtrlDispatcher"),
                          Line("StartService", "Exit")));
}

// ---- ServiceMain and Initialize ----

TEST_F(NTService, ServiceMainRunsTheServiceFromStartPendingToStopped) {
  JournalService service(m_journal, "Sample");
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(Joined({{Line("ServiceMain", "Entry"),
                                        "RegisterServiceCtrlHandlerA(\"Sample\", Handler)",
                                        Line("Initialize", "Entry")},
                                       SetStatusSteps(2, Report(2)),
                                       {"OnInit"},
                                       SetStatusSteps(4, Report(4, kRubbishError)),
                                       {Line("Initialize", "Exit"), "Run"},
                                       SetStatusSteps(1, Report(1)),
                                       {Line("ServiceMain", "Exit")}})));
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
      ElementsAre(Line("ServiceMain", "Entry"), "RegisterServiceCtrlHandlerA(\"Sample\", Handler)",
                  Line("ServiceMain", "pService->m_hServiceStatus == NULL", 1)));
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
              ElementsAreArray(Joined({{Line("Initialize", "Entry")},
                                       SetStatusSteps(2, Report(2, 0, 3, 1000)),
                                       {"OnInit"},
                                       SetStatusSteps(4, Report(4, 2)),
                                       {Line("Initialize", "Exit")}})));
}

TEST_F(NTService, OnInitReturningFalseWithTheLastErrorFiveEndsTheServiceWithExitCodeFive) {
  JournalService service(m_journal, "Sample");
  service.init = [] {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  };
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(Joined({{Line("ServiceMain", "Entry"),
                                        "RegisterServiceCtrlHandlerA(\"Sample\", Handler)",
                                        Line("Initialize", "Entry")},
                                       SetStatusSteps(2, Report(2)),
                                       {"OnInit"},
                                       SetStatusSteps(1, Report(1, 5)),
                                       SetStatusSteps(1, Report(1, 5)),
                                       {Line("ServiceMain", "Exit")}})));
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
              ElementsAreArray(Joined({{Line("Handler", "Entry")},
                                       SetStatusSteps(3, Report(3)),
                                       {"OnStop", Report(3), Line("Handler", "Exit")}})));
  EXPECT_EQ(m_service.m_bRunning, FALSE);
  EXPECT_FALSE(m_service.m_bNotifyServer);
}

TEST_F(Handler, ControlCode140NotifiesTheServerAndStopsLikeCodeOne) {
  m_service.stop = [&] { EXPECT_TRUE(m_service.m_bNotifyServer); };
  ExposedService::Handler(140);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(
                  Joined({{Line("Handler", "Entry"), Line("Handler", "Got user stop notification")},
                          SetStatusSteps(3, Report(3)),
                          {"OnStop", Report(3), Line("Handler", "Exit")}})));
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

struct ControlCase {
  DWORD control;
  const char* hook;  // null: none

  friend std::ostream& operator<<(std::ostream& out, const ControlCase& test) {
    return out << test.control;
  }
};

class HandlerControl : public Handler, public ::testing::WithParamInterface<ControlCase> {};

TEST_P(HandlerControl, CallsItsHookAndReportsTheStatus) {
  ExposedService::Handler(GetParam().control);
  std::vector<std::string> expected = {Line("Handler", "Entry")};
  if (GetParam().hook != nullptr) {
    expected.push_back(GetParam().hook);
  }
  expected.insert(expected.end(), {Report(4), Line("Handler", "Exit")});
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
              ElementsAre(Line("Handler", "Entry"), Line("Handler", "Got user stop notification"),
                          "m_bNotifyServer = 1", Line("SetStatus", "Entry")));
}

TEST_F(NTService, PauseAndContinueAreNotAmongTheAcceptedControls) {
  const ExposedService service("Sample");
  EXPECT_EQ(service.m_ServiceStatus.dwControlsAccepted & DWORD{SERVICE_ACCEPT_PAUSE_CONTINUE}, 0U);
}

// ---- SetStatus and DebugMsg ----

TEST_F(NTService, SetStatusLeavesCheckPointWaitHintAndExitCodeAlone) {
  JournalService service(m_journal, "Sample");
  service.m_hServiceStatus = kStatusHandle;
  service.m_ServiceStatus.dwCheckPoint = 4;
  service.m_ServiceStatus.dwWaitHint = 2500;
  service.m_ServiceStatus.dwWin32ExitCode = 9;
  service.SetStatus(SERVICE_PAUSED);
  EXPECT_THAT(m_journal.Entries(), ElementsAreArray(SetStatusSteps(7, Report(7, 9, 4, 2500))));
  EXPECT_EQ(service.m_ServiceStatus.dwCurrentState, 7U);
}

TEST_F(NTService, SetStatusPrintsOnlyTheLower32BitsOfTheHandle) {
  JournalService service(m_journal, "Sample");
  service.m_hServiceStatus = reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{0xABCD'FFFF'FFFF});
  service.SetStatus(4);
  EXPECT_THAT(m_journal.Calls(), ::testing::Contains("OutputDebugStringA([Sample](" +
                                                     std::to_string(GetCurrentThreadId()) +
                                                     "): CNTService::SetStatus(4294967295, 4)\n)"));
}

class DebugMessage : public NTService {
 protected:
  const std::string m_prefix = "[Sample](" + std::to_string(GetCurrentThreadId()) + "): ";
  JournalService m_service{m_journal, "Sample"};

  std::string Sent() const {
    const std::vector<std::string> calls = m_journal.Calls();
    return calls.size() == 1 ? calls.front() : std::to_string(calls.size()) + " calls";
  }
};

TEST_F(DebugMessage, CarriesPrefixTextAndLineFeed) {
  m_service.DebugMsg("%s is at %d%%, %lu", "work", -5, 4000000000UL);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(Line("DebugMsg", "Entry"),
                          "OutputDebugStringA(" + m_prefix + "work is at -5%, 4000000000\n)",
                          Line("DebugMsg", "Exit")));
}

TEST_F(DebugMessage, PercentSignsInTheServiceNameStandForThemselves) {
  JournalService service(m_journal, "50%s");
  service.DebugMsg("text");
  EXPECT_EQ(Sent(),
            "OutputDebugStringA([50%s](" + std::to_string(GetCurrentThreadId()) + "): text\n)");
}

TEST_F(DebugMessage, IsNotCutWhileItFits) {
  const std::string text(1022 - m_prefix.size(), 'x');
  m_service.DebugMsg("%s", text.c_str());
  EXPECT_EQ(Sent(), "OutputDebugStringA(" + m_prefix + text + "\n)");
}

TEST_F(DebugMessage, IsCutAt1023CharactersAndKeepsItsLineFeed) {
  m_service.DebugMsg("%s", std::string(1023 - m_prefix.size(), 'x').c_str());
  EXPECT_EQ(Sent(),
            "OutputDebugStringA(" + m_prefix + std::string(1022 - m_prefix.size(), 'x') + "\n)");
}

TEST_F(DebugMessage, FarTooLongIsCutAsWell) {
  m_service.DebugMsg("<%s>", std::string(5000, 'x').c_str());
  EXPECT_EQ(Sent(), "OutputDebugStringA(" + m_prefix + "<" +
                        std::string(1021 - m_prefix.size(), 'x') + "\n)");
}

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
  EXPECT_THAT(
      Entries(SERVICE_CONTROL_STOP),
      ElementsAreArray(Joined(
          {{Line("Handler", "Entry")}, Unreported(3), {"OnStop", Line("Handler", "Exit")}})));
  EXPECT_EQ(m_service.m_bRunning, FALSE);
  EXPECT_FALSE(m_service.m_bNotifyServer);
}

TEST_F(WhileEnding, AUserStopLeavesItsLineAndItsFlag) {
  EXPECT_THAT(Entries(140),
              ElementsAreArray(
                  Joined({{Line("Handler", "Entry"), Line("Handler", "Got user stop notification")},
                          Unreported(3),
                          {"OnStop", Line("Handler", "Exit")}})));
  EXPECT_EQ(m_service.m_bRunning, FALSE);
  EXPECT_TRUE(m_service.m_bNotifyServer);
}

class ControlWhileEnding : public WhileEnding, public ::testing::WithParamInterface<ControlCase> {};

TEST_P(ControlWhileEnding, CallsItsHook) {
  std::vector<std::string> expected = {Line("Handler", "Entry")};
  if (GetParam().hook != nullptr) {
    expected.push_back(GetParam().hook);
  }
  expected.push_back(Line("Handler", "Exit"));
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
              ElementsAre(Report(1), Line("SetStatus", "Exit"), Line("ServiceMain", "Exit")));
  EXPECT_FALSE(IsTouched());
}

TEST_F(AfterStopped, OfAFailedInitialisationTheSecondReportNeedsNoObject) {
  m_service->init = [] {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  };
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAreArray(Joined({{Report(1, 5), Line("SetStatus", "Exit")},
                                       SetStatusSteps(1, Report(1, 5)),
                                       {Line("ServiceMain", "Exit")}})));
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
             entry != Line("ServiceMain", "Exit") && entry != Line("Handler", "Exit");
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
              ElementsAre(Line("StartService", "Entry"),
                          Line("StartService", "Before calling StartServiceCtrlDispatcher"),
                          Line("StartService", "After calling StartServiceCtrlDispatcher"),
                          Line("ServiceMain", "Exit"), Line("StartService", "Exit"), "returned"));
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
      ElementsAre(Line("StartService", "Entry"),
                  Line("StartService", "Before calling StartServiceCtrlDispatcher"), ::testing::_,
                  ::testing::_, Line("Handler", "Exit"), Line("StartService", "Exit"), "returned"));
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
              ElementsAre(Line("StartService", "Entry"),
                          Line("StartService", "Before calling StartServiceCtrlDispatcher"),
                          Line("StartService", "After calling StartServiceCtrlDispatcher"),
                          Line("StartService", "ServiceMain or Handler does not return", 1),
                          Line("StartService", "Exit"), "returned", Line("ServiceMain", "Exit")));
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
              ElementsAre(Line("StartService", "Entry"),
                          Line("StartService", "Before calling StartServiceCtrlDispatcher"),
                          Line("StartService", "After calling StartServiceCtrlDispatcher"),
                          Line("StartService", "Exit"), "returned"));
}

}  // namespace
