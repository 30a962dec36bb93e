#include "tools/vorlsetup/agentservice.h"

#include <vector>

#include "support/handle.h"
#include "tools/vorlsetup/security.h"

namespace {

constexpr wchar_t kServiceName[] = L"Client Agent " VORL_MAJOR_VERSION;
constexpr wchar_t kEventSourceKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Client Agent " VORL_MAJOR_VERSION;
constexpr wchar_t kProgram[] = L"\\vorlsrvc.exe";

// Windows' management service, from which the first start takes what the identifier is made of.
constexpr wchar_t kManagementService[] = L"Winmgmt";

// The program's own control: a stop that the server is told of.
constexpr DWORD kManualStop = 140;

// The first command also makes the machine's identifier, for which WMI takes its time.
constexpr DWORD kInstallLimitMs = 180'000;
constexpr DWORD kCommandLimitMs = 30'000;
constexpr DWORD kStopLimitMs = 60'000;

// A service that cannot read its options or load its core has ended by then.
constexpr DWORD kStaysUpMs = 3'000;

ServiceHandle OpenManager() {
  return ServiceHandle(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
}

ServiceHandle OpenAgent(DWORD rights) {
  const ServiceHandle manager = OpenManager();
  return ServiceHandle(manager ? OpenServiceW(manager.Get(), kServiceName, rights) : nullptr);
}

// Runs `vorlsrvc.exe WORD` and waits for its end; false when it cannot be run, or not to its end.
bool RunCommand(const std::wstring& programFolder, const wchar_t* word, DWORD limitMs,
                const SetupLog& log) {
  const std::wstring program = programFolder + kProgram;
  std::wstring command = L"\"" + program + L"\" " + word;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                      nullptr, programFolder.c_str(), &startup, &started)) {
    log.Info(command + L" cannot be run, error " + std::to_wstring(GetLastError()));
    return false;
  }
  const KernelHandle process(started.hProcess);
  const KernelHandle thread(started.hThread);
  if (WaitForSingleObject(process.Get(), limitMs) != WAIT_OBJECT_0) {
    TerminateProcess(process.Get(), ERROR_TIMEOUT);
    log.Info(command + L" did not come to an end and was ended");
    return false;
  }
  log.Info(command + L" has run");
  return true;
}

bool HasEnded(const KernelHandle& process, DWORD limitMs) {
  return !process || WaitForSingleObject(process.Get(), limitMs) == WAIT_OBJECT_0;
}

bool CanStartAfterManagementService() {
  const ServiceHandle manager = OpenManager();
  const ServiceHandle service(
      manager ? OpenServiceW(manager.Get(), kManagementService, SERVICE_QUERY_CONFIG) : nullptr);
  if (!service) {
    return false;
  }
  DWORD size = 0;
  QueryServiceConfigW(service.Get(), nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  return QueryServiceConfigW(service.Get(), config, size, &size) &&
         config->dwStartType != SERVICE_DISABLED;
}

bool ConfigureService(const SetupLog& log) {
  const ServiceHandle service = OpenAgent(SERVICE_CHANGE_CONFIG | WRITE_DAC | READ_CONTROL);
  const LocalMemory rights = MakeDescriptor(kServiceRights);
  if (!service || !rights ||
      !SetServiceObjectSecurity(service.Get(), DACL_SECURITY_INFORMATION, rights.Get())) {
    log.Error(std::wstring(L"The rights of service ") + kServiceName + L" cannot be set",
              GetLastError());
    return false;
  }
  // Where WMI is switched off the agent starts all the same, without an identifier.
  const wchar_t* const dependencies = CanStartAfterManagementService() ? L"Winmgmt\0" : L"\0";
  if (!ChangeServiceConfigW(service.Get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                            /*lpBinaryPathName=*/nullptr, /*lpLoadOrderGroup=*/nullptr,
                            /*lpdwTagId=*/nullptr, dependencies, /*lpServiceStartName=*/nullptr,
                            /*lpPassword=*/nullptr, /*lpDisplayName=*/nullptr)) {
    log.Error(std::wstring(L"The start of service ") + kServiceName + L" cannot be ordered",
              GetLastError());
    return false;
  }
  return true;
}

}  // namespace

