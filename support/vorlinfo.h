// The contract of the version-information library vorlinfo.dll, which exports by ordinal only.
// Results are byte-sized booleans: nonzero is success, and only the low byte counts. A name is
// null-terminated and fits in `capacity` bytes; what does not fit is refused.
#pragma once

#include "support/windows_api.h"

extern "C" {

// Ordinal 1. The name that this product version uses for the kernel event `baseName`.
BOOLEAN GetEventNameByVersion(const char* baseName, char* versionedName, DWORD capacity);

// Ordinal 9. The name under which this product version's service `baseName` is installed.
BOOLEAN GetServiceNameByVersion(const char* baseName, char* versionedName, DWORD capacity);
}
