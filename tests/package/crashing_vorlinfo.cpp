// A version-information library that crashes its program: the crash that the symbols test explains.
#include "support/vorlinfo.h"

BOOLEAN GetEventNameByVersion(const char*, char*, DWORD) { return FALSE; }

BOOLEAN GetServiceNameByVersion(const char*, char*, DWORD) {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
  return FALSE;
}
