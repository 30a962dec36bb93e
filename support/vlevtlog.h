// The contract of the trace-log library vlevtlog.dll, which exports by ordinal only.
#pragma once

// Trace levels.
constexpr int kTraceLevelError = 1;
constexpr int kTraceLevelInfo = 2;
constexpr int kTraceLevelVerbose = 8;

extern "C" {

// Ordinal 2. Writes one trace line. `format` and its arguments are narrow and printf-like; "%S"
// takes wide text. Safe from any thread. Never fails visibly and preserves the caller's last error.
void LogTrace(int level, const char* moduleName, const char* functionName, const char* sourceFile,
              int line, const char* format, ...);

// Ordinal 3. As LogTrace, but `format` and its "%s" arguments are wide.
void LogTraceW(int level, const char* moduleName, const char* functionName, const char* sourceFile,
               int line, const wchar_t* format, ...);
}
