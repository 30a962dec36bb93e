#include "agent/vorlsvc.h"

#include <io.h>
#include <process.h>

#include <atomic>

#include "agent/cathdsvc.h"
#include "agent/secattrb.h"
#include "support/procaddress.h"
#include "support/vorlcore.h"
#include "support/vorlinfo.h"
#include "support/vorlmisc.h"
#include "support/vorlupd.h"

namespace {

// The user control that makes the service save its status.
constexpr DWORD kControlSaveStatus = 128;

constexpr unsigned kRegistryPathSize = 1024;

constexpr int kExistenceOnly = 0;  // the access mode of _waccess

// Of the service's body and of its steps.
constexpr Trace runTrace{"CAcAsSvc::Run"};

// Waits for the end of the closure watcher, and with it for the end of the agent's work. False,
// with a trace line, when the watcher may still run: another module has closed its handle.
bool AwaitWatcher(KernelHandle watcher) {
  runTrace.Info("Before Calling WaitForSingleObject");
  const bool hasEnded = WaitForSingleObject(watcher.Get(), INFINITE) == WAIT_OBJECT_0;
  if (!hasEnded) {
    runTrace.Error("WaitForSingleObject Failed %u", GetLastError());
  }
  runTrace.Info("After Calling WaitForSingleObject");
  watcher.Reset();
  return hasEnded;
}

// The path of the module `file` (with its backslash) in the agent's root folder.
bool GetModulePath(const wchar_t* file, wchar_t (&path)[kFolderBufferSize]) {
  path[0] = L'\0';
  return GetClientAgentRootDir(path, kFolderCapacity) != 0 &&
         SUCCEEDED(StringCchCatW(path, kFolderBufferSize, file));
}

}  // namespace

CAcAsSvc::CAcAsSvc(const char* serviceName)
    : CNTService(serviceName), m_dwFlag1(0), m_dwFlag2(1), m_dwCurrentStatus(0), m_dwReserved(0) {
  constexpr Trace trace{"CAcAsSvc::CAcAsSvc"};
  trace.Info("Entry");
  trace.Info("Exit");
}

CAcAsSvc::~CAcAsSvc() {
  constexpr Trace trace{"CAcAsSvc::~CAcAsSvc"};
  trace.Info("Entry");
  if (m_hCloseEvent != nullptr) {
    CloseHandle(m_hCloseEvent);
  }
  if (m_hSignalledCloseEvent != nullptr) {
    CloseHandle(m_hSignalledCloseEvent);
  }
  trace.Info("Exit");
}

BOOL CAcAsSvc::OnInit() {
  constexpr Trace trace{"CAcAsSvc::OnInit"};
  trace.Info("Entry");
  if (!CreateSecurityAttributeForEveryone(&m_SecurityAttributes, &m_pEveryoneSid, &m_pAcl,
                                          &m_pSecurityDescriptor, EVENT_ALL_ACCESS)) {
    trace.Error("CreateSecurityAttributeForEveryone Failed");
    return FALSE;
  }
  // Support engineers know this operation's end by a second "Entry".
  trace.Info("Entry");
  return TRUE;
}

void CAcAsSvc::Run() {
  runTrace.Info("Entry");
  // A return before the wait below leaves this handle open and the thread running. Both end with
  // the process, which ends when the service does.
  const HANDLE watcher = StartWatcher();
  if (watcher == nullptr) {
    return;
  }

  runTrace.Info("Before calling GetClientAgentStartUpOptions");
  CLIENT_AGENT_STARTUP_OPTIONS options{};
  if (GetClientAgentStartUpOptions(&options) == 0) {
    runTrace.Error("GetClientAgentStartUpOptions Failed");
    SignalCloseEvent(runTrace);
    return;
  }
  runTrace.Info("Calling for pending update...");
  if (!DoPendingPatchTasks()) {
    runTrace.Info("DoPendingPatchTasks failed...");
  }
  runTrace.Info("After calling GetClientAgentStartUpOptions");

  Module core(LoadVorlcoreDll());
  if (!core) {
    // The close event is not signalled: nobody waits for the watcher, and other programs have never
    // seen the event signalled for a core that could not be loaded.
    runTrace.Error("LoadAcresDll() failed.");
    return;
  }
  if (!StartCore(core, options)) {
    return;
  }
  const bool hasWatcherEnded = AwaitWatcher(KernelHandle(watcher));
  if (!CleanUpCore(core.Get(), options)) {
    return;
  }
  runTrace.Info("Before calling FreeSecurityAttributeForEveryone");
  core.Reset();
  // What a watcher that may still run makes its events with ends with the process.
  if (hasWatcherEnded) {
    TakeBackSecurityDescriptor();
    FreeSecurityAttributeForEveryone(&m_SecurityAttributes, m_pEveryoneSid, m_pAcl,
                                     m_pSecurityDescriptor);
  }
  runTrace.Info("After calling FreeSecurityAttributeForEveryone");
  runTrace.Info("Exit");
}

