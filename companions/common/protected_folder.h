// Makes folders that only administrators and the system can use: for the configuration and the
// trace.
#pragma once

#include "support/windows_api.h"

// Makes the folder, not its parents, for administrators and the system only: its access list is
// protected, so nothing is inherited from above. What is there already is left as it is. Returns a
// Windows error; ERROR_SUCCESS also when there was a folder before.
DWORD MakeProtectedFolder(const wchar_t* path) noexcept;
