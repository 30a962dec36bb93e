// A general base class for a Windows service that runs in a process of its own and that installs
// and controls itself from its command line.
#pragma once

#include <cstdint>

#include "support/windows_api.h"

// winsvc.h defines this name as a macro for the narrow or wide function.
#undef StartService

// The program's own service control code: a stop by the administrator's deliberate action, of which
// the service notifies the server. Sent by StopServiceByNameEx, handled by CNTService::Handler.
constexpr DWORD SERVICE_CONTROL_USER_STOP = 140;

// The first control code that is a service's own.
constexpr DWORD kFirstUserControl = 128;

constexpr unsigned kServiceNameSize = 64;

// How the installation's self-protection component takes part in an uninstallation: `admit` is
// asked before the service is deleted and hands back a token when it grants the removal; `release`
// gets that token back afterwards. A removal that is not granted is tried all the same. Either
// function may be null.
struct RemovalHooks {
  bool (*admit)(std::uint64_t* token);
  void (*release)(std::uint64_t token);
};

// There is one live object in a process: the service control manager's callbacks reach it through
// a static pointer.
class CNTService {
 public:
  // `serviceName`: shorter than 63 characters, for the products that read the field; what is longer
  // than 63 is cut.
  explicit CNTService(const char* serviceName);
  virtual ~CNTService();
  CNTService(const CNTService&) = delete;
  CNTService& operator=(const CNTService&) = delete;

  // Performs the command in argv[1]. True when there was one; false when the process is to run as
  // the service. A failure does not show in the result: every one is traced, that of an
  // installation or a removal is printed as well. A stop of a service that is not installed does
  // nothing and is no failure.
  BOOL ParseStandardArgs(int argc, char** argv);

  // Connects the process to the service control manager and blocks until the service has stopped
  // and its callbacks have returned. False at once when the process was not started as a service.
  BOOL StartService();

  // Whether the service can be opened for querying its configuration.
  BOOL IsInstalled();

  // Registers the service with its recovery actions and event-log source. The thread's last error
  // says why on false.
  BOOL Install();

  // Marks the service for deletion. The thread's last error says why on false.
  BOOL Uninstall();

  // The exit code that the service has reported or is going to report.
  DWORD ExitCode() const noexcept { return m_ServiceStatus.dwWin32ExitCode; }

  // Sets the hooks that Uninstall calls; there are none at first.
  static void SetRemovalHooks(const RemovalHooks& hooks) noexcept { s_removalHooks = hooks; }

 protected:
  // The service's body; the service is reported stopped when it returns.
  virtual void Run();
  // Prepares the service; false, with the last error set, keeps it from running.
  virtual BOOL OnInit();
  // Called on the control handler's thread: must make Run return, and must not wait for it.
  virtual void OnStop();
  virtual void OnInterrogate();
  virtual void OnPause();
  virtual void OnContinue();
  virtual void OnShutdown();
  // `code`: kFirstUserControl or more. True when the code is known.
  virtual BOOL OnUserControl(DWORD code);

  static void WINAPI ServiceMain(DWORD argc, char** argv);
  static void WINAPI Handler(DWORD control);

  // Waits, 5 s at the most, until no control is being handled. What a derived class has taken out
  // of reach of its hooks beforehand may then be freed. Not for the handler's own thread.
  static void WaitForHandler() noexcept;

  BOOL Initialize();
  void SetStatus(DWORD state);

  // Sends a printf-like message to the debugger; cut to 1,023 characters with prefix and line end.
  void DebugMsg(const char* format, ...);

  char m_szServiceName[kServiceNameSize];
  std::int32_t m_nSpare1;
  std::int32_t m_nSpare2;
  SERVICE_STATUS_HANDLE m_hServiceStatus;
  SERVICE_STATUS m_ServiceStatus;
  BOOL m_bRunning;
  // Set when the service was stopped with SERVICE_CONTROL_USER_STOP.
  bool m_bNotifyServer;
  HANDLE m_hEventLogSource;

 private:
  void DispatchControl(DWORD control);

  void CommandInstall();
  void CommandStart();
  void CommandStop();
  void CommandStopManual();
  void CommandRestart();
  void CommandUninstall();
  void NotifyHelper(DWORD actionCode);

  static CNTService* s_pThis;
  static RemovalHooks s_removalHooks;
};
