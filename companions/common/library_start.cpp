// How an in-house library begins: with nothing but a value of its own in the stack guard. The
// compiler's start-up code would load the cryptographic libraries for that value, install an
// exception handler and allocate memory, all of it under the loader lock and in every process.
// Compiled without the guard that it sets.
#include <cstdint>
#include <cstdlib>

#include "support/stackguard.h"
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

void __stack_chk_fail() { EndWithStackOverrun(); }
void __chk_fail() { EndWithStackOverrun(); }

// The C runtime's own would call into the library after it was unloaded. Nothing that is registered
// here, such as the end of a critical section, needs to happen.
int atexit(void (*)()) { return 0; }

BOOL LibraryStart(HINSTANCE module, DWORD reason, void* reserved) {
  if (reason == DLL_PROCESS_ATTACH) {
    __stack_chk_guard = MakeStackGuard();
  }
  return DllMain(module, reason, reserved);
}
