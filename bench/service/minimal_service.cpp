// The least that a service can do and still be one: it reports its states, loads the core module
// from its own folder, calls it, and waits to be told to stop. The floor under every figure.
//
//   minimal_service            as a service
//   minimal_service -nothing   asks the service manager whether a service is registered, and ends
//   minimal_service -console   the same work without a service manager, for a host that has one
#include <cstring>

#include "support/vorlcore.h"
#include "support/windows_api.h"

namespace {

char g_name[] = "Service Bench minimal";
SERVICE_STATUS_HANDLE g_service;
SERVICE_STATUS g_status = {
    SERVICE_WIN32_OWN_PROCESS, SERVICE_START_PENDING, SERVICE_ACCEPT_STOP, 0, 0, 0, 0};
HANDLE g_stop;

void Report(DWORD state) {
  g_status.dwCurrentState = state;
  SetServiceStatus(g_service, &g_status);
}

void WINAPI Handler(DWORD control) {
  if (control == SERVICE_CONTROL_STOP) {
    Report(SERVICE_STOP_PENDING);
    SetEvent(g_stop);
  }
}

template <typename Function>
Function* Find(HMODULE module, const char* name) {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

void Work() {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  std::strcpy(std::strrchr(path, '\\'), "\\vorlcore.dll");
  const HMODULE core = LoadLibraryA(path);
  Find<ClientAgentCoreStartUpFn>(core, "ClientAgentCoreStartUp")("", "", "", "", 0, 0, 0, 0, 0, 0,
                                                                 0, 0, 0, 0, 0);
  WaitForSingleObject(g_stop, INFINITE);
  Find<ClientAgentCoreCleanUpFn>(core, "ClientAgentCoreCleanUp")("", "", "", "", 0, 0, 0, 0, 0, 1);
}

void WINAPI ServiceMain(DWORD, char**) {
  g_service = RegisterServiceCtrlHandlerA(g_name, &Handler);
  Report(SERVICE_START_PENDING);
  Report(SERVICE_RUNNING);
  Work();
  Report(SERVICE_STOPPED);
}

BOOL WINAPI OnConsoleEvent(DWORD) {
  SetEvent(g_stop);
  return TRUE;
}

}  // namespace

int main(int argc, char** argv) {
  g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  if (argc > 1 && std::strcmp(argv[1], "-nothing") == 0) {
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    const SC_HANDLE service = OpenServiceA(manager, "not registered", SERVICE_QUERY_CONFIG);
    CloseServiceHandle(manager);
    return service != nullptr ? 1 : 0;
  }
  if (argc > 1 && std::strcmp(argv[1], "-console") == 0) {
    SetConsoleCtrlHandler(&OnConsoleEvent, TRUE);
    Work();
    return 0;
  }
  const SERVICE_TABLE_ENTRYA table[] = {{g_name, &ServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherA(table) ? 0 : 1;
}
