// The only way in which this program writes a trace line.
//
// An operation holds one constant that knows its qualified name and writes every line through it:
//
//   constexpr Trace trace{"CNTService::Install"};
//   trace.Info("Entry");
//   trace.Error("CreateService Failed %u", error);
//
// The line names the source file and line of the call. Writing a line never fails visibly, throws
// nothing and leaves the thread's last error as it was.
#pragma once

#include <type_traits>

#include "support/lasterror.h"
#include "support/trace_format.h"
#include "support/vlevtlog.h"

// The module name in every line: the program's own file name. May be replaced during start-up only;
// the text must live as long as the process.
extern const char* g_pszModuleName;

// A message with values is formatted into a buffer of this size, its terminator included; what
// does not fit is cut.
constexpr unsigned kTraceMessageSize = 500;

class Trace {
 public:
  // `functionName`: the operation's qualified name; must live as long as the process.
  explicit constexpr Trace(const char* functionName) noexcept : m_functionName(functionName) {}

  // One line of the given level. A text without arguments is written as it stands; with arguments
  // it is a format and is formatted here.
  template <typename... Args>
  void Error(std::type_identity_t<TraceMessage<char, Args...>> format,
             Args... args) const noexcept {
    Write(kTraceLevelError, format, args...);
  }
  template <typename... Args>
  void Info(std::type_identity_t<TraceMessage<char, Args...>> format, Args... args) const noexcept {
    Write(kTraceLevelInfo, format, args...);
  }
  template <typename... Args>
  void Verbose(std::type_identity_t<TraceMessage<char, Args...>> format,
               Args... args) const noexcept {
    Write(kTraceLevelVerbose, format, args...);
  }

  // One line whose format and arguments are handed to the trace library as they are, which has no
  // limit of its own on their length.
  template <typename... Args>
  void ErrorDirect(std::type_identity_t<TraceMessage<char, Args...>> format,
                   Args... args) const noexcept {
    WriteDirect(kTraceLevelError, format, args...);
  }
  template <typename... Args>
  void InfoDirect(std::type_identity_t<TraceMessage<char, Args...>> format,
                  Args... args) const noexcept {
    WriteDirect(kTraceLevelInfo, format, args...);
  }

  // The same with wide text.
  template <typename... Args>
  void ErrorDirect(std::type_identity_t<TraceMessage<wchar_t, Args...>> format,
                   Args... args) const noexcept {
    WriteDirect(kTraceLevelError, format, args...);
  }
  template <typename... Args>
  void InfoDirect(std::type_identity_t<TraceMessage<wchar_t, Args...>> format,
                  Args... args) const noexcept {
    WriteDirect(kTraceLevelInfo, format, args...);
  }
  template <typename... Args>
  void VerboseDirect(std::type_identity_t<TraceMessage<wchar_t, Args...>> format,
                     Args... args) const noexcept {
    WriteDirect(kTraceLevelVerbose, format, args...);
  }

 private:
  template <typename... Args>
  void Write(int level, const TraceMessage<char, Args...>& format, Args... args) const noexcept {
    const LastErrorKeeper keeper;
    if constexpr (sizeof...(Args) == 0) {
      WriteText(level, format.file, format.line, format.text);
    } else {
      // A conversion that the C runtime cannot make must not leave rubbish in the message.
      char szMessage[kTraceMessageSize] = {};
      FormatMessageText(szMessage, format.text, args...);
      WriteText(level, format.file, format.line, szMessage);
    }
  }

  template <typename... Args>
  void WriteDirect(int level, const TraceMessage<char, Args...>& format,
                   Args... args) const noexcept {
    const LastErrorKeeper keeper;
    LogTrace(level, g_pszModuleName, m_functionName, format.file, format.line, format.text,
             args...);
  }
  template <typename... Args>
  void WriteDirect(int level, const TraceMessage<wchar_t, Args...>& format,
                   Args... args) const noexcept {
    const LastErrorKeeper keeper;
    LogTraceW(level, g_pszModuleName, m_functionName, format.file, format.line, format.text,
              args...);
  }

  void WriteText(int level, const char* file, int line, const char* text) const noexcept;
  static void FormatMessageText(char (&message)[kTraceMessageSize], const char* format,
                                ...) noexcept;

  const char* m_functionName;
};
