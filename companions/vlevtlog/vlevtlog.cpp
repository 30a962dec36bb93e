// The exports of vlevtlog.dll.
#include "support/vlevtlog.h"

#include <cstdarg>

#include "companions/vlevtlog/local_clock.h"
#include "companions/vlevtlog/trace_control.h"
#include "companions/vlevtlog/trace_log.h"
#include "support/lasterror.h"
#include "support/windows_api.h"

namespace {

// Made by the compiler, not by code that runs while the library is loaded.
constinit TraceLog g_log;

}  // namespace

extern "C" void LogTrace(int level, const char* moduleName, const char* functionName,
                         const char* sourceFile, int line, const char* format, ...) {
  if (!g_log.IsOn(level)) {
    return;
  }
  const LastErrorKeeper lastError;
  va_list arguments;
  va_start(arguments, format);
  g_log.Write(level, moduleName, functionName, sourceFile, line, format, arguments);
  va_end(arguments);
}

extern "C" void LogTraceW(int level, const char* moduleName, const char* functionName,
                          const char* sourceFile, int line, const wchar_t* format, ...) {
  if (!g_log.IsOn(level)) {
    return;
  }
  const LastErrorKeeper lastError;
  va_list arguments;
  va_start(arguments, format);
  g_log.Write(level, moduleName, functionName, sourceFile, line, format, arguments);
  va_end(arguments);
}

extern "C" BOOLEAN ApplyTraceOptions(const wchar_t* configurationFile) {
  const LastErrorKeeper lastError;
  return g_log.SetConfigurationFile(configurationFile) ? TRUE : FALSE;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved);

// While the library is loaded, only that is done which would later mean asking the loader. While it
// is unloaded, only what a library may do there; at the end of a process nothing, since the system
// does it.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* reserved) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_log.LearnOwnFolder();
    FindFineClock();
  } else if (reason == DLL_PROCESS_DETACH && reserved == nullptr) {
    g_log.Close();
  }
  return TRUE;
}
