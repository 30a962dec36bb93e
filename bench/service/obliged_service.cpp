// A service with the same obligations as the product's, in the fewest lines that meet them: the
// same three libraries, the same settings read, as many trace lines, the same reports, messages for
// debuggers, events, waits and modules. What the product needs beyond this, it needs for being
// careful.
#include <process.h>

#include "support/vlevtlog.h"
#include "support/vorlcore.h"
#include "support/vorlinfo.h"
#include "support/vorlmisc.h"
#include "support/vorlupd.h"
#include "support/windows_api.h"

namespace {

char g_name[100];
SERVICE_STATUS_HANDLE g_service;
SERVICE_STATUS g_status = {
    SERVICE_WIN32_OWN_PROCESS, SERVICE_START_PENDING, SERVICE_ACCEPT_STOP, 0, 0, 0, 0};

const HANDLE g_handlerLeft = CreateEventA(nullptr, TRUE, TRUE, nullptr);

// What the product writes from its start to the dispatcher, from there to the core module, and from
// the stop to its end.
constexpr int kLinesBeforeDispatcher = 20;
constexpr int kLinesToCore = 27;
constexpr int kLinesToEnd = 40;

void Lines(int count) {
  for (int i = 0; i < count; ++i) {
    LogTrace(kTraceLevelInfo, "obliged_service.exe", "Reference", "reference.cpp", i, "%s",
             "Before calling a function of the reference");
  }
}

HANDLE OpenEventOf(const char* base) {
  char name[500];
  GetEventNameByVersion(base, name, sizeof(name));
  return CreateEventA(nullptr, TRUE, FALSE, name);
}

// Every report is preceded by a message for debuggers.
void Report(DWORD state) {
  char message[sizeof(g_name) + 50];
  StringCchPrintfA(message, sizeof(message), "[%s](%lu): SetStatus(%lu)\n", g_name,
                   GetCurrentThreadId(), state);
  OutputDebugStringA(message);
  g_status.dwCurrentState = state;
  SetServiceStatus(g_service, &g_status);
}

// Every control is answered by a report, which must not come after the last one.
void WINAPI Handler(DWORD control) {
  ResetEvent(g_handlerLeft);
  if (control == SERVICE_CONTROL_STOP) {
    Report(SERVICE_STOP_PENDING);
    const HANDLE close = OpenEventOf("ServiceBenchClose");
    SetEvent(close);
    CloseHandle(close);
  }
  SetServiceStatus(g_service, &g_status);
  SetEvent(g_handlerLeft);
}

unsigned WINAPI Watch(void*) {
  const HANDLE events[] = {OpenEventOf("ServiceBenchClose"), OpenEventOf("ServiceBenchExit")};
  WaitForMultipleObjects(2, events, FALSE, INFINITE);
  return 0;
}

HMODULE LoadModule(const wchar_t* file) {
  wchar_t path[kFolderBufferSize];
  GetClientAgentRootDir(path, kFolderCapacity);
  StringCchCatW(path, kFolderBufferSize, file);
  return LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

template <typename Function>
Function* Find(HMODULE module, const char* name) {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

void WINAPI ServiceMain(DWORD, char**) {
  g_service = RegisterServiceCtrlHandlerA(g_name, &Handler);
  Report(SERVICE_START_PENDING);
  Report(SERVICE_RUNNING);
  const auto watcher =
      reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Watch, nullptr, 0, nullptr));
  CLIENT_AGENT_STARTUP_OPTIONS o{};
  GetClientAgentStartUpOptions(&o);
  const HMODULE update = LoadModule(kUpdateModuleFile);
  Find<UpdateBeforeClientServiceFn>(update, "UpdateBeforeClientService")();
  FreeLibrary(update);
  const HMODULE core = LoadModule(kCoreModuleFile);
  Lines(kLinesToCore);
  Find<ClientAgentCoreStartUpFn>(core, "ClientAgentCoreStartUp")(
      o.Text1, o.Text2, o.Text3, o.Text4, o.Word1, o.Word2, o.Word3, o.Word4, o.Dword1, o.Dword2,
      o.Dword3, o.Dword4, o.Dword5, o.Byte1, o.Dword6);
  WaitForSingleObject(watcher, INFINITE);
  Find<ClientAgentCoreCleanUpFn>(core, "ClientAgentCoreCleanUp")(
      o.Text1, o.Text2, o.Text3, o.Text4, o.Word1, o.Dword1, o.Dword2, o.Dword3, o.Dword6, 1);
  FreeLibrary(core);
  Lines(kLinesToEnd);
  WaitForSingleObject(g_handlerLeft, INFINITE);
  Report(SERVICE_STOPPED);
}

}  // namespace

int main() {
  SetClientAgentLogOptions();
  GetServiceNameByVersion("Service Bench obliged", g_name, sizeof(g_name));
  wchar_t file[kFolderBufferSize];
  wchar_t value[260];
  GetClientAgentConfigDir(file, kFolderCapacity);
  StringCchCatW(file, kFolderBufferSize, L"\\vorlconf.ini");
  GetPrivateProfileStringW(L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION", L"clientuniqueid", nullptr, value,
                           260, file);
  Lines(kLinesBeforeDispatcher);
  const SERVICE_TABLE_ENTRYA table[] = {{g_name, &ServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherA(table) ? 0 : 1;
}
