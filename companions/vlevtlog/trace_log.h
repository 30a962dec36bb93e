// The trace of one process.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "companions/common/folders.h"
#include "companions/vlevtlog/line_layout.h"
#include "companions/vlevtlog/local_clock.h"
#include "companions/vlevtlog/trace_file.h"
#include "companions/vlevtlog/trace_options.h"
#include "support/windows_api.h"

class LineText;

// Starts itself with the first call, so that nothing happens while the library is loaded. Nothing
// here throws, and nothing that goes wrong reaches the caller.
class TraceLog {
 public:
  constexpr TraceLog() noexcept = default;
  TraceLog(const TraceLog&) = delete;
  TraceLog& operator=(const TraceLog&) = delete;

  // Whether a line of this level is written. Looks at the configuration file every now and then.
  // For most lines of a level that is off this is all the work. Leaves the last error alone.
  bool IsOn(int level) noexcept {
    if (GetTickCount64() >= m_nextLook.load(std::memory_order_relaxed)) {
      LookAtConfiguration();
    }
    return m_file.Options().IsOn(LevelBitOf(level));
  }

  // Writes one line of a level that is on. Char is the format's.
  template <typename Char>
  void Write(int level, const char* moduleName, const char* functionName, const char* sourceFile,
             int line, const Char* format, va_list arguments) noexcept;

  // Reads the options from another file from now on, and at once. False when the path is null,
  // empty or too long.
  bool SetConfigurationFile(const wchar_t* path) noexcept;

  // Keeps files and configuration below this folder instead of the library's own. Before the first
  // line only; false when the path is too long.
  bool SetFolder(const wchar_t* folder) noexcept;

  // For loading the library, under the loader's lock: the only time at which the loader is asked.
  void LearnOwnFolder() noexcept;

  // For unloading the library.
  void Close() noexcept { m_file.Close(); }

 private:
  void LookAtConfiguration() noexcept;
  void Start() noexcept;
  void TakeOptions(TraceOptionProblems& problems) noexcept;
  void WriteProblems(const TraceOptionProblems& problems) noexcept;
  void WriteOwnLine(const wchar_t* format, ...) noexcept;
  TraceCall MakeCall(int level, const char* moduleName, const char* functionName,
                     const char* sourceFile, int line) noexcept;
  void Put(const LineText& line) noexcept;
  TraceFileResult PutNotices(TraceFile::Writer& writer) noexcept;
  TraceFileResult PutNotice(TraceFile::Writer& writer, const wchar_t* format, ...) noexcept;
  void CountLoss(const TraceFileResult& why) noexcept;

  std::atomic<ULONGLONG> m_nextLook{0};  // tick count

  // Guards what follows.
  SRWLOCK m_configurationLock = SRWLOCK_INIT;
  Folder m_ownFolder = {};
  bool m_isStarted = false;
  std::uint64_t m_seenChange = 0;
  std::uint64_t m_seenSize = 0;
  bool m_isAtRest = false;
  wchar_t m_configurationFile[MAX_PATH] = {};

  wchar_t m_logsFolder[MAX_PATH] = {};
  LocalClock m_clock;
  TraceFile m_file;

  std::atomic<std::uint64_t> m_lost{0};
  std::atomic<TraceFileResult> m_lossReason{};
};
