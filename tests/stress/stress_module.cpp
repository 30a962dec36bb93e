// A module that writes from within its DllMain: one line when it is loaded, the others when the
// process ends, after all other threads were ended wherever they were.
#include <cstdlib>

#include "support/vlevtlog.h"
#include "support/windows_api.h"
#include "tests/stress/stress_lines.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved);

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  char text[16] = {};
  GetEnvironmentVariableA(kWriterVariable, text, sizeof text);
  const auto writer = static_cast<unsigned>(std::strtoul(text, nullptr, 10));
  if (reason == DLL_PROCESS_ATTACH) {
    WriteLine(&LogTrace, writer, kModuleThread, 1);
  } else if (reason == DLL_PROCESS_DETACH) {
    for (unsigned number = 2; number <= kModuleLines; ++number) {
      WriteLine(&LogTrace, writer, kModuleThread, number);
    }
  }
  return TRUE;
}
