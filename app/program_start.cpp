// How the program begins when GCC has built it: with a value of its own in the stack guard, and
// then as every program does. Compiled without the guard that it sets.
#include <cstdint>

#include "support/stackguard.h"

extern "C" {

// The compiler calls them by these names.
extern std::uintptr_t __stack_chk_guard;  // NOLINT
[[noreturn]] void __stack_chk_fail();     // NOLINT
[[noreturn]] void __chk_fail();           // NOLINT

// The C runtime's beginning, which calls main.
int mainCRTStartup();
int ProgramStart();

std::uintptr_t __stack_chk_guard = 0;
}

void __stack_chk_fail() { EndWithStackOverrun(); }
void __chk_fail() { EndWithStackOverrun(); }

int ProgramStart() {
  __stack_chk_guard = MakeStackGuard();
  return mainCRTStartup();
}
