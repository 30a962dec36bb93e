// A heap that is out of memory.
#pragma once

#include <cstddef>
#include <string>

#include "tests/support/import_patch.h"

// What an entry of a std::list of texts takes from the heap: two links and the text.
constexpr std::size_t kListNodeSize = 2 * sizeof(void*) + sizeof(std::string);

// While one lives, allocations of one size fail.
class NoMemoryFor {
 public:
  explicit NoMemoryFor(std::size_t size)
      : m_patch("msvcrt.dll", "malloc", [this, size](std::size_t wanted) -> void* {
          return wanted == size ? nullptr : m_patch.CallOriginal(wanted);
        }) {}

 private:
  CallPatch<NoMemoryFor, void* __cdecl(std::size_t)> m_patch;
};
