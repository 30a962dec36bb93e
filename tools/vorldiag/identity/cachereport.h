// The commands that write and compare the hardware cache file.
#pragma once

#include <string>

#include "tools/vorldiag/identity/hardware.h"
#include "tools/vorldiag/report/findings.h"

// Writes the hardware cache file hwcdata.dat into `folder`, replacing the one that is there.
Report WriteCacheReport(const Hardware& hardware, const std::wstring& folder);

// Compares each parameter with the one that the file keeps; letter case does not count.
Report CheckCacheReport(const Hardware& hardware, const std::wstring& folder);
