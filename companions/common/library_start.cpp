// How an in-house library begins: with nothing but a value of its own in the stack guard. The
// compiler's start-up code would load the cryptographic libraries for that value, install an
// exception handler and allocate memory, all of it under the loader lock and in every process.
// Compiled without the guard that it sets.
#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include "support/windows_api.h"

extern "C" {

// The compiler calls them by these names.
extern std::uintptr_t __stack_chk_guard;  // NOLINT
[[noreturn]] void __stack_chk_fail();     // NOLINT
[[noreturn]] void __chk_fail();           // NOLINT

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved);
BOOL WINAPI LibraryStart(HINSTANCE module, DWORD reason, void* reserved);

std::uintptr_t __stack_chk_guard = 0;
}

namespace {

// Windows' own code for a stack that was written over (STATUS_STACK_BUFFER_OVERRUN).
constexpr UINT kStackOverrun = 0xC0000409;

// What another process cannot know beforehand, as far as it is to be had without a library.
std::uintptr_t MakeGuard() noexcept {
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  std::uint64_t guard = static_cast<std::uint64_t>(counter.QuadPart);
  for (const std::uint64_t part :
       {(std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime,
        (std::uint64_t{GetCurrentProcessId()} << 32) | GetCurrentThreadId(),
        std::uint64_t{reinterpret_cast<std::uintptr_t>(&now)},
        std::uint64_t{reinterpret_cast<std::uintptr_t>(&__stack_chk_guard)}}) {
    guard = (guard ^ part) * 0x9E3779B97F4A7C15;
    guard ^= guard >> 29;
  }
  // A text that is copied too far stops at its terminator.
  return guard & ~std::uintptr_t{0xFF};
}

[[noreturn]] void EndAtOnce() noexcept {
  TerminateProcess(GetCurrentProcess(), kStackOverrun);
  for (;;) {
  }
}

}  // namespace

void __stack_chk_fail() { EndAtOnce(); }
void __chk_fail() { EndAtOnce(); }

// The C runtime's own would call into the library after it was unloaded. Nothing that is registered
// here, such as the end of a critical section, needs to happen.
int atexit(void (*)()) { return 0; }

BOOL LibraryStart(HINSTANCE module, DWORD reason, void* reserved) {
  if (reason == DLL_PROCESS_ATTACH) {
    __stack_chk_guard = MakeGuard();
  }
  return DllMain(module, reason, reserved);
}
