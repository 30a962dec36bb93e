// The trace lines of this library, which name it as their module.
#pragma once

#include "support/vlevtlog.h"

// A wide format with the place of the call that it came from.
struct TraceText {
  // NOLINTNEXTLINE(google-explicit-constructor): the conversion is the purpose.
  constexpr TraceText(const wchar_t* formatText, const char* callFile = __builtin_FILE(),
                      int callLine = __builtin_LINE()) noexcept
      : format(formatText), file(callFile), line(callLine) {}

  const wchar_t* format;
  const char* file;
  int line;
};

// One line of level "error" in the name of the exported operation `functionName`. The arguments
// are those of the format; texts are wide.
template <typename... Args>
void TraceError(const char* functionName, TraceText text, Args... args) noexcept {
  LogTraceW(kTraceLevelError, "vorlmisc.dll", functionName, text.file, text.line, text.format,
            args...);
}
