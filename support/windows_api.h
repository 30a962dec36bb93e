// The one way in which this program includes the Windows interfaces. The build defines
// WIN32_LEAN_AND_MEAN, NOMINMAX, the target version and STRSAFE_NO_DEPRECATE.
#pragma once

#include <windows.h>

// strsafe.h reads the types of windows.h.
#include <strsafe.h>