// Null, with a trace line, when the thread cannot be made.
HANDLE CAcAsSvc::StartWatcher() {
  unsigned threadId = 0;
  const auto watcher = reinterpret_cast<HANDLE>(
      _beginthreadex(/*security=*/nullptr, /*stack_size=*/0, &WaitForServiceClosure, this,
                     /*initflag=*/0, &threadId));
  if (watcher == nullptr) {
    runTrace.Error("_beginthreadex Failed %u", GetLastError());
  }
  return watcher;
}

// False, with a trace line, when the core does not run. It has been unloaded then, or its owner
// unloads it next.
bool CAcAsSvc::StartCore(Module& core, const CLIENT_AGENT_STARTUP_OPTIONS& options) {
  auto* const startUp = ProcAddress<ClientAgentCoreStartUpFn>(core.Get(), "ClientAgentCoreStartUp");
  if (startUp == nullptr) {
    // The close event is not signalled, as for a core that could not be loaded.
    runTrace.Error("GetProcAddress() failed for ClientAgentCoreStartUp.");
    return false;
  }
  runTrace.Info("Before calling ClientAgentCoreStartUp");
  if (startUp(options.Text1, options.Text2, options.Text3, options.Text4, options.Word1,
              options.Word2, options.Word3, options.Word4, options.Dword1, options.Dword2,
              options.Dword3, options.Dword4, options.Dword5, options.Byte1, options.Dword6) == 0) {
    runTrace.Error("ClientAgentCoreStartUp Failed");
    core.Reset();
    SignalCloseEvent(runTrace);
    return false;
  }
  runTrace.Info("After calling ClientAgentCoreStartUp");
  return true;
}

// Tells the core to end its work. False, with a trace line, only when it cannot be told.
bool CAcAsSvc::CleanUpCore(HMODULE core, const CLIENT_AGENT_STARTUP_OPTIONS& options) const {
  runTrace.Info("Before calling ClientAgentCoreCleanUp");
  auto* const cleanUp = ProcAddress<ClientAgentCoreCleanUpFn>(core, "ClientAgentCoreCleanUp");
  if (cleanUp == nullptr) {
    runTrace.Error("GetProcAddress() failed for ClientAgentCoreCleanUp.");
    // There is no event to signal any more; both calls fail without effect.
    // cppcheck-suppress nullPointer
    SetEvent(nullptr);
    CloseHandle(nullptr);
    return false;
  }
  BYTE notify = kNotifyNone;
  if (m_bNotifyServer) {
    runTrace.Info("Notify server is TRUE");
    notify = kNotifyServer;
  } else {
    runTrace.Info("Notify server is false");
  }
  if (cleanUp(options.Text1, options.Text2, options.Text3, options.Text4, options.Word1,
              options.Dword1, options.Dword2, options.Dword3, options.Dword6, notify) == 0) {
    runTrace.Error("ClientAgentCoreCleanUp Failed");
  }
  runTrace.Info("After calling ClientAgentCoreCleanUp");
  return true;
}

// When the exit event has ended the wait, a stop may still come or be under way, and it makes its
// event with these attributes. They are taken away from it before they are freed: from here on its
// event has the default security.
void CAcAsSvc::TakeBackSecurityDescriptor() {
  // One store: the attributes are whole before and after it.
  std::atomic_ref(m_SecurityAttributes.lpSecurityDescriptor).store(nullptr);
  WaitForHandler();
}

// The close event by its name, created when the closure watcher has not done so yet. Null, with a
// trace line, on failure.
KernelHandle CAcAsSvc::CreateCloseEvent(const Trace& trace) {
  char szEventName[kEventNameSize] = {};
  static_cast<void>(StringCchCopyA(szEventName, kEventNameSize, kCloseEventBaseName));
  char szVersionedName[kEventNameSize] = {};
  if (GetEventNameByVersion(szEventName, szVersionedName, kEventNameSize) == 0) {
    trace.Error("GetEventNameByVersion Failed");
    return KernelHandle();
  }
  static_cast<void>(StringCchCopyA(szEventName, kEventNameSize, szVersionedName));

  KernelHandle closeEvent(CreateEventA(&m_SecurityAttributes, /*bManualReset=*/TRUE,
                                       /*bInitialState=*/FALSE, szEventName));
  if (!closeEvent) {
    trace.Error("CreateEvent Failed for Close Event : %u", GetLastError());
    return closeEvent;
  }

  HANDLE second = nullptr;
  if (DuplicateHandle(GetCurrentProcess(), closeEvent.Get(), GetCurrentProcess(), &second,
                      /*dwDesiredAccess=*/0, /*bInheritHandle=*/FALSE, DUPLICATE_SAME_ACCESS)) {
    // A failed start and a stop control may signal at the same time, from two threads.
    const KernelHandle previous(InterlockedExchangePointer(&m_hSignalledCloseEvent, second));
  }
  return closeEvent;
}

