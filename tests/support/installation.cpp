#include "tests/support/installation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

fs::path StagedFolder() {
  wchar_t program[1024];
  GetModuleFileNameW(nullptr, program, 1024);
  return fs::path(program).parent_path().parent_path().parent_path() / "bin";
}

Library::Library(const fs::path& file)
    : m_module(LoadLibraryExW(file.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH)) {
  EXPECT_TRUE(m_module) << file << " cannot be loaded, error " << GetLastError();
}

const IMAGE_EXPORT_DIRECTORY& Library::Exports() const {
  const auto* const base = reinterpret_cast<const BYTE*>(m_module.Get());
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
  return *reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
      base + headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
}

std::vector<std::string> Library::ExportedNames() const {
  const auto* const base = reinterpret_cast<const char*>(m_module.Get());
  const IMAGE_EXPORT_DIRECTORY& exports = Exports();
  const auto* const names = reinterpret_cast<const DWORD*>(base + exports.AddressOfNames);
  std::vector<std::string> result;
  for (DWORD i = 0; i < exports.NumberOfNames; ++i) {
    result.emplace_back(base + names[i]);
  }
  return result;
}

std::vector<WORD> Library::ExportedOrdinals() const {
  const auto* const base = reinterpret_cast<const BYTE*>(m_module.Get());
  const IMAGE_EXPORT_DIRECTORY& exports = Exports();
  const auto* const functions = reinterpret_cast<const DWORD*>(base + exports.AddressOfFunctions);
  std::vector<WORD> result;
  for (DWORD i = 0; i < exports.NumberOfFunctions; ++i) {
    if (functions[i] != 0) {
      result.push_back(static_cast<WORD>(exports.Base + i));
    }
  }
  return result;
}

void** Library::ImportSlot(const char* function) const {
  const auto* const base = reinterpret_cast<const BYTE*>(m_module.Get());
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
  const auto* descriptor = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
      base + headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
  for (; descriptor->Name != 0; ++descriptor) {
    const auto* names =
        reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + descriptor->OriginalFirstThunk);
    for (std::size_t i = 0; names[i].u1.AddressOfData != 0; ++i) {
      if ((names[i].u1.Ordinal & IMAGE_ORDINAL_FLAG64) != 0) {
        continue;
      }
      const auto* const name =
          reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names[i].u1.AddressOfData);
      if (std::strcmp(name->Name, function) == 0) {
        return reinterpret_cast<void**>(reinterpret_cast<BYTE*>(m_module.Get()) +
                                        descriptor->FirstThunk) +
               i;
      }
    }
  }
  std::printf("This module does not import %s\n", function);
  std::fflush(stdout);
  std::abort();
}

void Library::StoreInSlot(void** slot, void* value) {
  DWORD protection = 0;
  VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection);
  *slot = value;
  VirtualProtect(slot, sizeof(*slot), protection, &protection);
}

Installation::Installation(const std::vector<std::string>& stagedFiles) {
  for (const std::string& file : stagedFiles) {
    fs::copy_file(StagedFolder() / file, Path() / file);
  }
}

std::vector<std::string> TreeOf(const fs::path& folder) {
  std::vector<std::string> entries;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().lexically_relative(folder).string();
    if (entry.is_directory()) {
      entries.push_back(name + "\\");
      continue;
    }
    std::ifstream in(entry.path(), std::ios::binary);
    entries.push_back(name + "=" + std::string(std::istreambuf_iterator<char>(in), {}));
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

void WriteText(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
  ASSERT_TRUE(out.good()) << file;
}
