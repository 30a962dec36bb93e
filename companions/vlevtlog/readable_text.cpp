#include "companions/vlevtlog/readable_text.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <cwchar>

#include "support/windows_api.h"

namespace {

constexpr DWORD kReadable = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                            PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;

std::uintptr_t AddressOf(const void* memory) noexcept {
  return reinterpret_cast<std::uintptr_t>(memory);
}

const NT_TIB& OwnThread() noexcept { return *reinterpret_cast<const NT_TIB*>(NtCurrentTeb()); }

// False when the byte at this address cannot be read.
bool AskWindows(std::uintptr_t address, MEMORY_BASIC_INFORMATION& region) noexcept {
  return VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof region) != 0 &&
         region.State == MEM_COMMIT && (region.Protect & kReadable) != 0 &&
         (region.Protect & PAGE_GUARD) == 0;
}

std::uintptr_t EndOf(const MEMORY_BASIC_INFORMATION& region) noexcept {
  return AddressOf(region.BaseAddress) + region.RegionSize;
}

// The program's image stays where it is, and readable, as long as the process lives.
std::uintptr_t EndOfProgram(std::uintptr_t start) noexcept {
  static constinit std::atomic<std::uintptr_t> known{0};
  std::uintptr_t end = known.load(std::memory_order_relaxed);
  if (end == 0) {
    end = start;
    MEMORY_BASIC_INFORMATION region;
    while (AskWindows(end, region) && AddressOf(region.AllocationBase) == start) {
      end = EndOf(region);
    }
    known.store(end, std::memory_order_relaxed);
  }
  return end;
}

std::size_t BoundedLength(const char* text, std::size_t limit) noexcept {
  return strnlen(text, limit);
}
std::size_t BoundedLength(const wchar_t* text, std::size_t limit) noexcept {
  return wcsnlen(text, limit);
}

}  // namespace

std::size_t ReadableMemory::LengthOf(const char* text, std::size_t limit) noexcept {
  return Length(text, limit);
}

std::size_t ReadableMemory::LengthOf(const wchar_t* text, std::size_t limit) noexcept {
  return Length(text, limit);
}

template <typename Char>
std::size_t ReadableMemory::Length(const Char* text, std::size_t limit) noexcept {
  const std::uintptr_t start = AddressOf(text);
  std::uintptr_t end = start;
  std::size_t length = 0;
  while (length < limit) {
    const std::uintptr_t next = EndFrom(end);
    if (next == end) {
      return kUnreadable;
    }
    end = next;
    const std::size_t known = std::min<std::size_t>(limit, (end - start) / sizeof(Char));
    length += BoundedLength(text + length, known - length);
    if (length < known) {
      return length;
    }
  }
  return length;
}

// Up to where memory can be read from this address on: its end, or some address before that. The
// address itself when nothing can be read.
std::uintptr_t ReadableMemory::EndFrom(std::uintptr_t address) noexcept {
  const NT_TIB& thread = OwnThread();
  const std::uintptr_t stackTop = AddressOf(thread.StackBase);
  const std::uintptr_t stackInUse = AddressOf(&address);
  // A thread may run on a stack that Windows does not know.
  const bool isOwnStack = stackInUse >= AddressOf(thread.StackLimit) && stackInUse < stackTop;
  if (isOwnStack && address >= stackInUse && address < stackTop) {
    return stackTop;
  }
  const std::uintptr_t program = AddressOf(GetModuleHandleW(nullptr));
  if (address >= program && address < EndOfProgram(program)) {
    return EndOfProgram(program);
  }
  if (address >= m_start && address < m_end) {
    return m_end;
  }
  MEMORY_BASIC_INFORMATION region;
  if (!AskWindows(address, region)) {
    return address;
  }
  m_start = address;
  m_end = EndOf(region);
  return m_end;
}
