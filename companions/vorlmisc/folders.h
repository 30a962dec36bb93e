// The folders of companions/common/folders.h for the exported operations, which say why there is
// none.
#pragma once

#include "companions/common/folders.h"

// Each gives false, after one trace line in the name of `functionName`, when there is no usable
// folder.
bool FindRootFolder(const char* functionName, Folder& folder) noexcept;

// Makes the folder, not its parents, when it is missing: for administrators and the system only.
bool FindConfigFolder(const char* functionName, Folder& folder) noexcept;
