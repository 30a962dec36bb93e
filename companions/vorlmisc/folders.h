// The folders of companions/common/folders.h for the exported operations, which say why there is
// none.
#pragma once

#include "companions/common/folders.h"

// When there is no usable folder, each writes one trace line in the name of `functionName` and
// gives false.
// No folder either when a module that the program loads from it is a link to another computer.
bool FindRootFolder(const char* functionName, Folder& folder) noexcept;

// Makes the folder, not its parents, when it is missing: for administrators and the system only.
bool FindConfigFolder(const char* functionName, Folder& folder) noexcept;
