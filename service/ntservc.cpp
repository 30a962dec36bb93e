#include "service/ntservc.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iterator>

#include "service/helperpipe.h"
#include "service/registration.h"
#include "service/reportgate.h"
#include "service/vorlfun.h"
#include "support/handle.h"
#include "support/textconv.h"
#include "support/trace.h"

namespace {

constexpr Trace parseTrace{"CNTService::ParseStandardArgs"};
constexpr Trace installTrace{"CNTService::Install"};

constexpr DWORD kRestartPauseMilliseconds = 100;

constexpr unsigned kDebugMessageSize = 1024;
constexpr unsigned kConsoleMessageSize = 500;

constexpr int kNarrowCommandPathSize = 4 * kCommandPathSize;  // no code page needs more

constinit ReportGate g_reportGate;

// All that a report of the status needs. Where the object may be gone already, a copy of this is
// reported.
struct StatusReport {
  char szServiceName[kServiceNameSize];
  SERVICE_STATUS_HANDLE hServiceStatus;
  SERVICE_STATUS status;
};

// The report of a failed initialisation, which is made twice.
constinit StatusReport g_failedInitialization{};

void SetRecoveryOptions(SC_HANDLE service, const char* serviceName, const wchar_t* commandPath) {
  // Both lines are at the error level, so that every trace tells what was installed.
  installTrace.Error("ConfigureServiceRecoveryOptions m_szServiceName (%s)", serviceName);
  // The C runtime's own "%S" knows no characters outside its locale; the code page knows more.
  char szCAServicePath[kNarrowCommandPathSize];
  static_cast<void>(WideToNarrow(commandPath, szCAServicePath, kNarrowCommandPathSize));
  installTrace.Error("ConfigureServiceRecoveryOptions wszCAServicePath (%s)", szCAServicePath);
  // A service without recovery actions is better than none; what failed is in the trace.
  static_cast<void>(ConfigureServiceRecoveryOptionsW(service, commandPath, SC_ACTION_RUN_COMMAND,
                                                     SC_ACTION_RUN_COMMAND, SC_ACTION_NONE));
}

bool IsOption(const char* argument, const char* option) { return _stricmp(argument, option) == 0; }

void SendDebugMessageV(const char* serviceName, const char* format, va_list arguments) {
  constexpr Trace trace{"CNTService::DebugMsg"};
  trace.Info("Entry");
  char szMessage[kDebugMessageSize];
  char* end = szMessage;
  size_t left = kDebugMessageSize - 1;  // the line feed
  // Cut messages are still sent.
  static_cast<void>(StringCchPrintfExA(end, left, &end, &left, /*dwFlags=*/0,
                                       "[%s](%lu): ", serviceName, GetCurrentThreadId()));
  static_cast<void>(StringCchVPrintfExA(end, left, &end, &left, /*dwFlags=*/0, format, arguments));
  end[0] = '\n';
  end[1] = '\0';
  OutputDebugStringA(szMessage);
  trace.Info("Exit");
}

void SendDebugMessage(const char* serviceName, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  SendDebugMessageV(serviceName, format, arguments);
  va_end(arguments);
}

void ReportStatus(const char* serviceName, SERVICE_STATUS_HANDLE handle, SERVICE_STATUS& status,
                  DWORD state) {
  constexpr Trace trace{"CNTService::SetStatus"};
  trace.Info("Entry");
  SendDebugMessage(serviceName, "CNTService::SetStatus(%lu, %lu)",
                   static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(handle)), state);
  // A control that comes during the last report must not change what is being reported.
  if (state == SERVICE_STOPPED || g_reportGate.MayReport()) {
    status.dwCurrentState = state;
    SetServiceStatus(handle, &status);
  }
  trace.Info("Exit");
}

// All that a hook does when no derived class replaces it.
void TraceHook(const Trace& trace) {
  trace.Info("Entry");
  trace.Info("Exit");
}

}  // namespace

CNTService* CNTService::s_pThis = nullptr;
RemovalHooks CNTService::s_removalHooks = {};

CNTService::CNTService(const char* serviceName)
    : m_szServiceName{},
      m_nSpare1(1),
      m_nSpare2(0),
      m_hServiceStatus(nullptr),
      m_ServiceStatus{},
      m_bRunning(FALSE),
      m_bNotifyServer(false),
      m_hEventLogSource(nullptr) {
  static_assert(sizeof(CNTService) == 136, "the class has exactly its declared fields");
  constexpr Trace trace{"CNTService::CNTService"};
  trace.Info("Entry");
  s_pThis = this;
  g_reportGate.Open();
  // A name that is too long is cut.
  static_cast<void>(StringCchCopyA(m_szServiceName, kServiceNameSize, serviceName));
  m_ServiceStatus.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  m_ServiceStatus.dwCurrentState = SERVICE_STOPPED;
  m_ServiceStatus.dwControlsAccepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
  trace.Info("Exit");
}

