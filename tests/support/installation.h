// The product's real modules, as they are staged, for tests that load them the way the product
// does.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "support/handle.h"
#include "tests/support/files.h"

// The folder with everything that is staged for an installation.
std::filesystem::path StagedFolder();

// A module loaded from its full path.
class Library {
 public:
  // Fails the test when the module cannot be loaded.
  explicit Library(const std::filesystem::path& file);

  HMODULE Handle() const { return m_module.Get(); }

  // The export of that ordinal or name; null when there is none.
  template <typename Function>
  Function* Ordinal(WORD ordinal) const {
    return Find<Function>(MAKEINTRESOURCEA(ordinal));
  }
  template <typename Function>
  Function* Name(const char* name) const {
    return Find<Function>(name);
  }

  // What the export table holds.
  std::vector<std::string> ExportedNames() const;
  std::vector<WORD> ExportedOrdinals() const;

  // Makes this module call `replacement` instead of the function that it imports under that name;
  // gives the function itself. For good: the module is to be unloaded, not restored. Ends the test
  // program when the module does not import the function.
  template <typename Function>
  Function* ReplaceImport(const char* function, Function* replacement) const {
    void** const slot = ImportSlot(function);
    auto* const original = reinterpret_cast<Function*>(*slot);
    StoreInSlot(slot, reinterpret_cast<void*>(replacement));
    return original;
  }

  // Gives the module back to Windows.
  void Free() { m_module.Reset(); }

 private:
  template <typename Function>
  Function* Find(const char* name) const {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(GetProcAddress(m_module.Get(), name)));
  }
  const IMAGE_EXPORT_DIRECTORY& Exports() const;
  void** ImportSlot(const char* function) const;
  static void StoreInSlot(void** slot, void* value);

  Module m_module;
};

// A folder of its own with copies of staged files, as if they had been installed there. A trace
// library is not among them unless it is asked for: the modules then write into the recording one,
// which the test program has loaded.
class Installation {
 public:
  explicit Installation(const std::vector<std::string>& stagedFiles);

  const std::filesystem::path& Path() const { return m_folder.Path(); }
  std::filesystem::path operator/(const std::filesystem::path& relative) const {
    return m_folder.Path() / relative;
  }

 private:
  TempFolder m_folder;
};

// One string per file, "relative path=content", sorted by path; folders as "relative path\". For
// folders with small text files.
std::vector<std::string> TreeOf(const std::filesystem::path& folder);

// Writes a text file; makes the folders above it.
void WriteText(const std::filesystem::path& file, const std::string& text);
