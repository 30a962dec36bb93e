// The folders of companions/common/folders.h for the exported operations, which say why there is
// none.
#pragma once

#include "companions/common/folders.h"

// When there is no usable folder, each writes one trace line in the name of `functionName` and
// gives false.
bool FindRootFolder(const char* functionName, Folder& folder) noexcept;

// Makes the folder, not its parents, when it is missing: for administrators and the system only.
bool FindConfigFolder(const char* functionName, Folder& folder) noexcept;
