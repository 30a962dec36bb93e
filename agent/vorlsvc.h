// The client agent service: hosts the update module and the core module.
#pragma once

#include <cstdint>

#include "service/ntservc.h"
#include "support/handle.h"
#include "support/trace.h"
#include "support/vorlmisc.h"
#include "support/windows_api.h"

class CAcAsSvc : public CNTService {
 public:
  // `serviceName`: as for CNTService.
  explicit CAcAsSvc(const char* serviceName);
  ~CAcAsSvc() override;

 protected:
  void Run() override;
  BOOL OnInit() override;
  void OnStop() override;
  void OnShutdown() override;
  BOOL OnUserControl(DWORD code) override;

  // Writes m_dwCurrentStatus to the value "Current" of the service's registry key "Status".
  void SaveStatus();

  SECURITY_ATTRIBUTES m_SecurityAttributes{};
  PSID m_pEveryoneSid = nullptr;
  PACL m_pAcl = nullptr;
  PSECURITY_DESCRIPTOR m_pSecurityDescriptor = nullptr;
  std::uint32_t m_dwFlag1;
  std::uint32_t m_dwFlag2;
  std::uint32_t m_dwCurrentStatus;
  std::uint32_t m_dwReserved;
  // Set by the closure watcher alone; null until it runs.
  HANDLE m_hCloseEvent = nullptr;

 private:
  friend unsigned __stdcall WaitForServiceClosure(void* argument);

  // The steps of Run.
  HANDLE StartWatcher();
  bool StartCore(Module& core, const CLIENT_AGENT_STARTUP_OPTIONS& options);
  bool CleanUpCore(HMODULE core, const CLIENT_AGENT_STARTUP_OPTIONS& options) const;
  void TakeBackSecurityDescriptor();

  KernelHandle CreateCloseEvent(const Trace& trace);
  void SignalCloseEvent(const Trace& trace);

  // A stop may come before the closure watcher holds the close event. The event must then outlive
  // the stop path's own handle, or the signal dies with it: this second handle keeps it.
  HANDLE m_hSignalledCloseEvent = nullptr;
};

// Loads the core module from the agent's root folder. The caller frees it; null on failure.
HMODULE LoadVorlcoreDll();

// Lets the update module, when there is one, apply pending patches, and unloads it again. True when
// it reported success.
bool DoPendingPatchTasks();
