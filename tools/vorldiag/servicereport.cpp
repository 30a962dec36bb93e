#include "tools/vorldiag/servicereport.h"

#include <cstdio>
#include <string>
#include <vector>

#include "support/handle.h"
#include "support/vorlinfo.h"
#include "support/windows_api.h"

namespace {

constexpr DWORD kNameCapacity = 100;
constexpr DWORD kLongestValue = 1024;

const wchar_t* OrNone(const wchar_t* text) {
  return text != nullptr && *text != L'\0' ? text : L"(none)";
}

const char* StartTypeWord(DWORD startType) {
  switch (startType) {
    case SERVICE_AUTO_START:
      return "automatic";
    case SERVICE_DEMAND_START:
      return "manual";
    case SERVICE_DISABLED:
      return "disabled";
    default:
      return "other";
  }
}

const char* StateWord(DWORD state) {
  switch (state) {
    case SERVICE_STOPPED:
      return "STOPPED";
    case SERVICE_START_PENDING:
      return "START_PENDING";
    case SERVICE_STOP_PENDING:
      return "STOP_PENDING";
    case SERVICE_RUNNING:
      return "RUNNING";
    default:
      return "OTHER";
  }
}

const char* ActionWord(SC_ACTION_TYPE action) {
  switch (action) {
    case SC_ACTION_NONE:
      return "nothing";
    case SC_ACTION_RESTART:
      return "restart";
    case SC_ACTION_REBOOT:
      return "reboot";
    case SC_ACTION_RUN_COMMAND:
      return "run the command";
    default:
      return "other";
  }
}

bool PrintRegistration(SC_HANDLE service) {
  DWORD size = 0;
  QueryServiceConfigW(service, nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (size == 0 || !QueryServiceConfigW(service, config, size, &size)) {
    std::printf("The registration cannot be read (error %lu).\n", GetLastError());
    return false;
  }
  std::printf("Display name       %ls\n", OrNone(config->lpDisplayName));
  std::printf("Command            %ls\n", OrNone(config->lpBinaryPathName));
  std::printf("Account            %ls\n", OrNone(config->lpServiceStartName));
  std::printf("Type               0x%lX\n", config->dwServiceType);
  std::printf("Start              %s\n", StartTypeWord(config->dwStartType));
  return true;
}

void PrintRecovery(SC_HANDLE service) {
  DWORD size = 0;
  QueryServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  auto* const actions = reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer.data());
  if (size < sizeof(*actions) ||
      !QueryServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(), size, &size)) {
    std::puts("Recovery           cannot be read");
    return;
  }
  if (actions->cActions == 0) {
    std::puts("Recovery           none stored");
    return;
  }
  for (DWORD i = 0; i < actions->cActions; ++i) {
    std::printf("Recovery %lu         %s\n", i + 1, ActionWord(actions->lpsaActions[i].Type));
  }
  std::printf("Recovery command   %ls\n", OrNone(actions->lpCommand));
  std::printf("Failures reset     after %lu s\n", actions->dwResetPeriod);
}

void PrintEventSource(const char* serviceName) {
  const std::string path =
      R"(SYSTEM\CurrentControlSet\Services\EventLog\Application\)" + std::string(serviceName);
  wchar_t messageFile[kLongestValue] = {};
  DWORD size = sizeof(messageFile);
  const std::wstring widePath(path.begin(), path.end());
  const LSTATUS result =
      RegGetValueW(HKEY_LOCAL_MACHINE, widePath.c_str(), L"EventMessageFile",
                   RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, messageFile, &size);
  std::printf("Event source       %ls\n",
              result == ERROR_SUCCESS ? messageFile : L"not registered");
}

bool PrintState(SC_HANDLE service) {
  SERVICE_STATUS_PROCESS status{};
  DWORD size = 0;
  if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                            sizeof(status), &size)) {
    std::printf("The state cannot be read (error %lu).\n", GetLastError());
    return false;
  }
  std::printf("State              %s\n", StateWord(status.dwCurrentState));
  std::printf("Process            %lu\n", status.dwProcessId);
  std::printf("Exit code          %lu\n", status.dwWin32ExitCode);
  return true;
}

}  // namespace

bool ReportService() {
  char name[kNameCapacity] = {};
  if (GetServiceNameByVersion("Client Agent", name, kNameCapacity) == 0) {
    std::puts("The version-information library gives no service name.");
    return false;
  }
  std::printf("Service            %s\n", name);

  const ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  const ServiceHandle service(
      manager ? OpenServiceA(manager.Get(), name, SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS)
              : nullptr);
  if (!service) {
    std::printf("It cannot be opened (error %lu).\n", GetLastError());
    return false;
  }
  if (!PrintRegistration(service.Get())) {
    return false;
  }
  PrintRecovery(service.Get());
  PrintEventSource(name);
  return PrintState(service.Get());
}
