// What a package has left on the machine, as text for the package test:
//   package_state service       the agent's service, "absent" when there is none
//   package_state folder PATH   owner and rights of a file or folder
//   package_state key SUBKEY    rights of a key below HKEY_LOCAL_MACHINE
//   package_state occupy NAME   registers another service that bears NAME for display
//   package_state free          and removes it again
//   package_state pipe          holds the helper pipe, taking what comes and never answering
#include <aclapi.h>
#include <sddl.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"

namespace {

constexpr wchar_t kOtherService[] = L"vorl_other_service";

int ShowService() {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const ServiceHandle service(
      OpenServiceW(manager.Get(), L"Client Agent 1", SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS));
  if (!service) {
    std::puts("absent");
    return 0;
  }
  std::vector<BYTE> buffer(8192);
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  DWORD size = 0;
  SERVICE_STATUS status{};
  if (!QueryServiceConfigW(service.Get(), config, static_cast<DWORD>(buffer.size()), &size) ||
      !QueryServiceStatus(service.Get(), &status)) {
    return 1;
  }
  std::printf("command %ls\nstart %lu\ndepends %ls\nstate %lu\n", config->lpBinaryPathName,
              config->dwStartType, config->lpDependencies == nullptr ? L"" : config->lpDependencies,
              status.dwCurrentState);
  return 0;
}

int ShowRights(const wchar_t* name, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts) {
  std::wstring object = name;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetNamedSecurityInfoW(object.data(), type, parts, nullptr, nullptr, nullptr,
                                            nullptr, &descriptor);
  if (error != ERROR_SUCCESS) {
    std::printf("error %lu\n", error);
    return 0;
  }
  wchar_t* text = nullptr;
  if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, parts,
                                                            &text, nullptr)) {
    return 1;
  }
  std::printf("%ls\n", text);
  return 0;
}

int Occupy(const wchar_t* displayName) {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
  const ServiceHandle service(
      CreateServiceW(manager.Get(), kOtherService, displayName, SERVICE_ALL_ACCESS,
                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                     L"C:\\nothing.exe", nullptr, nullptr, nullptr, nullptr, nullptr));
  return service ? 0 : 1;
}

int Free() {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const ServiceHandle service(OpenServiceW(manager.Get(), kOtherService, DELETE));
  return service && DeleteService(service.Get()) ? 0 : 1;
}

int HoldPipe() {
  // Clients find an instance each, whether or not anybody waits for them.
  std::vector<FileHandle> instances;
  for (int count = 0; count < 8; ++count) {
    instances.emplace_back(CreateNamedPipeW(L"\\\\.\\pipe\\briskuphelperpipe", PIPE_ACCESS_DUPLEX,
                                            PIPE_TYPE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                                            4096, 4096, 0, nullptr));
    if (!instances.back()) {
      return 1;
    }
  }
  std::puts("held");
  std::fflush(stdout);
  Sleep(INFINITE);  // until the test ends this program
  return 0;
}

}  // namespace

extern "C" int wmain(int argc, wchar_t** argv);

int wmain(int argc, wchar_t** argv) {
  const std::wstring what = argc > 1 ? argv[1] : L"";
  if (what == L"service") {
    return ShowService();
  }
  if (what == L"folder" && argc == 3) {
    return ShowRights(argv[2], SE_FILE_OBJECT,
                      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION);
  }
  if (what == L"key" && argc == 3) {
    return ShowRights((std::wstring(L"MACHINE\\") + argv[2]).c_str(), SE_REGISTRY_KEY,
                      DACL_SECURITY_INFORMATION);
  }
  if (what == L"occupy" && argc == 3) {
    return Occupy(argv[2]);
  }
  if (what == L"free") {
    return Free();
  }
  return what == L"pipe" ? HoldPipe() : 2;
}
