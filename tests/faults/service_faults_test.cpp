// Every call that fails in the operations of service/.
#include <gmock/gmock.h>

#include <optional>
#include <string>

#include "service/helperpipe.h"
#include "service/ntservc.h"
#include "service/vorlfun.h"
#include "tests/support/console_capture.h"
#include "tests/support/fake_helper_pipe.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/journal.h"

namespace {

constexpr char kName[] = "Sample";

// Everything outside that an operation of service/ meets.
struct Surroundings {
  Surroundings() = default;

  // The calls that change the machine and are stated to have been made, or not.
  bool Has(const std::string& beginning) const {
    for (const std::string& call : journal.Calls()) {
      if (call.starts_with(beginning)) {
        return true;
      }
    }
    return false;
  }

  Journal journal;
  TraceRecorder recorder;
  FakeServiceManager manager{journal};
  FakeHelperPipe helper{journal};
};

class Service : public CNTService {
 public:
  using CNTService::CNTService;

  using CNTService::Handler;
  using CNTService::m_ServiceStatus;
  using CNTService::ServiceMain;

 protected:
  BOOL OnInit() override {
    SetLastError(NO_ERROR);
    return TRUE;
  }
};

TEST(ServiceFaults, StartServiceByName) {
  SweepFaults("StartServiceByName", [](FaultRun& run) {
    Surroundings around;
    around.manager.AnswerStatus({{SERVICE_START_PENDING, 1, 1000}, {SERVICE_RUNNING}});
    BOOL result = FALSE;
    run.Call([&] { result = StartServiceByName(kName); });
    // A status that cannot be read while the start is pending leaves the state that was read last.
    EXPECT_EQ(result != FALSE, !run.IsFaulted() || run.IsFaultIn({"CloseServiceHandle"}));
    run.ExpectLines(around.recorder.Lines(), {{"OpenSCManagerA", "OpenSCManager Failed (%u)"},
                                              {"OpenServiceA", "OpenService Failed (%u)"},
                                              {"StartServiceA", "StartService Failed (%u)"}});
  });
}

TEST(ServiceFaults, StopServiceByName) {
  for (BOOL (*const stop)(const char*) : {&StopServiceByName, &StopServiceByNameEx}) {
    SweepFaults("StopServiceByName", [stop](FaultRun& run) {
      Surroundings around;
      around.manager.AnswerStatus({{SERVICE_STOP_PENDING}, {SERVICE_STOPPED}});
      BOOL result = FALSE;
      run.Call([&] { result = stop(kName); });
      EXPECT_EQ(result != FALSE, !run.IsFaulted() || run.IsFaultIn({"CloseServiceHandle"}));
      run.ExpectLines(
          around.recorder.Lines(),
          {{"OpenSCManagerA", "OpenSCManager Failed (%u)"},
           {"OpenServiceA", "OpenService Failed (%u)"},
           {"ControlService", "ControlService Failed (%u)"},
           {"QueryServiceStatus", run.FaultNumber() == 1 ? "QueryServiceStatus Failed (%u)"
                                                         : "QueryServiceStatus 1 Failed (%u)"}});
    });
  }
}

TEST(ServiceFaults, ConfigureServiceRecoveryOptions) {
  SweepFaults("ConfigureServiceRecoveryOptionsW", [](FaultRun& run) {
    Surroundings around;
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    bool result = false;
    run.Call([&] {
      result = ConfigureServiceRecoveryOptionsW(manager, L"C:\\agent\\vorlsrvc.exe",
                                                SC_ACTION_RUN_COMMAND, SC_ACTION_RUN_COMMAND,
                                                SC_ACTION_NONE);
    });
    EXPECT_EQ(result, !run.IsFaulted());
    run.ExpectLines(around.recorder.Lines(),
                    {{"ChangeServiceConfig2W", "Invalid Service handle."}});
  });
}

TEST(ServiceFaults, IsInstalled) {
  SweepFaults("CNTService::IsInstalled", [](FaultRun& run) {
    Surroundings around;
    Service service(kName);
    BOOL result = FALSE;
    run.Call([&] { result = service.IsInstalled(); });
    EXPECT_EQ(result != FALSE, !run.IsFaulted() || run.IsFaultIn({"CloseServiceHandle"}));
    run.ExpectLines(around.recorder.Lines(),
                    {{"OpenSCManagerA", "Unable to open service Manager: %u"},
                     {"OpenServiceA", "Unable to open service : %u"}});
  });
}

TEST(ServiceFaults, Install) {
  SweepFaults("CNTService::Install", [](FaultRun& run) {
    Surroundings around;
    Service service(kName);
    BOOL result = FALSE;
    run.Call([&] { result = service.Install(); });
    EXPECT_EQ(result == FALSE, run.IsFaultIn({"OpenSCManagerA", "GetModuleFileNameW",
                                              "CreateServiceW", "RegCreateKeyA"}));
    // A name that cannot be converted goes to Windows as an empty one, which refuses it. Where the
    // flags are refused, as with UTF-8, it is converted without them.
    if (run.IsFaultIn({"MultiByteToWideChar"}) && run.FaultError() != ERROR_INVALID_FLAGS) {
      EXPECT_TRUE(around.Has("CreateServiceW(manager1, \"\", \"\""));
    }
    run.ExpectLines(around.recorder.Lines(),
                    {{"OpenSCManagerA", "Unable to open service Manager: %u"},
                     {"GetModuleFileNameW", "GetModuleFileName Failed %u"},
                     {"CreateServiceW", "CreateService Failed %u"},
                     {"ChangeServiceConfig2W", "Invalid Service handle."}});
  });
}

TEST(ServiceFaults, Uninstall) {
  SweepFaults("CNTService::Uninstall", [](FaultRun& run) {
    Surroundings around;
    Service service(kName);
    BOOL result = FALSE;
    run.Call([&] { result = service.Uninstall(); });
    EXPECT_EQ(result == FALSE, run.IsFaultIn({"OpenSCManagerA", "OpenServiceA", "DeleteService"}));
    run.ExpectLines(around.recorder.Lines(),
                    {{"OpenSCManagerA", "Unable to open service Manager: %u"}});
  });
}

TEST(ServiceFaults, Commands) {
  for (const char* const word :
       {"-install", "-start", "-stop", "-stopmanual", "-restart", "-uninstall"}) {
    for (const bool isInstalled : {true, false}) {
      SweepFaults(std::string("vorlsrvc ") + word + (isInstalled ? "" : ", not installed"),
                  [&](FaultRun& run) {
                    Surroundings around;
                    if (!isInstalled) {
                      around.manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
                    } else if (std::string(word).starts_with("-stop")) {
                      around.manager.AnswerStatus({{SERVICE_STOPPED}});
                    }
                    std::string name = "vorlsrvc.exe";
                    std::string option = word;
                    char* arguments[] = {name.data(), option.data(), nullptr};
                    Service service(kName);
                    BOOL result = FALSE;
                    {
                      const ConsoleCapture capture;
                      run.Call([&] { result = service.ParseStandardArgs(2, arguments); });
                    }
                    // A command is a command, whatever becomes of it.
                    EXPECT_TRUE(result);
                    EXPECT_EQ(service.ExitCode(), 0U);
                    run.ExpectLines(around.recorder.Lines());
                  });
    }
  }
}

TEST(ServiceFaults, NotifyHelperPipe) {
  SweepFaults("NotifyHelperPipe", [](FaultRun& run) {
    Surroundings around;
    std::uint32_t reply = 0;
    run.Call([&] { reply = NotifyHelperPipe(L"Client Agent 1", kHelperActionStopping, 0); });
    // Half of a reply is a reply.
    EXPECT_EQ(reply != 0, !run.IsFaulted() || run.IsFaultIn({"CloseHandle"}) ||
                              (run.IsFaultIn({"ReadFile"}) && run.IsLess()));
    EXPECT_TRUE(around.recorder.Lines().empty());
  });
}

// The service's thread and the control handler, without a service manager.
struct Reports {
  CallPatch<struct RegisterTag, decltype(RegisterServiceCtrlHandlerA)> registerHandler{
      "ADVAPI32.dll", "RegisterServiceCtrlHandlerA", [](LPCSTR, LPHANDLER_FUNCTION) {
        return reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{1});
      }};
  CallPatch<struct ReportTag, decltype(SetServiceStatus)> report{
      "ADVAPI32.dll", "SetServiceStatus", [this](SERVICE_STATUS_HANDLE, LPSERVICE_STATUS status) {
        last = status->dwCurrentState;
        return TRUE;
      }};
  DWORD last = 0;
};

TEST(ServiceFaults, ServiceMain) {
  SweepFaults("CNTService::ServiceMain", [](FaultRun& run) {
    Surroundings around;
    Reports reports;
    Service service(kName);
    run.Call([&] { Service::ServiceMain(0, nullptr); });
    EXPECT_EQ(service.m_ServiceStatus.dwCurrentState, run.IsFaultIn({"RegisterServiceCtrlHandlerA"})
                                                          ? SERVICE_START_PENDING
                                                          : SERVICE_STOPPED);
    run.ExpectLines(around.recorder.Lines(),
                    {{"RegisterServiceCtrlHandlerA", "pService->m_hServiceStatus == NULL"}});
  });
}

TEST(ServiceFaults, Handler) {
  for (const DWORD control :
       std::initializer_list<DWORD>{SERVICE_CONTROL_STOP, SERVICE_CONTROL_USER_STOP,
                                    SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_SHUTDOWN, 128}) {
    SweepFaults("CNTService::Handler " + std::to_string(control), [control](FaultRun& run) {
      Surroundings around;
      Reports reports;
      Service service(kName);
      run.Call([&] { Service::Handler(control); });
      run.ExpectLines(around.recorder.Lines());
    });
  }
}

}  // namespace
