// The one way in which this program includes the Windows interfaces, so that every file sees them
// alike, whatever it includes first. The build defines what they go by: WIN32_LEAN_AND_MEAN (leaves
// COM and sockets out), NOMINMAX (no macros in the place of std::min and std::max), the target
// version (a function that Windows 7 lacks does not compile) and STRSAFE_NO_DEPRECATE (strsafe.h
// would otherwise forbid C functions of which some are used on purpose).
#pragma once

#include <windows.h>

// strsafe.h reads the types of windows.h.
#include <strsafe.h>
