// What the tests of the agent's service share.
#pragma once

#include <string>

#include "agent/cathdsvc.h"
#include "agent/vorlsvc.h"
#include "support/windows_api.h"

// The base names of the two events, which are the labels of their handles in HandleCalls.
inline const std::string kCloseEvent = "AcClientAgentSrvcCloseFromServicef";
inline const std::string kExitEvent = "AcClientAgentSrvcExitFromOuterModuleEvent";

// The names that the stand-in for the version library makes of them.
inline std::string VersionedName(const std::string& baseName) {
  return "Test_" + std::to_string(GetCurrentProcessId()) + "_" + baseName;
}

// The service with its hooks and members in reach.
class TestService : public CAcAsSvc {
 public:
  explicit TestService(const char* name = "Test Client Agent") : CAcAsSvc(name) {}

  using CAcAsSvc::Handler;
  using CAcAsSvc::OnInit;
  using CAcAsSvc::OnShutdown;
  using CAcAsSvc::OnStop;
  using CAcAsSvc::OnUserControl;
  using CAcAsSvc::Run;
  using CAcAsSvc::SaveStatus;
  using CAcAsSvc::ServiceMain;

  using CAcAsSvc::m_bNotifyServer;
  using CAcAsSvc::m_dwCurrentStatus;
  using CAcAsSvc::m_dwFlag1;
  using CAcAsSvc::m_dwFlag2;
  using CAcAsSvc::m_dwReserved;
  using CAcAsSvc::m_hCloseEvent;
  using CAcAsSvc::m_pAcl;
  using CAcAsSvc::m_pEveryoneSid;
  using CAcAsSvc::m_pSecurityDescriptor;
  using CAcAsSvc::m_SecurityAttributes;

  // The closure watcher's work on the calling thread.
  unsigned Watch() { return WaitForServiceClosure(static_cast<CAcAsSvc*>(this)); }
};

// A handle of the test's own to the event `baseName`, made when it does not exist yet. Not seen by
// HandleCalls.
inline HANDLE OpenOrCreateEvent(const std::string& baseName) {
  const std::string name = VersionedName(baseName);
  return CreateEventW(nullptr, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE,
                      std::wstring(name.begin(), name.end()).c_str());
}

inline bool IsSignalled(HANDLE event) { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; }