CNTService::~CNTService() {
  constexpr Trace trace{"CNTService::~CNTService"};
  trace.Info("Entry");
  if (m_hEventLogSource != nullptr) {
    DeregisterEventSource(m_hEventLogSource);
  }
  trace.Info("Exit");
}

BOOL CNTService::ParseStandardArgs(int argc, char** argv) {
  parseTrace.Info("Entry");
  if (argc <= 1) {
    parseTrace.Info("No Arguments hence returning");
    parseTrace.Info("Exit");
    return FALSE;
  }
  const char* const option = argv[1];
  if (IsOption(option, "-install")) {
    CommandInstall();
  } else if (IsOption(option, "-start") || IsOption(option, "-reset")) {
    CommandStart();
  } else if (IsOption(option, "-stop")) {
    CommandStop();
  } else if (IsOption(option, "-stopmanual")) {
    CommandStopManual();
  } else if (IsOption(option, "-restart")) {
    CommandRestart();
  } else if (IsOption(option, "-uninstall")) {
    CommandUninstall();
  } else {
    parseTrace.Info("Exit");
    return FALSE;
  }
  return TRUE;
}

void CNTService::CommandInstall() {
  parseTrace.Info("-install");
  if (IsInstalled()) {
    parseTrace.Info("Service is Already installed");
    std::printf("%s is already installed\n", m_szServiceName);
    parseTrace.Info("Exit");
    return;
  }

  parseTrace.Info("Service not installed hence Insatalling client agent");
  if (!Install()) {
    const DWORD error = GetLastError();
    char szMessage[kConsoleMessageSize];
    // A name of 63 characters fits.
    static_cast<void>(StringCchPrintfA(szMessage, kConsoleMessageSize,
                                       "Unable to install %s. (Error %d)\n", m_szServiceName,
                                       error));
    // The message itself is the format, so a "%" in the service name is interpreted a second time.
    // Scripts that read this line know it so.
#if defined(__GNUC__) || defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
#endif
    std::printf(szMessage);
#if defined(__GNUC__) || defined(__clang__)
#pragma GCC diagnostic pop
#endif
    parseTrace.Info("%s", szMessage);
    return;
  }
  parseTrace.Info("Service installed successfully");
  std::printf("%s is installed successfully\n", m_szServiceName);
  parseTrace.Info("Exit");
}

void CNTService::CommandStart() {
  parseTrace.Info("-start");
  parseTrace.Info("Before calling StartServiceByName");
  static_cast<void>(StartServiceByName(m_szServiceName));  // it traced why it failed
  parseTrace.Info("After calling StartServiceByName");
  parseTrace.Info("Exit");
}

void CNTService::CommandStop() {
  parseTrace.Info("-stop");
  if (!IsInstalled()) {
    return;
  }
  NotifyHelper(kHelperActionStopping);
  parseTrace.Info("Before calling StopServiceByName");
  if (!StopServiceByName(m_szServiceName)) {
    parseTrace.Info("Stop service Failed");
  }
  parseTrace.Info("After calling StopServiceByName returning");
  NotifyHelper(kHelperActionStopped);
  parseTrace.Info("Exit");
}

void CNTService::CommandStopManual() {
  parseTrace.Info("-stopmanual");
  if (!IsInstalled()) {
    return;
  }
  NotifyHelper(kHelperActionStopping);
  parseTrace.Info("Before calling StopServiceByName");
  m_bNotifyServer = true;
  if (!StopServiceByNameEx(m_szServiceName)) {
    parseTrace.Info("Stop service Failed");
  }
  parseTrace.Info("After calling StopServiceByName returning");
  NotifyHelper(kHelperActionStopped);
  parseTrace.Info("Exit");
}

void CNTService::CommandRestart() {
  parseTrace.Info("-restart");
  if (IsInstalled()) {
    NotifyHelper(kHelperActionStopping);
    parseTrace.Info("Before calling StopServiceByName");
    if (!StopServiceByName(m_szServiceName)) {
      parseTrace.Info("Stop service Failed");
    }
    parseTrace.Info("After calling StopServiceByName");
    NotifyHelper(kHelperActionStopped);
  }

  Sleep(kRestartPauseMilliseconds);
  parseTrace.Info("Before calling StartServiceByName");
  if (!StartServiceByName(m_szServiceName)) {
    parseTrace.Info("StartServiceByName Failed");
  }
  parseTrace.Info("After calling StartServiceByName");
  parseTrace.Info("Exit");
}

