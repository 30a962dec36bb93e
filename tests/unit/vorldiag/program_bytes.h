// The bytes of programs.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include "support/windows_api.h"

inline IMAGE_NT_HEADERS64& HeadersOf(std::string& bytes) {
  auto* const dos = reinterpret_cast<IMAGE_DOS_HEADER*>(bytes.data());
  return *reinterpret_cast<IMAGE_NT_HEADERS64*>(bytes.data() + dos->e_lfanew);
}

// This test's own program, with the checksum that the linker wrote.
inline std::string OwnProgram() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::ifstream file(std::string(path, path + wcslen(path)), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// With a signature over it, as signing tools lay it.
inline std::string Signed(std::string bytes) {
  constexpr std::size_t alignment = 8;
  bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
  IMAGE_NT_HEADERS64& headers = HeadersOf(bytes);
  const std::string certificates(1000, 'c');
  headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_SECURITY] = {
      static_cast<DWORD>(bytes.size()), static_cast<DWORD>(certificates.size())};
  headers.OptionalHeader.CheckSum = 0x12345;
  return bytes + certificates;
}
