#include "support/vlevtlog.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <iterator>

#include "companions/vlevtlog/trace_control.h"
#include "support/windows_api.h"

namespace {

constexpr size_t kLineSize = 4096;
constexpr DWORD kPatienceMilliseconds = 5000;

HANDLE OpenTraceFile() noexcept {
  HMODULE self = nullptr;
  wchar_t path[MAX_PATH];
  if (!GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          reinterpret_cast<const wchar_t*>(&OpenTraceFile), &self)) {
    return INVALID_HANDLE_VALUE;
  }
  const DWORD length = GetModuleFileNameW(self, path, MAX_PATH);
  wchar_t* const slash = length < MAX_PATH ? wcsrchr(path, L'\\') : nullptr;
  if (slash == nullptr) {
    return INVALID_HANDLE_VALUE;
  }
  *slash = 0;
  if (FAILED(StringCchCatW(path, MAX_PATH, L"\\logs"))) {
    return INVALID_HANDLE_VALUE;
  }
  CreateDirectoryW(path, nullptr);
  if (FAILED(StringCchCatW(path, MAX_PATH, L"\\vorltrace.log"))) {
    return INVALID_HANDLE_VALUE;
  }
  return CreateFileW(path, FILE_APPEND_DATA | SYNCHRONIZE,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

const char* LevelWord(int level) noexcept {
  switch (level) {
    case kTraceLevelError:
      return "ERROR";
    case kTraceLevelInfo:
      return "INFO";
    case kTraceLevelVerbose:
      return "VERBOSE";
    default:
      return "OTHER";
  }
}

const char* OrDash(const char* text) noexcept { return text != nullptr ? text : "-"; }

void AppendLine(const char* text, DWORD length) noexcept {
  // One mutex for all processes: appending is not atomic everywhere.
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"Global\\vorltrace");
  const DWORD waited =
      mutex != nullptr ? WaitForSingleObject(mutex, kPatienceMilliseconds) : WAIT_FAILED;
  if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED) {
    const HANDLE file = OpenTraceFile();
    if (file != INVALID_HANDLE_VALUE) {
      DWORD written = 0;
      WriteFile(file, text, length, &written, nullptr);
      CloseHandle(file);
    }
    ReleaseMutex(mutex);
  }
  if (mutex != nullptr) {
    CloseHandle(mutex);
  }
}

void WriteLine(int level, const char* moduleName, const char* functionName, const char* sourceFile,
               int line, char* message) noexcept {
  for (char* at = message; *at != 0; ++at) {
    if (static_cast<unsigned char>(*at) < ' ') {
      *at = ' ';
    }
  }
  SYSTEMTIME now;
  GetLocalTime(&now);
  char text[kLineSize + 512];
  const int length =
      snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u %s %lu %lu %s %s %s:%d %s",
               now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
               now.wMilliseconds, LevelWord(level), GetCurrentProcessId(), GetCurrentThreadId(),
               OrDash(moduleName), OrDash(functionName), OrDash(sourceFile), line, message);
  if (length < 0) {
    return;
  }
  size_t end = static_cast<size_t>(length);
  end = end < sizeof text - 2 ? end : sizeof text - 3;
  text[end++] = '\r';
  text[end++] = '\n';
  AppendLine(text, static_cast<DWORD>(end));
}

}  // namespace

extern "C" void LogTrace(int level, const char* moduleName, const char* functionName,
                         const char* sourceFile, int line, const char* format, ...) {
  const DWORD lastError = GetLastError();
  char message[kLineSize];
  va_list arguments;
  va_start(arguments, format);
  _vsnprintf(message, kLineSize - 1, format != nullptr ? format : "", arguments);
  va_end(arguments);
  message[kLineSize - 1] = 0;
  WriteLine(level, moduleName, functionName, sourceFile, line, message);
  SetLastError(lastError);
}

extern "C" void LogTraceW(int level, const char* moduleName, const char* functionName,
                          const char* sourceFile, int line, const wchar_t* format, ...) {
  const DWORD lastError = GetLastError();
  wchar_t wide[kLineSize / 3];
  va_list arguments;
  va_start(arguments, format);
  _vsnwprintf(wide, std::size(wide) - 1, format != nullptr ? format : L"", arguments);
  va_end(arguments);
  wide[std::size(wide) - 1] = 0;
  char message[kLineSize] = {};
  WideCharToMultiByte(CP_UTF8, 0, wide, -1, message, static_cast<int>(kLineSize), nullptr, nullptr);
  WriteLine(level, moduleName, functionName, sourceFile, line, message);
  SetLastError(lastError);
}

extern "C" BOOLEAN ApplyTraceOptions(const wchar_t* configurationFile) {
  return configurationFile != nullptr && configurationFile[0] != 0;
}
