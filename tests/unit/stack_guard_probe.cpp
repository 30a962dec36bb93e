// A library that begins as the in-house ones do, and shows its stack guard.
#include <cstddef>
#include <cstdint>

#include "support/windows_api.h"

extern "C" {
extern std::uintptr_t __stack_chk_guard;  // NOLINT: the compiler's name

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved);
std::uintptr_t StackGuard();
void WriteOverTheStack();
}

BOOL DllMain(HINSTANCE, DWORD, void*) { return TRUE; }

std::uintptr_t StackGuard() { return __stack_chk_guard; }

namespace {

// The compiler must not see how many bytes are written.
volatile std::size_t g_count = 64;

}  // namespace

void WriteOverTheStack() {
  char text[16];
  volatile char* const bytes = text;
  for (std::size_t i = 0; i < g_count; ++i) {
    bytes[i] = 'x';
  }
}
