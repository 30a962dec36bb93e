#include "tests/support/installation.h"

#include <gtest/gtest.h>

#include <algorithm>
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
