// A service control manager that answers as the test says.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"

// One answer to QueryServiceStatus.
struct FakeStatus {
  DWORD state;
  DWORD checkPoint = 0;
  DWORD waitHint = 0;
  DWORD error = 0;  // not 0: the query fails with it
};

// Stands in for the service control manager, the registry's writing functions, the program's own
// path and the clock, as long as it lives, and writes every call into the journal, such as
//   OpenServiceA(manager1, "Sample", 0x1) = service1
//   DeleteService(service1) = error 5
//   CloseServiceHandle(service1)
// Every call succeeds until a test says otherwise. A closed or foreign handle shows as "unknown".
class FakeServiceManager {
 public:
  explicit FakeServiceManager(Journal& journal);

  // `function` fails with `error`, at every call or only at the `call`th (from 1). Fails the test
  // when the function is none that can be made to fail.
  void Fail(const std::string& function, DWORD error, unsigned call = 0);

  // RegCreateKeyA returns `result` and leaves `lastError`, which is something else: the function
  // does not promise to set it.
  void FailCreateKey(LSTATUS result, DWORD lastError);

  // The answers to QueryServiceStatus in order; the last one stays.
  void AnswerStatus(std::vector<FakeStatus> answers);

  // What GetModuleFileNameW gives; a longer path is cut as Windows does.
  void SetModulePath(const std::wstring& path) { m_modulePath = path; }

  // GetTickCount; Sleep adds to it.
  void SetTick(DWORD tick) { m_tick = tick; }

 private:
  // A member function as the replacement of a Windows function.
  template <typename Result, typename... Args>
  std::function<Result(Args...)> Bound(Result (FakeServiceManager::*member)(Args...)) {
    return [this, member](Args... args) { return (this->*member)(args...); };
  }

  SC_HANDLE OpenManager(LPCSTR machine, LPCSTR database, DWORD access);
  SC_HANDLE OpenNamed(SC_HANDLE manager, LPCSTR name, DWORD access);
  SC_HANDLE CreateNamed(SC_HANDLE manager, LPCWSTR name, LPCWSTR displayName, DWORD access,
                        DWORD type, DWORD start, DWORD errorControl, LPCWSTR path, LPCWSTR group,
                        LPDWORD tag, LPCWSTR dependencies, LPCWSTR account, LPCWSTR password);
  BOOL CloseService(SC_HANDLE handle);
  BOOL ChangeConfig(SC_HANDLE service, DWORD level, LPVOID record);
  BOOL Delete(SC_HANDLE service);
  BOOL Start(SC_HANDLE service, DWORD count, LPCSTR* arguments);
  BOOL Control(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status);
  BOOL QueryStatus(SC_HANDLE service, LPSERVICE_STATUS status);
  LSTATUS CreateKey(HKEY parent, LPCSTR path, PHKEY key);
  LSTATUS SetTextValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD bytes);
  LSTATUS SetNumberValue(HKEY key, LPCSTR name, DWORD reserved, DWORD type, const BYTE* data,
                         DWORD bytes);
  LSTATUS CloseKey(HKEY key);
  DWORD GetModulePath(HMODULE module, LPWSTR path, DWORD size);
  void AdvanceTick(DWORD milliseconds);

  bool Fails(const std::string& function, DWORD& error);
  LSTATUS FailureOf(const std::string& function);
  std::string Open(const char* kind, ULONG_PTR& handle);
  std::string NameOf(const void* handle) const;
  bool Close(const void* handle);
  BOOL Finish(const std::string& function, const std::string& text);
  SC_HANDLE FinishOpen(const std::string& function, const std::string& text, const char* kind);

  Journal& m_journal;
  std::map<std::string, std::pair<unsigned, DWORD>> m_failures;
  std::map<std::string, unsigned> m_callCounts;
  std::map<std::string, unsigned> m_openCounts;
  std::map<ULONG_PTR, std::string> m_openHandles;
  ULONG_PTR m_nextHandle = 0x1000;
  LSTATUS m_createKeyResult = ERROR_SUCCESS;
  DWORD m_createKeyLastError = 0;
  std::vector<FakeStatus> m_statuses{{SERVICE_RUNNING}};
  std::size_t m_nextStatus = 0;
  std::wstring m_modulePath = LR"(C:\agent\vorlsrvc.exe)";
  DWORD m_tick = 1000;

  CallPatch<struct OpenManagerTag, decltype(OpenSCManagerA)> m_openManager;
  CallPatch<struct OpenServiceTag, decltype(OpenServiceA)> m_openService;
  CallPatch<struct CreateServiceTag, decltype(CreateServiceW)> m_createService;
  CallPatch<struct CloseServiceHandleTag, decltype(CloseServiceHandle)> m_closeServiceHandle;
  CallPatch<struct ChangeConfigTag, decltype(ChangeServiceConfig2W)> m_changeConfig;
  CallPatch<struct DeleteServiceTag, decltype(DeleteService)> m_deleteService;
  CallPatch<struct StartServiceTag, decltype(StartServiceA)> m_startService;
  CallPatch<struct ControlServiceTag, decltype(ControlService)> m_controlService;
  CallPatch<struct QueryStatusTag, decltype(QueryServiceStatus)> m_queryStatus;
  CallPatch<struct CreateKeyTag, decltype(RegCreateKeyA)> m_createKey;
  CallPatch<struct SetValueWTag, decltype(RegSetValueExW)> m_setValueW;
  CallPatch<struct SetValueATag, decltype(RegSetValueExA)> m_setValueA;
  CallPatch<struct CloseKeyTag, decltype(RegCloseKey)> m_closeKey;
  CallPatch<struct ModulePathTag, decltype(GetModuleFileNameW)> m_getModulePath;
  CallPatch<struct SleepTag, decltype(Sleep)> m_sleep;
  CallPatch<struct TickTag, decltype(GetTickCount)> m_getTick;
};
