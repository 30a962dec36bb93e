// Whether there is a folder of a name.
#pragma once

#include "support/windows_api.h"

// False also for a file, and for what may not be looked at.
inline bool IsFolder(const wchar_t* path) noexcept {
  const DWORD attributes = GetFileAttributesW(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}
