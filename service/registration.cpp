#include "service/registration.h"

#include <cwchar>

#include "service/ntservc.h"
#include "support/textconv.h"

namespace {

constexpr unsigned kPathSize = kCommandPathSize - 2;

constexpr char kEventLogKey[] = R"(SYSTEM\CurrentControlSet\Services\EventLog\Application\)";
constexpr unsigned kEventLogKeySize = sizeof(kEventLogKey) + kServiceNameSize;

}  // namespace

ServiceHandle OpenManager() {
  return ServiceHandle(
      OpenSCManagerA(/*lpMachineName=*/nullptr, /*lpDatabaseName=*/nullptr, SC_MANAGER_ALL_ACCESS));
}

bool GetCommandPath(wchar_t (&commandPath)[kCommandPathSize]) {
  wchar_t wszModulePath[kPathSize] = {};
  const DWORD length = GetModuleFileNameW(/*hModule=*/nullptr, wszModulePath, kPathSize);
  if (length == 0 || length >= kPathSize) {
    return false;
  }
  // In quotes when it contains a blank: the service control manager would otherwise try the parts
  // in front of each blank as programs.
  const bool hasBlank = std::wcschr(wszModulePath, L' ') != nullptr;
  return SUCCEEDED(
      StringCchPrintfW(commandPath, kCommandPathSize, hasBlank ? L"\"%s\"" : L"%s", wszModulePath));
}

ServiceHandle CreateOwnService(SC_HANDLE manager, const char* serviceName,
                               const wchar_t* commandPath) {
  wchar_t wszServiceName[kWideServiceNameSize];
  // A name that cannot be converted is empty, which CreateService refuses.
  static_cast<void>(NarrowToWide(serviceName, wszServiceName, kWideServiceNameSize));
  return ServiceHandle(CreateServiceW(
      manager, wszServiceName, /*lpDisplayName=*/wszServiceName, SERVICE_ALL_ACCESS,
      SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS, SERVICE_AUTO_START,
      SERVICE_ERROR_NORMAL, commandPath, /*lpLoadOrderGroup=*/nullptr, /*lpdwTagId=*/nullptr,
      /*lpDependencies=*/nullptr, /*lpServiceStartName=*/nullptr, /*lpPassword=*/nullptr));
}

bool AddEventLogSource(const char* serviceName, const wchar_t* commandPath) {
  char szKeyPath[kEventLogKeySize];
  static_cast<void>(
      StringCchPrintfA(szKeyPath, kEventLogKeySize, "%s%s", kEventLogKey, serviceName));
  RegistryKey key;
  if (RegCreateKeyA(HKEY_LOCAL_MACHINE, szKeyPath, key.Receive()) != ERROR_SUCCESS) {
    return false;
  }
  const DWORD pathBytes = static_cast<DWORD>((std::wcslen(commandPath) + 1) * sizeof(wchar_t));
  const DWORD typesSupported =
      EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
  // The event log shows raw texts without these values; the service does not depend on them.
  static_cast<void>(RegSetValueExW(key.Get(), L"EventMessageFile", /*Reserved=*/0, REG_EXPAND_SZ,
                                   reinterpret_cast<const BYTE*>(commandPath), pathBytes));
  static_cast<void>(RegSetValueExA(key.Get(), "TypesSupported", /*Reserved=*/0, REG_DWORD,
                                   reinterpret_cast<const BYTE*>(&typesSupported),
                                   sizeof(typesSupported)));
  return true;
}
