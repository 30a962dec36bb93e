// A core module that has nothing to do: both calls return at once, with what the build says.
#include "support/vorlcore.h"

extern "C" {

__declspec(dllexport) ClientAgentCoreStartUpFn ClientAgentCoreStartUp;
__declspec(dllexport) ClientAgentCoreCleanUpFn ClientAgentCoreCleanUp;

BOOLEAN ClientAgentCoreStartUp(const char* /*text1*/, const char* /*text2*/, const char* /*text3*/,
                               const char* /*text4*/, WORD /*word1*/, WORD /*word2*/,
                               WORD /*word3*/, WORD /*word4*/, DWORD /*dword1*/, DWORD /*dword2*/,
                               DWORD /*dword3*/, DWORD /*dword4*/, DWORD /*dword5*/, BYTE /*byte1*/,
                               DWORD /*dword6*/) {
  return START_UP_RESULT;
}

BOOLEAN ClientAgentCoreCleanUp(const char* /*text1*/, const char* /*text2*/, const char* /*text3*/,
                               const char* /*text4*/, WORD /*word1*/, DWORD /*dword1*/,
                               DWORD /*dword2*/, DWORD /*dword3*/, DWORD /*dword6*/,
                               BYTE /*notify*/) {
  return TRUE;
}
}
