// Whether the process is ending.
#pragma once

#include "support/windows_api.h"

extern "C" __declspec(dllimport) BOOLEAN NTAPI RtlDllShutdownInProgress();

// Whether the process is ending: all threads but the calling one were ended wherever they were, so
// what they held is never given back, and nothing is worth a wait. Known before this library's own
// DllMain is told: modules that use it are told first.
inline bool IsProcessEnding() noexcept { return RtlDllShutdownInProgress() != FALSE; }
