#include "tests/support/fake_service_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <string_view>

namespace {

constexpr char kAdvapi[] = "ADVAPI32.dll";
constexpr char kKernel[] = "KERNEL32.dll";

// Gives every executable that links this file a slot for each patched function, whether or not the
// product code in it calls that function.
[[maybe_unused]] const void* volatile const kSlots[] = {
    reinterpret_cast<const void*>(&OpenSCManagerA),
    reinterpret_cast<const void*>(&OpenServiceA),
    reinterpret_cast<const void*>(&CreateServiceW),
    reinterpret_cast<const void*>(&CloseServiceHandle),
    reinterpret_cast<const void*>(&ChangeServiceConfig2W),
    reinterpret_cast<const void*>(&DeleteService),
    reinterpret_cast<const void*>(&StartServiceA),
    reinterpret_cast<const void*>(&ControlService),
    reinterpret_cast<const void*>(&QueryServiceStatus),
    reinterpret_cast<const void*>(&RegCreateKeyA),
    reinterpret_cast<const void*>(&RegSetValueExW),
    reinterpret_cast<const void*>(&RegSetValueExA),
    reinterpret_cast<const void*>(&RegCloseKey),
    reinterpret_cast<const void*>(&GetModuleFileNameW),
    reinterpret_cast<const void*>(&Sleep),
    reinterpret_cast<const void*>(&GetTickCount),
};

// The functions that Fail can be asked for.
constexpr std::string_view kFailing[] = {
    "OpenSCManagerA", "OpenServiceA",       "CreateServiceW", "ChangeServiceConfig2W",
    "DeleteService",  "StartServiceA",      "ControlService", "RegSetValueExW",
    "RegSetValueExA", "GetModuleFileNameW",
};

template <typename Handle>
Handle AsHandle(ULONG_PTR value) {
  return reinterpret_cast<Handle>(value);
}

// The text of a value's bytes with every null character in it, so that its end can be seen.
std::string WideBytes(const BYTE* data, DWORD bytes) {
  std::wstring text(reinterpret_cast<const wchar_t*>(data), bytes / sizeof(wchar_t));
  for (std::size_t at = text.find(L'\0'); at != std::wstring::npos; at = text.find(L'\0')) {
    text.replace(at, 1, L"\\0");
  }
  return Quoted(text.c_str()) + ", " + std::to_string(bytes) + " bytes";
}

std::string FailureActions(const void* record) {
  const auto* const actions = static_cast<const SERVICE_FAILURE_ACTIONSW*>(record);
  std::string text = "reset " + std::to_string(actions->dwResetPeriod) + ", reboot message " +
                     Quoted(actions->lpRebootMsg) + ", command " + Quoted(actions->lpCommand) +
                     ", actions";
  for (DWORD i = 0; i < actions->cActions; ++i) {
    text += " (" + std::to_string(actions->lpsaActions[i].Type) + ", " +
            std::to_string(actions->lpsaActions[i].Delay) + ")";
  }
  return text;
}

}  // namespace

FakeServiceManager::FakeServiceManager(Journal& journal)
    : m_journal(journal),
      m_openManager(kAdvapi, "OpenSCManagerA", Bound(&FakeServiceManager::OpenManager)),
      m_openService(kAdvapi, "OpenServiceA", Bound(&FakeServiceManager::OpenNamed)),
      m_createService(kAdvapi, "CreateServiceW", Bound(&FakeServiceManager::CreateNamed)),
      m_closeServiceHandle(kAdvapi, "CloseServiceHandle", Bound(&FakeServiceManager::CloseService)),
      m_changeConfig(kAdvapi, "ChangeServiceConfig2W", Bound(&FakeServiceManager::ChangeConfig)),
      m_deleteService(kAdvapi, "DeleteService", Bound(&FakeServiceManager::Delete)),
      m_startService(kAdvapi, "StartServiceA", Bound(&FakeServiceManager::Start)),
      m_controlService(kAdvapi, "ControlService", Bound(&FakeServiceManager::Control)),
      m_queryStatus(kAdvapi, "QueryServiceStatus", Bound(&FakeServiceManager::QueryStatus)),
      m_createKey(kAdvapi, "RegCreateKeyA", Bound(&FakeServiceManager::CreateKey)),
      m_setValueW(kAdvapi, "RegSetValueExW", Bound(&FakeServiceManager::SetTextValue)),
      m_setValueA(kAdvapi, "RegSetValueExA", Bound(&FakeServiceManager::SetNumberValue)),
      m_closeKey(kAdvapi, "RegCloseKey", Bound(&FakeServiceManager::CloseKey)),
      m_getModulePath(kKernel, "GetModuleFileNameW", Bound(&FakeServiceManager::GetModulePath)),
      m_sleep(kKernel, "Sleep", Bound(&FakeServiceManager::AdvanceTick)),
      m_getTick(kKernel, "GetTickCount", [this]() -> DWORD { return m_tick; }) {}

