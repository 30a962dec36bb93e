#include "tests/support/import_patch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/windows_api.h"

namespace {

// Whether the imports of `name` are those of `library`. The linker takes some functions of
// kernel32.dll from an API set, depending on which of the two import libraries it meets first.
bool IsLibrary(const char* name, const char* library) {
  constexpr char kApiSetPrefix[] = "api-ms-win-core-";
  return _stricmp(name, library) == 0 ||
         (_stricmp(library, "KERNEL32.dll") == 0 &&
          _strnicmp(name, kApiSetPrefix, sizeof(kApiSetPrefix) - 1) == 0);
}

// The slot of the import table that holds the address of `function`, or null.
void** FindSlot(const char* library, const char* function) {
  auto* const base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& directory =
      headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];

  auto* descriptor =
      reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
  for (; descriptor->Name != 0; ++descriptor) {
    if (!IsLibrary(reinterpret_cast<const char*>(base + descriptor->Name), library)) {
      continue;
    }
    auto* names =
        reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + descriptor->OriginalFirstThunk);
    auto* slots = reinterpret_cast<void**>(base + descriptor->FirstThunk);
    for (; names->u1.AddressOfData != 0; ++names, ++slots) {
      if ((names->u1.Ordinal & IMAGE_ORDINAL_FLAG64) != 0) {
        continue;
      }
      const auto* const name =
          reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
      if (std::strcmp(name->Name, function) == 0) {
        return slots;
      }
    }
  }
  return nullptr;
}

void Store(void** slot, void* value) {
  DWORD protection = 0;
  VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection);
  *slot = value;
  VirtualProtect(slot, sizeof(*slot), protection, &protection);
}

}  // namespace

ImportPatchBase::ImportPatchBase(const char* library, const char* function, void* replacement)
    : m_slot(FindSlot(library, function)), m_original(nullptr) {
  if (m_slot == nullptr) {
    std::printf("ImportPatch: this executable does not import %s from %s\n", function, library);
    std::fflush(stdout);
    std::abort();
  }
  m_original = *m_slot;
  Store(m_slot, replacement);
}

ImportPatchBase::~ImportPatchBase() { Store(m_slot, m_original); }
