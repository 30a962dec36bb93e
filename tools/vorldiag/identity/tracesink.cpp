#include "tools/vorldiag/identity/tracesink.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "support/lasterror.h"
#include "support/vlevtlog.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

// The longest line that is kept whole, in characters.
constexpr std::size_t kLongestLine = 2000;

struct Sink {
  std::mutex mutex;
  std::vector<std::string> lines;
};

Sink& TheSink() {
  static Sink sink;
  return sink;
}

void Keep(const char* functionName, const std::string& text) {
  Sink& sink = TheSink();
  const std::lock_guard guard(sink.mutex);
  sink.lines.push_back(std::string(functionName) + ": " + text);
}

}  // namespace

std::vector<std::string> TakeWrittenLines() {
  Sink& sink = TheSink();
  const std::lock_guard guard(sink.mutex);
  return std::exchange(sink.lines, {});
}

// The contract of the trace library, which this program does without.
void LogTrace(int /*level*/, const char* /*moduleName*/, const char* functionName,
              const char* /*sourceFile*/, int /*line*/, const char* format, ...) {
  const LastErrorKeeper keeper;
  char text[kLongestLine + 1] = {};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  Keep(functionName, Utf8FromAnsi(text));
}

void LogTraceW(int /*level*/, const char* /*moduleName*/, const char* functionName,
               const char* /*sourceFile*/, int /*line*/, const wchar_t* format, ...) {
  const LastErrorKeeper keeper;
  wchar_t text[kLongestLine + 1] = {};
  va_list arguments;
  va_start(arguments, format);
  _vsnwprintf(text, kLongestLine, format, arguments);
  va_end(arguments);
  Keep(functionName, Utf8(text));
}