// ---- What stands in for each function ----

SC_HANDLE FakeServiceManager::OpenManager(LPCSTR machine, LPCSTR database, DWORD access) {
  return FinishOpen("OpenSCManagerA",
                    "(" + Quoted(machine) + ", " + Quoted(database) + ", " + Hex(access) + ")",
                    "manager");
}

SC_HANDLE FakeServiceManager::OpenNamed(SC_HANDLE manager, LPCSTR name, DWORD access) {
  return FinishOpen("OpenServiceA",
                    "(" + NameOf(manager) + ", " + Quoted(name) + ", " + Hex(access) + ")",
                    "service");
}

SC_HANDLE FakeServiceManager::CreateNamed(SC_HANDLE manager, LPCWSTR name, LPCWSTR displayName,
                                          DWORD access, DWORD type, DWORD start, DWORD errorControl,
                                          LPCWSTR path, LPCWSTR group, LPDWORD tag,
                                          LPCWSTR dependencies, LPCWSTR account, LPCWSTR password) {
  return FinishOpen("CreateServiceW",
                    "(" + NameOf(manager) + ", " + Quoted(name) + ", " + Quoted(displayName) +
                        ", " + Hex(access) + ", " + Hex(type) + ", " + std::to_string(start) +
                        ", " + std::to_string(errorControl) + ", " + Quoted(path) + ", " +
                        Quoted(group) + ", " + (tag == nullptr ? "null" : "a tag") + ", " +
                        Quoted(dependencies) + ", " + Quoted(account) + ", " + Quoted(password) +
                        ")",
                    "service");
}

BOOL FakeServiceManager::CloseService(SC_HANDLE handle) {
  m_journal.Call("CloseServiceHandle(" + NameOf(handle) + ")");
  SetLastError(kRubbishError);
  return Close(handle) ? TRUE : FALSE;
}

BOOL FakeServiceManager::ChangeConfig(SC_HANDLE service, DWORD level, LPVOID record) {
  return Finish("ChangeServiceConfig2W", "(" + NameOf(service) + ", " + std::to_string(level) +
                                             ", " + FailureActions(record) + ")");
}

BOOL FakeServiceManager::Delete(SC_HANDLE service) {
  return Finish("DeleteService", "(" + NameOf(service) + ")");
}

BOOL FakeServiceManager::Start(SC_HANDLE service, DWORD count, LPCSTR* arguments) {
  return Finish("StartServiceA", "(" + NameOf(service) + ", " + std::to_string(count) + ", " +
                                     (arguments == nullptr ? "null" : "some") + ")");
}

BOOL FakeServiceManager::Control(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) {
  *status = {};
  return Finish("ControlService", "(" + NameOf(service) + ", " + std::to_string(control) + ")");
}

BOOL FakeServiceManager::QueryStatus(SC_HANDLE service, LPSERVICE_STATUS status) {
  const FakeStatus& answer = m_statuses[m_nextStatus];
  m_nextStatus = std::min(m_nextStatus + 1, m_statuses.size() - 1);
  const std::string text = "QueryServiceStatus(" + NameOf(service) + ") = ";
  if (answer.error != 0) {
    m_journal.Call(text + "error " + std::to_string(answer.error));
    SetLastError(answer.error);
    return FALSE;
  }
  m_journal.Call(text + "state " + std::to_string(answer.state));
  status->dwCurrentState = answer.state;
  status->dwCheckPoint = answer.checkPoint;
  status->dwWaitHint = answer.waitHint;
  SetLastError(kRubbishError);
  return TRUE;
}

LSTATUS FakeServiceManager::CreateKey(HKEY parent, LPCSTR path, PHKEY key) {
  const std::string text = std::string("RegCreateKeyA(") +
                           (parent == HKEY_LOCAL_MACHINE ? "HKEY_LOCAL_MACHINE" : "another key") +
                           ", " + Quoted(path) + ") = ";
  if (m_createKeyResult != ERROR_SUCCESS) {
    m_journal.Call(text + "error " + std::to_string(m_createKeyResult));
    SetLastError(m_createKeyLastError);
    return m_createKeyResult;
  }
  ULONG_PTR handle = 0;
  m_journal.Call(text + Open("key", handle));
  *key = AsHandle<HKEY>(handle);
  return ERROR_SUCCESS;
}

LSTATUS FakeServiceManager::SetTextValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type,
                                         const BYTE* data, DWORD bytes) {
  m_journal.Call("RegSetValueExW(" + NameOf(key) + ", " + Quoted(name) + ", " +
                 std::to_string(reserved) + ", " + std::to_string(type) + ", " +
                 WideBytes(data, bytes) + ")");
  return FailureOf("RegSetValueExW");
}

