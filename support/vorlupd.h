// The contract of the update module vorlupd.dll, which applies pending patches before the core
// module is loaded, and exports by name.
#pragma once

#include "support/windows_api.h"

constexpr wchar_t kUpdateModuleFile[] = L"\\vorlupd.dll";

// Export "UpdateBeforeClientService": applies pending patches and returns. A byte-sized boolean:
// nonzero is success, and only the low byte counts. The module is unloaded then.
using UpdateBeforeClientServiceFn = BOOLEAN();
