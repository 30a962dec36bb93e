#include "tests/fakes/vlevtlog_fake.h"

#include <cstdarg>
#include <cwchar>
#include <deque>
#include <mutex>
#include <string>

#include "support/vlevtlog.h"
#include "support/windows_api.h"

namespace {

struct Line {
  int level;
  std::string moduleName;
  std::string functionName;
  std::string sourceFile;
  int line;
  bool isWide;
  std::string format;
  std::string text;
  unsigned long threadId;
};

std::mutex g_mutex;
std::deque<Line> g_lines;
void (*g_callback)(const FakeTraceLine*, void*) = nullptr;
void* g_callbackContext = nullptr;

std::string Utf8(const wchar_t* text) {
  const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
  result.pop_back();
  return result;
}

FakeTraceLine View(const Line& line) {
  return {line.level,
          line.moduleName.c_str(),
          line.functionName.c_str(),
          line.sourceFile.c_str(),
          line.line,
          line.isWide,
          line.format.c_str(),
          line.text.c_str(),
          line.threadId};
}

void Record(Line line) {
  void (*callback)(const FakeTraceLine*, void*) = nullptr;
  void* context = nullptr;
  FakeTraceLine view{};
  {
    const std::lock_guard guard(g_mutex);
    g_lines.push_back(std::move(line));
    callback = g_callback;
    context = g_callbackContext;
    view = View(g_lines.back());
  }
  if (callback != nullptr) {
    callback(&view, context);
  }
}

}  // namespace

extern "C" {

void LogTrace(int level, const char* moduleName, const char* functionName, const char* sourceFile,
              int line, const char* format, ...) {
  char text[4096];
  va_list arguments;
  va_start(arguments, format);
  StringCchVPrintfA(text, sizeof(text), format, arguments);
  va_end(arguments);
  Record({level, moduleName, functionName, sourceFile, line, false, format, text,
          GetCurrentThreadId()});
}

void LogTraceW(int level, const char* moduleName, const char* functionName, const char* sourceFile,
               int line, const wchar_t* format, ...) {
  wchar_t text[4096];
  va_list arguments;
  va_start(arguments, format);
  StringCchVPrintfW(text, sizeof(text) / sizeof(text[0]), format, arguments);
  va_end(arguments);
  Record({level, moduleName, functionName, sourceFile, line, true, Utf8(format), Utf8(text),
          GetCurrentThreadId()});
}

void FakeTraceClear() {
  const std::lock_guard guard(g_mutex);
  g_lines.clear();
}

unsigned FakeTraceCount() {
  const std::lock_guard guard(g_mutex);
  return static_cast<unsigned>(g_lines.size());
}

void FakeTraceGet(unsigned index, FakeTraceLine* line) {
  const std::lock_guard guard(g_mutex);
  *line = View(g_lines[index]);
}

void FakeTraceSetCallback(void (*callback)(const FakeTraceLine*, void*), void* context) {
  const std::lock_guard guard(g_mutex);
  g_callback = callback;
  g_callbackContext = context;
}
}