ServiceState ReadServiceState() {
  ServiceState state;
  const ServiceHandle service = OpenAgent(SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS);
  if (!service) {
    return state;
  }
  state.isRegistered = true;
  DWORD size = 0;
  QueryServiceConfigW(service.Get(), nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (QueryServiceConfigW(service.Get(), config, size, &size)) {
    state.command = config->lpBinaryPathName;
    state.isDisabled = config->dwStartType == SERVICE_DISABLED;
  }
  SERVICE_STATUS_PROCESS status{};
  if (QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                           sizeof status, &size)) {
    state.isRunning = status.dwCurrentState != SERVICE_STOPPED;
    state.processId = state.isRunning ? status.dwProcessId : 0;
  }
  return state;
}

bool IsServiceOf(const std::wstring& programFolder, const ServiceState& state) {
  std::wstring command = state.command;
  if (command.size() >= 2 && command.front() == L'"' && command.back() == L'"') {
    command = command.substr(1, command.size() - 2);
  }
  return CompareStringOrdinal(command.c_str(), -1, (programFolder + kProgram).c_str(), -1, TRUE) ==
         CSTR_EQUAL;
}

bool StopAgentService(const std::wstring& programFolder, bool isRemoved, const SetupLog& log) {
  const ServiceState state = ReadServiceState();
  if (!state.isRunning) {
    return true;
  }
  const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, state.processId));
  RunCommand(programFolder, isRemoved ? L"-stopmanual" : L"-stop", kCommandLimitMs, log);
  if (ReadServiceState().isRunning) {
    const ServiceHandle service = OpenAgent(SERVICE_STOP | SERVICE_USER_DEFINED_CONTROL);
    SERVICE_STATUS status;
    if (!service ||
        !ControlService(service.Get(), isRemoved ? kManualStop : SERVICE_CONTROL_STOP, &status)) {
      log.Info(L"The stop control is not taken, error " + std::to_wstring(GetLastError()));
    }
  }
  // Its files can be replaced only when the process is gone.
  if (!HasEnded(process, kStopLimitMs) || ReadServiceState().isRunning) {
    log.Error(std::wstring(L"Service ") + kServiceName +
              L" does not stop. End its process and try again");
    return false;
  }
  return true;
}

bool RegisterAgentService(const std::wstring& programFolder, const SetupLog& log) {
  if (!ReadServiceState().isRegistered) {
    RunCommand(programFolder, L"-install", kInstallLimitMs, log);
  }
  const ServiceState state = ReadServiceState();
  if (!state.isRegistered || !IsServiceOf(programFolder, state)) {
    log.Error(std::wstring(L"Service ") + kServiceName +
              L" is not registered for this folder; the trace in its folder logs says why");
    return false;
  }
  RegistryKey source;
  const LSTATUS error =
      RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEventSourceKey, 0, KEY_QUERY_VALUE, source.Receive());
  if (error != ERROR_SUCCESS) {
    log.Error(std::wstring(L"Event source ") + kServiceName + L" is not registered",
              static_cast<DWORD>(error));
    return false;
  }
  return ConfigureService(log);
}

bool UnregisterAgentService(const std::wstring& programFolder, const SetupLog& log) {
  if (ReadServiceState().isRegistered) {
    RunCommand(programFolder, L"-uninstall", kCommandLimitMs, log);
    const ServiceHandle service = OpenAgent(DELETE);
    if (service && !DeleteService(service.Get()) &&
        GetLastError() != ERROR_SERVICE_MARKED_FOR_DELETE) {
      log.Error(std::wstring(L"Service ") + kServiceName + L" cannot be removed", GetLastError());
      return false;
    }
  }
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, kEventSourceKey);
  return true;
}

bool StartAgentService(const std::wstring& programFolder, const SetupLog& log) {
  if (ReadServiceState().isDisabled) {
    log.Info(std::wstring(L"Service ") + kServiceName + L" is disabled and is left so");
    return true;
  }
  RunCommand(programFolder, L"-start", kCommandLimitMs, log);
  const ServiceState state = ReadServiceState();
  const KernelHandle process(state.isRunning ? OpenProcess(SYNCHRONIZE, FALSE, state.processId)
                                             : nullptr);
  if (!process || HasEnded(process, kStaysUpMs)) {
    log.Error(std::wstring(L"Service ") + kServiceName +
              L" does not start, or not for long; the trace in the folder logs says why");
    return false;
  }
  return true;
}
