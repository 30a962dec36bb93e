#include "tools/vorldiag/machine/service.h"

#include <cstring>

#include "tools/vorldiag/text/utf8.h"

namespace {

std::wstring OrEmpty(const wchar_t* text) { return text != nullptr ? text : L""; }

}  // namespace

DWORD ServiceReader::Open(const std::string& name) {
  m_manager.Reset(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!m_manager) {
    return GetLastError();
  }
  m_service.Reset(OpenServiceA(m_manager.Get(), name.c_str(),
                               SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | READ_CONTROL));
  return m_service ? ERROR_SUCCESS : GetLastError();
}

DWORD ServiceReader::Read(Registration& registration) const {
  DWORD size = 0;
  QueryServiceConfigW(m_service.Get(), nullptr, 0, &size);
  if (size == 0) {
    return GetLastError();
  }
  std::vector<BYTE> buffer(size);
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (!QueryServiceConfigW(m_service.Get(), config, size, &size)) {
    return GetLastError();
  }
  registration.command = OrEmpty(config->lpBinaryPathName);
  registration.account = OrEmpty(config->lpServiceStartName);
  registration.displayName = OrEmpty(config->lpDisplayName);
  registration.type = config->dwServiceType;
  registration.startType = config->dwStartType;
  registration.errorControl = config->dwErrorControl;
  for (const wchar_t* name = config->lpDependencies; name != nullptr && *name != L'\0';) {
    registration.dependencies.emplace_back(name);
    name += registration.dependencies.back().size() + 1;
  }
  return ERROR_SUCCESS;
}

DWORD ServiceReader::Read(Recovery& recovery) const {
  DWORD size = 0;
  QueryServiceConfig2W(m_service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS, nullptr, 0, &size);
  if (size < sizeof(SERVICE_FAILURE_ACTIONSW)) {
    return GetLastError();
  }
  std::vector<BYTE> buffer(size);
  if (!QueryServiceConfig2W(m_service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(), size,
                            &size)) {
    return GetLastError();
  }
  const auto* const actions = reinterpret_cast<const SERVICE_FAILURE_ACTIONSW*>(buffer.data());
  recovery.actions.clear();
  for (DWORD i = 0; i < actions->cActions; ++i) {
    const SC_ACTION_TYPE& type = actions->lpsaActions[i].Type;
    int& action = recovery.actions.emplace_back();
    static_assert(sizeof(action) == sizeof(type));
    std::memcpy(&action, &type, sizeof(action));
  }
  recovery.command = OrEmpty(actions->lpCommand);
  recovery.resetSeconds = actions->dwResetPeriod;
  return ERROR_SUCCESS;
}

DWORD ServiceReader::Read(SERVICE_STATUS_PROCESS& status) const {
  DWORD size = 0;
  return QueryServiceStatusEx(m_service.Get(), SC_STATUS_PROCESS_INFO,
                              reinterpret_cast<BYTE*>(&status), sizeof(status), &size)
             ? ERROR_SUCCESS
             : GetLastError();
}

std::wstring ProgramOf(const std::wstring& command) {
  if (!command.empty() && command[0] == L'"') {
    return command.substr(1, command.find(L'"', 1) - 1);
  }
  constexpr std::wstring_view extension = L".exe";
  for (std::size_t end = extension.size(); end <= command.size(); ++end) {
    const std::wstring_view tail(command.data() + end - extension.size(), extension.size());
    if (EqualsIgnoringCase(tail, extension) && (end == command.size() || command[end] == L' ')) {
      return command.substr(0, end);
    }
  }
  return command.substr(0, command.find(L' '));
}
