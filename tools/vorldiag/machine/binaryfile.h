// One file of the installation: what its bytes say.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/windows_api.h"

struct BinaryFile {
  DWORD error = ERROR_SUCCESS;  // when it cannot be read
  std::uint64_t size = 0;
  std::string version;        // "1.0.0.0", empty when it has none
  std::wstring originalName;  // by its version resource, empty when that has none
  std::string sha256;         // 64 lower-case digits
  // Those that it may have had before it was signed; empty when it is not.
  std::vector<std::string> unsignedSha256;
  std::string damage;  // why Windows would not load it; empty when nothing speaks against it
  std::vector<WORD> ordinals;          // what it exports by number
  std::vector<std::string> functions;  // and by name
};

// Reads the file, leaving it free for everybody else to read, write, rename and delete.
BinaryFile ReadBinaryFile(const std::wstring& path);

// The SHA-256 of bytes as 64 lower-case digits; empty when Windows' provider is missing.
std::string Sha256(const std::string& bytes);
