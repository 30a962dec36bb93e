#include "service/vorlfun.h"

#include <algorithm>
#include <iterator>

#include "service/ntservc.h"
#include "service/registration.h"
#include "support/handle.h"
#include "support/trace.h"

namespace {

constexpr DWORD kShortestStartWaitMilliseconds = 1000;
constexpr DWORD kLongestStartWaitMilliseconds = 10000;
constexpr DWORD kStopPollMilliseconds = 50;

constexpr DWORD kFailureCountResetSeconds = 3600;
constexpr unsigned kRecoveryCommandSize = 260;

// Polls the status as long as the start is pending and makes progress within its own wait hints.
void WaitWhileStartPending(SC_HANDLE service, SERVICE_STATUS& status) {
  DWORD progressTick = GetTickCount();
  DWORD checkPoint = status.dwCheckPoint;
  while (status.dwCurrentState == SERVICE_START_PENDING) {
    Sleep(std::clamp(status.dwWaitHint / 10, kShortestStartWaitMilliseconds,
                     kLongestStartWaitMilliseconds));
    if (!QueryServiceStatus(service, &status)) {
      break;
    }
    if (status.dwCheckPoint > checkPoint) {
      checkPoint = status.dwCheckPoint;
      progressTick = GetTickCount();
    } else if (GetTickCount() - progressTick > status.dwWaitHint) {
      break;
    }
  }
}

BOOL StopServiceWithControl(const char* serviceName, DWORD control, const Trace& trace) {
  trace.Info("Entry");
  if (serviceName == nullptr) {
    trace.Error("NULL Parameter Received");
    return FALSE;
  }

  trace.Info("before calling OpenSCManager");
  ServiceHandle manager = OpenManager();
  if (!manager) {
    trace.Error("OpenSCManager Failed (%u)", GetLastError());
    return FALSE;
  }
  trace.Info("After calling OpenSCManager");

  trace.Info("before calling OpenService");
  ServiceHandle service(OpenServiceA(manager.Get(), serviceName, SERVICE_ALL_ACCESS));
  if (!service) {
    trace.Error("OpenService Failed (%u)", GetLastError());
    return FALSE;
  }
  trace.Info("After calling OpenService");

  SERVICE_STATUS status{};
  trace.Info("Before calling ControlService To stop");
  if (!ControlService(service.Get(), control, &status)) {
    trace.Error("ControlService Failed (%u)", GetLastError());
    return FALSE;
  }
  trace.Info("After calling ControlService To stop");

  trace.Info("Before calling QueryServiceStatus");
  if (!QueryServiceStatus(service.Get(), &status)) {
    trace.Error("QueryServiceStatus Failed (%u)", GetLastError());
    return FALSE;
  }
  trace.Info("After calling QueryServiceStatus");

  while (status.dwCurrentState == SERVICE_STOP_PENDING) {
    Sleep(kStopPollMilliseconds);
    if (!QueryServiceStatus(service.Get(), &status)) {
      trace.Error("QueryServiceStatus 1 Failed (%u)", GetLastError());
      break;
    }
  }

  trace.Info("Value is : %u ", status.dwCurrentState);
  service.Reset();
  manager.Reset();
  if (status.dwCurrentState != SERVICE_STOPPED) {
    trace.Info("Unable to stop service");
    return FALSE;
  }
  trace.Info("Service stoped successfully");
  trace.Info("Exit");
  return TRUE;
}

}  // namespace

BOOL StartServiceByName(const char* serviceName) {
  constexpr Trace trace{"StartServiceByName"};
  trace.Info("Entry");
  if (serviceName == nullptr) {
    trace.Error("NULL Parameter received");
    return FALSE;
  }

  ServiceHandle manager = OpenManager();
  if (!manager) {
    trace.Error("OpenSCManager Failed (%u)", GetLastError());
    return FALSE;
  }
  ServiceHandle service(
      OpenServiceA(manager.Get(), serviceName, SERVICE_START | SERVICE_QUERY_STATUS));
  if (!service) {
    trace.Error("OpenService Failed (%u)", GetLastError());
    return FALSE;
  }
  if (!StartServiceA(service.Get(), /*dwNumServiceArgs=*/0, /*lpServiceArgVectors=*/nullptr)) {
    trace.Error("StartService Failed (%u)", GetLastError());
    return FALSE;
  }

  SERVICE_STATUS status{};
  if (!QueryServiceStatus(service.Get(), &status)) {
    trace.Error("QueryServiceStatus Failed (%u)", GetLastError());
    return FALSE;
  }
  WaitWhileStartPending(service.Get(), status);
  service.Reset();
  manager.Reset();

  if (status.dwCurrentState != SERVICE_RUNNING) {
    return FALSE;
  }
  trace.Info("Service Started Successfully");
  trace.Info("Exit");
  return TRUE;
}

BOOL StopServiceByName(const char* serviceName) {
  constexpr Trace trace{"StopServiceByName"};
  return StopServiceWithControl(serviceName, SERVICE_CONTROL_STOP, trace);
}

BOOL StopServiceByNameEx(const char* serviceName) {
  constexpr Trace trace{"StopServiceByNameEx"};
  return StopServiceWithControl(serviceName, SERVICE_CONTROL_USER_STOP, trace);
}

bool ConfigureServiceRecoveryOptionsW(SC_HANDLE service, const wchar_t* commandPath,
                                      SC_ACTION_TYPE action1, SC_ACTION_TYPE action2,
                                      SC_ACTION_TYPE action3) {
  constexpr Trace trace{"ConfigureServiceRecoveryOptionsW"};
  trace.Info("Entry");

  SC_ACTION actions[] = {{action1, /*Delay=*/0}, {action2, /*Delay=*/0}, {action3, /*Delay=*/0}};
  SERVICE_FAILURE_ACTIONSW failureActions{};
  failureActions.dwResetPeriod = kFailureCountResetSeconds;
  failureActions.cActions = static_cast<DWORD>(std::size(actions));
  failureActions.lpsaActions = actions;

  // All three failures are known to support engineers by this one line.
  if (service == nullptr || commandPath == nullptr) {
    trace.Info("Invalid Service handle.");
    return false;
  }

  wchar_t wszCommand[kRecoveryCommandSize];
  const bool runsCommand =
      std::any_of(std::begin(actions), std::end(actions),
                  [](const SC_ACTION& action) { return action.Type == SC_ACTION_RUN_COMMAND; });
  if (runsCommand) {
    if (FAILED(
            StringCchPrintfW(wszCommand, kRecoveryCommandSize, L"%s %s", commandPath, L"-reset"))) {
      trace.Info("Invalid Service handle.");
      return false;
    }
    failureActions.lpCommand = wszCommand;
  }

  if (!ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failureActions)) {
    trace.Info("Invalid Service handle.");
    return false;
  }
  trace.Info("Exit");
  return true;
}