void CNTService::CommandUninstall() {
  parseTrace.Info("-uninstall");
  if (!IsInstalled()) {
    std::printf("%s is not installed\n", m_szServiceName);
    parseTrace.Info("Service Not Found :: Unable to uninstall the service bcoz");
    return;
  }
  if (!Uninstall()) {
    const DWORD error = GetLastError();
    parseTrace.Info("Uninstall Failed");
    std::printf("Could not remove %s. Error %d\n", m_szServiceName, static_cast<int>(error));
    return;
  }
  parseTrace.Info("Uninstall Success");
  parseTrace.Info("Exit");
}

void CNTService::NotifyHelper(DWORD actionCode) {
  wchar_t wszServiceName[kWideServiceNameSize];
  // A name that cannot be converted is sent empty, and no caller depends on the reply.
  static_cast<void>(NarrowToWide(m_szServiceName, wszServiceName, kWideServiceNameSize));
  static_cast<void>(NotifyHelperPipe(wszServiceName, actionCode, /*flag=*/0));
}

BOOL CNTService::StartService() {
  constexpr Trace trace{"CNTService::StartService"};
  trace.Info("Entry");
  const SERVICE_TABLE_ENTRYA serviceTable[] = {{m_szServiceName, &CNTService::ServiceMain},
                                               {nullptr, nullptr}};
  trace.Info("Before calling StartServiceCtrlDispatcher");
  const BOOL result = StartServiceCtrlDispatcherA(serviceTable);
  trace.Info("After calling StartServiceCtrlDispatcher");
  // It returns when STOPPED is reported; the service thread still has its last lines to write.
  if (!g_reportGate.WaitUntilLeft()) {
    trace.Error("ServiceMain or Handler does not return");
  }
  trace.Info("Exit");
  return result;
}

void WINAPI CNTService::ServiceMain(DWORD /*argc*/, char** /*argv*/) {
  const auto visit = ReportGate::Visit::OfServiceMain(g_reportGate);
  constexpr Trace trace{"CNTService::ServiceMain"};
  trace.Info("Entry");
  CNTService* const service = s_pThis;
  service->m_ServiceStatus.dwCurrentState = SERVICE_START_PENDING;
  service->m_hServiceStatus =
      RegisterServiceCtrlHandlerA(service->m_szServiceName, &CNTService::Handler);
  if (service->m_hServiceStatus == nullptr) {
    trace.Error("pService->m_hServiceStatus == NULL");
    return;
  }

  if (service->Initialize()) {
    service->m_bRunning = TRUE;
    service->m_ServiceStatus.dwWin32ExitCode = NO_ERROR;
    service->m_ServiceStatus.dwCheckPoint = 0;
    service->m_ServiceStatus.dwWaitHint = 0;
    service->Run();
    g_reportGate.Close();
    service->SetStatus(SERVICE_STOPPED);
  } else {
    // STOPPED once more, from a copy.
    StatusReport& report = g_failedInitialization;
    ReportStatus(report.szServiceName, report.hServiceStatus, report.status, SERVICE_STOPPED);
  }
  // The dispatcher has returned or is about to, and the object may be gone.
  trace.Info("Exit");
}

void CNTService::WaitForHandler() noexcept { g_reportGate.WaitForHandler(); }

BOOL CNTService::Initialize() {
  constexpr Trace trace{"CNTService::Initialize"};
  trace.Info("Entry");
  SetStatus(SERVICE_START_PENDING);

  const BOOL initialized = OnInit();
  m_ServiceStatus.dwWin32ExitCode = GetLastError();
  m_ServiceStatus.dwCheckPoint = 0;
  m_ServiceStatus.dwWaitHint = 0;
  if (!initialized) {
    g_reportGate.Close();
    static_assert(sizeof(g_failedInitialization.szServiceName) == sizeof(m_szServiceName));
    std::memcpy(g_failedInitialization.szServiceName, m_szServiceName, sizeof(m_szServiceName));
    g_failedInitialization.hServiceStatus = m_hServiceStatus;
    g_failedInitialization.status = m_ServiceStatus;
    SetStatus(SERVICE_STOPPED);
    return FALSE;
  }

  SetStatus(SERVICE_RUNNING);
  trace.Info("Exit");
  return TRUE;
}

void WINAPI CNTService::Handler(DWORD control) {
  const auto visit = ReportGate::Visit::OfHandler(g_reportGate);
  constexpr Trace trace{"CNTService::Handler"};
  trace.Info("Entry");
  CNTService* const service = s_pThis;
  if (control == SERVICE_CONTROL_USER_STOP) {
    trace.Info("Got user stop notification");
    service->m_bNotifyServer = true;
  }
  service->DispatchControl(control);
  // After STOPPED this report would be the one that counts for the service control manager.
  if (g_reportGate.MayReport()) {
    SetServiceStatus(service->m_hServiceStatus, &service->m_ServiceStatus);
  }
  trace.Info("Exit");
}

