#include "tests/e2e/service_manager.h"

#include <stdexcept>

#include "tests/e2e/wait_until.h"

namespace {

std::wstring OrEmpty(const wchar_t* text) { return text != nullptr ? text : L""; }

}  // namespace

ServiceHandle ServiceUnderTest::Open(DWORD access) const {
  const ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  return ServiceHandle(OpenServiceA(manager.Get(), m_name.c_str(), access));
}

void ServiceUnderTest::Remove() {
  if (!IsInstalled()) {
    return;
  }
  const SERVICE_STATUS_PROCESS status = Status();
  if (status.dwCurrentState != SERVICE_STOPPED && status.dwProcessId != 0) {
    const KernelHandle process(
        OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, status.dwProcessId));
    if (process) {
      TerminateProcess(process.Get(), 1);
      WaitForSingleObject(process.Get(), INFINITE);
    }
  }
  DeleteService(Open(DELETE).Get());
  if (!WaitUntil([&] { return !IsInstalled(); })) {
    throw std::runtime_error("the service of an earlier run does not go away");
  }
}

bool ServiceUnderTest::IsInstalled() const { return static_cast<bool>(Open(SERVICE_QUERY_CONFIG)); }

ServiceConfiguration ServiceUnderTest::Configuration() const {
  const ServiceHandle service = Open(SERVICE_QUERY_CONFIG);
  DWORD size = 0;
  QueryServiceConfigW(service.Get(), nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (!QueryServiceConfigW(service.Get(), config, size, &size)) {
    throw std::runtime_error("no service configuration");
  }
  return {config->dwServiceType,
          config->dwStartType,
          config->dwErrorControl,
          OrEmpty(config->lpBinaryPathName),
          OrEmpty(config->lpServiceStartName),
          OrEmpty(config->lpDisplayName),
          OrEmpty(config->lpLoadOrderGroup),
          OrEmpty(config->lpDependencies)};
}

SERVICE_STATUS_PROCESS ServiceUnderTest::Status() const {
  const ServiceHandle service = Open(SERVICE_QUERY_STATUS);
  SERVICE_STATUS_PROCESS status{};
  DWORD size = 0;
  if (!QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                            sizeof(status), &size)) {
    throw std::runtime_error("no service status");
  }
  return status;
}

DWORD ServiceUnderTest::Start() const {
  return StartServiceA(Open(SERVICE_START).Get(), 0, nullptr) ? ERROR_SUCCESS : GetLastError();
}

DWORD ServiceUnderTest::Control(DWORD code) const {
  SERVICE_STATUS status{};
  return ControlService(Open(SERVICE_ALL_ACCESS).Get(), code, &status) ? ERROR_SUCCESS
                                                                       : GetLastError();
}

bool ServiceUnderTest::WaitForState(DWORD state) const {
  return WaitUntil([&] { return State() == state; });
}

void ServiceUnderTest::SetStartType(DWORD startType) const {
  if (!ChangeServiceConfigW(Open(SERVICE_CHANGE_CONFIG).Get(), SERVICE_NO_CHANGE, startType,
                            SERVICE_NO_CHANGE, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr)) {
    throw std::runtime_error("cannot change the service configuration");
  }
}
