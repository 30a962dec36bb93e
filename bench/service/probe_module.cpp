// The core and update module of every service that is measured: tells when it was entered and has
// nothing else to do.
#include "bench/service/probe.h"
#include "support/vorlcore.h"
#include "support/vorlupd.h"

extern "C" {
__declspec(dllexport) ClientAgentCoreStartUpFn ClientAgentCoreStartUp;
__declspec(dllexport) ClientAgentCoreCleanUpFn ClientAgentCoreCleanUp;
__declspec(dllexport) UpdateBeforeClientServiceFn UpdateBeforeClientService;
}

BOOLEAN ClientAgentCoreStartUp(const char* /*text1*/, const char* /*text2*/, const char* /*text3*/,
                               const char* /*text4*/, WORD /*word1*/, WORD /*word2*/,
                               WORD /*word3*/, WORD /*word4*/, DWORD /*dword1*/, DWORD /*dword2*/,
                               DWORD /*dword3*/, DWORD /*dword4*/, DWORD /*dword5*/, BYTE /*byte1*/,
                               DWORD /*dword6*/) {
  const LONGLONG entered = Ticks();
  const HANDLE mapping = OpenFileMappingA(FILE_MAP_WRITE, FALSE, kProbeMapping);
  const HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, kProbeEvent);
  if (void* const view = MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, kProbeSize)) {
    *static_cast<volatile LONGLONG*>(view) = entered;
    UnmapViewOfFile(view);
  }
  SetEvent(event);
  CloseHandle(event);
  CloseHandle(mapping);
  return TRUE;
}

BOOLEAN ClientAgentCoreCleanUp(const char* /*text1*/, const char* /*text2*/, const char* /*text3*/,
                               const char* /*text4*/, WORD /*word1*/, DWORD /*dword1*/,
                               DWORD /*dword2*/, DWORD /*dword3*/, DWORD /*dword6*/,
                               BYTE /*notify*/) {
  return TRUE;
}

BOOLEAN UpdateBeforeClientService() { return TRUE; }
