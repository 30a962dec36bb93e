// Reads files that others are writing, renaming or deleting.
#pragma once

#include <cstdint>
#include <string>

#include "support/handle.h"

// Opens a file to read, leaving it free for everybody else to read, write, rename and delete. None,
// with the last error set, when it cannot be.
FileHandle OpenShared(const std::wstring& path);

// Reads a whole file that way. A Windows error; ERROR_FILE_TOO_LARGE for more than `largest` bytes.
// A file that grows meanwhile is read up to where it ended.
DWORD ReadSharedFile(const std::wstring& path, std::uint64_t largest, std::string& bytes);
