// The value that guards return addresses on the stack, for start-up code of our own; GCC only. The
// compiler's own start-up code takes that value from the cryptographic libraries, which it loads
// into every process, before anything else and under the loader lock. Include this only in files
// that are compiled without the guard.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "support/windows_api.h"

// Windows' own code for a stack that was written over (STATUS_STACK_BUFFER_OVERRUN).
constexpr UINT kStackOverrun = 0xC0000409;

// A value that another process cannot know beforehand, as good as it can be without a library.
inline std::uintptr_t MakeStackGuard() noexcept {
  static const char own = 0;
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  // Each part is mixed by itself: both clocks often count the same units of 100 ns, and without the
  // mixing one could cancel out the other.
  std::uint64_t guard = 0;
  for (const std::uint64_t part :
       {static_cast<std::uint64_t>(counter.QuadPart),
        (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime,
        (std::uint64_t{GetCurrentProcessId()} << 32) | GetCurrentThreadId(),
        std::uint64_t{reinterpret_cast<std::uintptr_t>(&now)},
        std::uint64_t{reinterpret_cast<std::uintptr_t>(&own)}}) {
    guard = (guard ^ part) * 0x9E3779B97F4A7C15;
    guard ^= guard >> 29;
  }
  // A text that is copied too far stops at its terminator.
  return guard & ~std::uintptr_t{0xFF};
}

[[noreturn]] inline void EndWithStackOverrun() noexcept {
  TerminateProcess(GetCurrentProcess(), kStackOverrun);
  for (;;) {
  }
}