void CNTService::DispatchControl(DWORD control) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_USER_STOP:
      SetStatus(SERVICE_STOP_PENDING);
      OnStop();
      m_bRunning = FALSE;
      break;
    case SERVICE_CONTROL_PAUSE:
      OnPause();
      break;
    case SERVICE_CONTROL_CONTINUE:
      OnContinue();
      break;
    case SERVICE_CONTROL_INTERROGATE:
      OnInterrogate();
      break;
    case SERVICE_CONTROL_SHUTDOWN:
      OnShutdown();
      break;
    default:
      if (control >= kFirstUserControl) {
        static_cast<void>(OnUserControl(control));  // there is nobody to tell
      }
      break;
  }
}

void CNTService::Run() { TraceHook(Trace{"CNTService::Run"}); }

BOOL CNTService::OnInit() {
  TraceHook(Trace{"CNTService::OnInit"});
  return TRUE;
}

void CNTService::OnStop() { TraceHook(Trace{"CNTService::OnStop"}); }

void CNTService::OnInterrogate() { TraceHook(Trace{"CNTService::OnInterrogate"}); }

void CNTService::OnPause() { TraceHook(Trace{"CNTService::OnPause"}); }

void CNTService::OnContinue() { TraceHook(Trace{"CNTService::OnContinue"}); }

void CNTService::OnShutdown() { TraceHook(Trace{"CNTService::OnShutdown"}); }

BOOL CNTService::OnUserControl(DWORD /*code*/) {
  TraceHook(Trace{"CNTService::OnUserControl"});
  return FALSE;
}

void CNTService::SetStatus(DWORD state) {
  ReportStatus(m_szServiceName, m_hServiceStatus, m_ServiceStatus, state);
}

void CNTService::DebugMsg(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  SendDebugMessageV(m_szServiceName, format, arguments);
  va_end(arguments);
}

BOOL CNTService::IsInstalled() {
  constexpr Trace trace{"CNTService::IsInstalled"};
  trace.Info("Entry");
  const ServiceHandle manager = OpenManager();
  if (!manager) {
    trace.Info("Unable to open service Manager: %u", GetLastError());
    return FALSE;
  }
  const ServiceHandle service(OpenServiceA(manager.Get(), m_szServiceName, SERVICE_QUERY_CONFIG));
  if (!service) {
    trace.Info("Unable to open service : %u", GetLastError());
    return FALSE;
  }
  trace.Info("Exit");
  return TRUE;
}

BOOL CNTService::Install() {
  installTrace.Info("Entry");
  ServiceHandle manager = OpenManager();
  if (!manager) {
    installTrace.Info("Unable to open service Manager: %u", GetLastError());
    return FALSE;
  }
  wchar_t wszCAServicePath[kCommandPathSize];
  if (!GetCommandPath(wszCAServicePath)) {
    installTrace.Error("GetModuleFileName Failed %u", GetLastError());
    return FALSE;
  }
  ServiceHandle service = CreateOwnService(manager.Get(), m_szServiceName, wszCAServicePath);
  if (!service) {
    installTrace.Error("CreateService Failed %u", GetLastError());
    return FALSE;
  }
  SetRecoveryOptions(service.Get(), m_szServiceName, wszCAServicePath);
  service.Reset();
  manager.Reset();
  // A failure leaves the service installed: it runs without an event-log source as well.
  if (!AddEventLogSource(m_szServiceName, wszCAServicePath)) {
    // The thread's last error, not the function's result: what the console then prints.
    installTrace.Error("RegCreateKey Failed %u", GetLastError());
    return FALSE;
  }
  installTrace.Info("Exit");
  return TRUE;
}

BOOL CNTService::Uninstall() {
  constexpr Trace trace{"CNTService::Uninstall"};
  trace.Info("Entry");
  ServiceHandle manager = OpenManager();
  if (!manager) {
    trace.Info("Unable to open service Manager: %u", GetLastError());
    return FALSE;
  }
  NotifyHelper(kHelperActionUninstalling);

  ServiceHandle service(OpenServiceA(manager.Get(), m_szServiceName, DELETE));
  if (!service) {
    manager.Reset();
    trace.Info("Exit");
    return FALSE;
  }

  std::uint64_t token = 0;
  const bool admitted = s_removalHooks.admit != nullptr && s_removalHooks.admit(&token);
  const BOOL deleted = DeleteService(service.Get());
  if (admitted && s_removalHooks.release != nullptr) {
    const LastErrorKeeper keeper;
    s_removalHooks.release(token);
  }
  service.Reset();
  manager.Reset();
  trace.Info("Exit");
  return deleted ? TRUE : FALSE;
}
