#include "agent/cathdsvc.h"

#include <iterator>

#include "agent/vorlsvc.h"
#include "support/handle.h"
#include "support/trace.h"
#include "support/vorlinfo.h"
#include "support/windows_api.h"

namespace {

constexpr Trace trace{"WaitForServiceClosure"};

// Puts this product version's name of the event `baseName` into `name`.
bool GetEventName(const char* baseName, char (&name)[kEventNameSize]) {
  char szVersionedName[kEventNameSize] = {};
  if (GetEventNameByVersion(baseName, szVersionedName, kEventNameSize) == 0) {
    trace.Error("GetEventNameByVersion Failed");
    return false;
  }
  // The sizes are the same.
  static_cast<void>(StringCchCopyA(name, kEventNameSize, szVersionedName));
  return true;
}

HANDLE CreateWatchedEvent(SECURITY_ATTRIBUTES& attributes, const char* name) {
  const HANDLE event =
      CreateEventA(&attributes, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE, name);
  if (event == nullptr) {
    trace.Info("CreateEvent Failed for %s (%u):", name, GetLastError());
  }
  return event;
}

}  // namespace

unsigned __stdcall WaitForServiceClosure(void* argument) {
  trace.Info("Entry");
  if (argument == nullptr) {
    trace.Info("NULL Parameter Received");
    return 0;
  }
  CAcAsSvc& service = *static_cast<CAcAsSvc*>(argument);
  service.m_hCloseEvent = nullptr;

  char szCloseName[kEventNameSize];
  char szExitName[kEventNameSize];
  if (!GetEventName(kCloseEventBaseName, szCloseName) ||
      !GetEventName(kExitEventBaseName, szExitName)) {
    return 0;
  }

  service.m_hCloseEvent = CreateWatchedEvent(service.m_SecurityAttributes, szCloseName);
  if (service.m_hCloseEvent == nullptr) {
    return 0;
  }
  KernelHandle exitEvent(CreateWatchedEvent(service.m_SecurityAttributes, szExitName));
  if (!exitEvent) {
    // The member keeps the closed value; nobody waits on it any more.
    CloseHandle(service.m_hCloseEvent);
    return 0;
  }

  const HANDLE events[] = {service.m_hCloseEvent, exitEvent.Get()};
  switch (WaitForMultipleObjects(static_cast<DWORD>(std::size(events)), events,
                                 /*bWaitAll=*/FALSE, INFINITE)) {
    case WAIT_OBJECT_0:
      trace.Info("Close Event Signalled");
      break;
    case WAIT_OBJECT_0 + 1:
      trace.Info("Exit Event Signalled");
      break;
    case WAIT_FAILED:
      trace.Error("WaitForMultipleObjects Failed");
      break;
    default:
      break;
  }
  exitEvent.Reset();
  trace.Info("Exit");
  return 0;
}
