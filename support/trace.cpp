#include "support/trace.h"

#include <cstdarg>

#include "support/windows_api.h"

namespace {

char g_szOwnModuleName[] = "vorlsrvc.exe";

}  // namespace

const char* g_pszModuleName = g_szOwnModuleName;

void Trace::WriteText(int level, const char* file, int line, const char* text) const noexcept {
  LogTrace(level, g_pszModuleName, m_functionName, file, line, "%s", text);
}

void Trace::FormatMessageText(char (&message)[kTraceMessageSize], const char* format,
                              ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  // A message that is cut is still worth its line.
  static_cast<void>(StringCchVPrintfA(message, kTraceMessageSize, format, arguments));
  va_end(arguments);
}
