// How the measuring program learns when a service has reached the core module.
#pragma once

#include "support/windows_api.h"

// An event that the core module sets, and the moment of its start in a mapping of that size.
constexpr char kProbeEvent[] = "Global\\ServiceBenchCoreEvent";
constexpr char kProbeMapping[] = "Global\\ServiceBenchCoreMoment";
constexpr DWORD kProbeSize = sizeof(LONGLONG);

// The clock's count, which is the same for all processes.
inline LONGLONG Ticks() noexcept {
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return now.QuadPart;
}