void CAcAsSvc::SignalCloseEvent(const Trace& trace) {
  const KernelHandle closeEvent = CreateCloseEvent(trace);
  if (closeEvent) {
    SetEvent(closeEvent.Get());
  }
}

void CAcAsSvc::OnStop() {
  constexpr Trace trace{"CAcAsSvc::OnStop"};
  trace.Info("Entry");
  KernelHandle closeEvent = CreateCloseEvent(trace);
  if (!closeEvent) {
    return;
  }
  trace.Info("Before setting close Event");
  SetEvent(closeEvent.Get());
  trace.Info("After setting close Event");
  closeEvent.Reset();
  trace.Info("Exit");
}

void CAcAsSvc::OnShutdown() { OnStop(); }

BOOL CAcAsSvc::OnUserControl(DWORD code) {
  constexpr Trace trace{"CAcAsSvc::OnUserControl"};
  trace.Info("Entry");
  if (code == kControlSaveStatus) {
    trace.Info("Before calling SaveStatus");
    SaveStatus();
    trace.Info("After calling SaveStatus");
    return TRUE;
  }
  trace.Info("Case default");
  trace.Info("Exit");
  return FALSE;
}

void CAcAsSvc::SaveStatus() {
  constexpr Trace trace{"CAcAsSvc::SaveStatus"};
  trace.Info("Entry");
  char szKeyPath[kRegistryPathSize];
  static_cast<void>(StringCchPrintfA(szKeyPath, kRegistryPathSize,
                                     R"(SYSTEM\CurrentControlSet\Services\%s\Status)",
                                     m_szServiceName));
  trace.Info("Before calling RegCreateKeyEx");
  RegistryKey key;
  DWORD disposition = 0;
  char emptyClass[] = "";
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, szKeyPath, /*Reserved=*/0, emptyClass,
                      REG_OPTION_NON_VOLATILE, KEY_WRITE, /*lpSecurityAttributes=*/nullptr,
                      key.Receive(), &disposition) != ERROR_SUCCESS) {
    trace.Error("RegCreateKeyEx Failed %u", GetLastError());
    return;
  }
  trace.Info("Before aclling RegSetValueEx");
  if (RegSetValueExA(key.Get(), "Current", /*Reserved=*/0, REG_DWORD,
                     reinterpret_cast<const BYTE*>(&m_dwCurrentStatus),
                     sizeof(m_dwCurrentStatus)) != ERROR_SUCCESS) {
    trace.Info("RegSetValueEx Failed");
  }
  key.Reset();
  trace.Info("Exit");
}

HMODULE LoadVorlcoreDll() {
  constexpr Trace trace{"LoadVorlcoreDll"};
  trace.Info("Entry.");
  wchar_t wszFilePath[kFolderBufferSize];
  if (!GetModulePath(kCoreModuleFile, wszFilePath)) {
    trace.Error("GetClientAgentRootDir Fail...");
    return nullptr;
  }
  trace.VerboseDirect(L"wszFilePath: %s", wszFilePath);

  const HMODULE module =
      LoadLibraryExW(wszFilePath, /*hFile=*/nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) {
    trace.ErrorDirect("Load Library Fail... with error (%lu)", GetLastError());
    return nullptr;
  }
  trace.Info("Exit.");
  return module;
}

bool DoPendingPatchTasks() {
  constexpr Trace trace{"DoPendingPatchTasks"};
  trace.Info("Entry.");
  wchar_t wszFilePath[kFolderBufferSize];
  if (!GetModulePath(kUpdateModuleFile, wszFilePath)) {
    trace.Error("GetAdmnConRootDir Fail...");
    return false;
  }
  trace.InfoDirect(L"wszFilePath: %s", wszFilePath);
  if (_waccess(wszFilePath, kExistenceOnly) != 0) {
    trace.ErrorDirect(L"File not exist (%s)", wszFilePath);
    return false;
  }

  Module module(LoadLibraryExW(wszFilePath, /*hFile=*/nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  if (!module) {
    trace.ErrorDirect("Load Library Fail... with error (%lu)", GetLastError());
    return false;
  }
  auto* const update =
      ProcAddress<UpdateBeforeClientServiceFn>(module.Get(), "UpdateBeforeClientService");
  if (update == nullptr) {
    trace.ErrorDirect("GetProcAddress Fail... with error (%lu)", GetLastError());
    return false;
  }
  if (update() == 0) {
    trace.Error("pfn_UpdateBeforeServerService Fail.");
    return false;
  }
  module.Reset();
  trace.Info("Exit.");
  return true;
}
