// Where this installation and its configuration lie.
//
// The installer writes both folders as the texts "RootDir" and "ConfigDir" into the key
// HKEY_LOCAL_MACHINE\SOFTWARE\Client Agent\<major version>. A value that is missing or empty means:
// the folder of this library, and "conf" below the installation folder. A value that is there but
// cannot be used is never replaced by a guess: the operation fails.
#pragma once

#include "support/windows_api.h"

// The longest folder that is given out. The service's buffers hold 264 characters, and it appends
// a backslash and a file name, 13 characters together; the terminator comes on top.
constexpr DWORD kLongestFolder = 264 - 13 - 1;

struct Folder {
  // Full path without trailing backslash, null-terminated.
  wchar_t path[kLongestFolder + 1];
};

// Each gives false, after one trace line in the name of `functionName`, when there is no usable
// folder: the registered value is no text, no full path or too long, or the installation folder
// does not exist.
bool FindRootFolder(const char* functionName, Folder& folder) noexcept;

// Makes the folder, not its parents, when it is missing.
bool FindConfigFolder(const char* functionName, Folder& folder) noexcept;