LSTATUS FakeServiceManager::SetNumberValue(HKEY key, LPCSTR name, DWORD reserved, DWORD type,
                                           const BYTE* data, DWORD bytes) {
  DWORD value = 0;
  std::copy_n(data, std::min<DWORD>(bytes, sizeof(value)), reinterpret_cast<BYTE*>(&value));
  m_journal.Call("RegSetValueExA(" + NameOf(key) + ", " + Quoted(name) + ", " +
                 std::to_string(reserved) + ", " + std::to_string(type) + ", " +
                 std::to_string(value) + ", " + std::to_string(bytes) + " bytes)");
  return FailureOf("RegSetValueExA");
}

LSTATUS FakeServiceManager::CloseKey(HKEY key) {
  m_journal.Call("RegCloseKey(" + NameOf(key) + ")");
  SetLastError(kRubbishError);
  return Close(key) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

DWORD FakeServiceManager::GetModulePath(HMODULE module, LPWSTR path, DWORD size) {
  m_journal.Call(std::string("GetModuleFileNameW(") + (module == nullptr ? "null" : "a module") +
                 ", " + std::to_string(size) + ")");
  DWORD error = 0;
  if (Fails("GetModuleFileNameW", error)) {
    SetLastError(error);
    return 0;
  }
  const std::size_t length = std::min<std::size_t>(m_modulePath.size(), size - 1);
  path[m_modulePath.copy(path, length)] = L'\0';
  const bool cut = length < m_modulePath.size();
  SetLastError(cut ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS);
  return cut ? size : static_cast<DWORD>(length);
}

void FakeServiceManager::AdvanceTick(DWORD milliseconds) {
  m_journal.Call("Sleep(" + std::to_string(milliseconds) + ")");
  m_tick += milliseconds;
}

// ---- What a test says ----

void FakeServiceManager::Fail(const std::string& function, DWORD error, unsigned call) {
  // A failure that no call can meet would prove nothing.
  ASSERT_NE(std::ranges::find(kFailing, function), std::end(kFailing))
      << function << " is none of the functions that can be made to fail";
  m_failures[function] = {call, error};
}

void FakeServiceManager::FailCreateKey(LSTATUS result, DWORD lastError) {
  m_createKeyResult = result;
  m_createKeyLastError = lastError;
}

void FakeServiceManager::AnswerStatus(std::vector<FakeStatus> answers) {
  m_statuses = std::move(answers);
  m_nextStatus = 0;
}

// ---- How calls end ----

bool FakeServiceManager::Fails(const std::string& function, DWORD& error) {
  const unsigned call = ++m_callCounts[function];
  const auto failure = m_failures.find(function);
  if (failure == m_failures.end() ||
      (failure->second.first != 0 && failure->second.first != call)) {
    return false;
  }
  error = failure->second.second;
  return true;
}

LSTATUS FakeServiceManager::FailureOf(const std::string& function) {
  DWORD error = ERROR_SUCCESS;
  static_cast<void>(Fails(function, error));
  return static_cast<LSTATUS>(error);
}

// Success leaves rubbish in the last error, as the real functions may.
std::string FakeServiceManager::Open(const char* kind, ULONG_PTR& handle) {
  handle = m_nextHandle++;
  m_openHandles[handle] = kind + std::to_string(++m_openCounts[kind]);
  SetLastError(kRubbishError);
  return m_openHandles[handle];
}

std::string FakeServiceManager::NameOf(const void* handle) const {
  const auto open = m_openHandles.find(reinterpret_cast<ULONG_PTR>(handle));
  return open == m_openHandles.end() ? "unknown" : open->second;
}

bool FakeServiceManager::Close(const void* handle) {
  return m_openHandles.erase(reinterpret_cast<ULONG_PTR>(handle)) == 1;
}

BOOL FakeServiceManager::Finish(const std::string& function, const std::string& text) {
  DWORD error = 0;
  if (Fails(function, error)) {
    m_journal.Call(function + text + " = error " + std::to_string(error));
    SetLastError(error);
    return FALSE;
  }
  m_journal.Call(function + text);
  SetLastError(kRubbishError);
  return TRUE;
}

SC_HANDLE FakeServiceManager::FinishOpen(const std::string& function, const std::string& text,
                                         const char* kind) {
  DWORD error = 0;
  if (Fails(function, error)) {
    m_journal.Call(function + text + " = error " + std::to_string(error));
    SetLastError(error);
    return nullptr;
  }
  ULONG_PTR handle = 0;
  m_journal.Call(function + text + " = " + Open(kind, handle));
  return AsHandle<SC_HANDLE>(handle);
}
