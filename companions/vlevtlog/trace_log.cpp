#include "companions/vlevtlog/trace_log.h"

#include <cwchar>

#include "companions/vlevtlog/bounded_lock.h"
#include "companions/vlevtlog/line_text.h"
#include "companions/vlevtlog/message_format.h"
#include "support/lasterror.h"
#include "support/vlevtlog.h"

namespace {

constexpr char kOwnModuleName[] = "vlevtlog.dll";
constexpr ULONGLONG kLookMilliseconds = 2000;
// Differs from every file's time of change.
constexpr std::uint64_t kNeverSeen = static_cast<std::uint64_t>(-1);

bool JoinPath(wchar_t (&path)[MAX_PATH], const wchar_t* folder, const wchar_t* name) noexcept {
  if (folder[0] != 0 && SUCCEEDED(StringCchPrintfW(path, MAX_PATH, L"%s\\%s", folder, name))) {
    return true;
  }
  path[0] = 0;
  return false;
}

const char* Describe(TraceFileResult::Step step) noexcept {
  switch (step) {
    case TraceFileResult::Step::kOpenFolder:
    case TraceFileResult::Step::kOpenState:
      return "the logs folder cannot be used";
    case TraceFileResult::Step::kLock:
      return "another writer does not let go of the file";
    case TraceFileResult::Step::kOpenFile:
      return "the file cannot be opened";
    default:
      return "the file cannot be written";
  }
}

}  // namespace

template <typename Char>
void TraceLog::Write(int level, const char* moduleName, const char* functionName,
                     const char* sourceFile, int line, const Char* format,
                     va_list arguments) noexcept {
  const TraceCall call = MakeCall(level, moduleName, functionName, sourceFile, line);
  const TraceFormat layout = m_file.Options().Format();
  LineText text;
  BeginLine(text, layout, call);
  AppendFormatted(text, format, arguments);
  EndLine(text, layout, call);
  Put(text);
}

template void TraceLog::Write(int, const char*, const char*, const char*, int, const char*,
                              va_list) noexcept;
template void TraceLog::Write(int, const char*, const char*, const char*, int, const wchar_t*,
                              va_list) noexcept;

bool TraceLog::SetConfigurationFile(const wchar_t* path) noexcept {
  if (path == nullptr || path[0] == 0 || wcsnlen(path, MAX_PATH) >= MAX_PATH) {
    return false;
  }
  TraceOptionProblems problems;
  {
    const ExclusiveLock lock = TakeSoon(m_configurationLock);
    if (lock == nullptr) {
      return false;
    }
    Start();
    // It fits.
    static_cast<void>(StringCchCopyW(m_configurationFile, MAX_PATH, path));
    m_seenChange = kNeverSeen;
    TakeOptions(problems);
    m_nextLook.store(GetTickCount64() + kLookMilliseconds, std::memory_order_relaxed);
  }
  WriteProblems(problems);
  return true;
}

bool TraceLog::SetFolder(const wchar_t* folder) noexcept {
  const ExclusiveLock lock = TakeSoon(m_configurationLock);
  m_isStarted = true;
  m_seenChange = kNeverSeen;
  const bool hasLogs = JoinPath(m_logsFolder, folder, L"logs");
  const bool hasConfiguration = JoinPath(m_configurationFile, folder, L"conf\\vorlconf.ini");
  m_file.SetFolder(m_logsFolder);
  return hasLogs && hasConfiguration;
}

void TraceLog::LearnOwnFolder() noexcept {
  FolderFailure unusable;
  // Where the path is too long there is no trace, and no configuration for it.
  static_cast<void>(FindOwnFolder(m_ownFolder, unusable));
  static_cast<void>(JoinPath(m_logsFolder, m_ownFolder.path, L"logs"));
  m_file.SetFolder(m_logsFolder);
}

void TraceLog::LookAtConfiguration() noexcept {
  const LastErrorKeeper lastError;
  TraceOptionProblems problems;
  {
    // The first lines wait until the options are known. Later nobody waits for a thread that looks
    // already, or that was ended while it did.
    const bool isFirst = m_nextLook.load(std::memory_order_relaxed) == 0;
    const ExclusiveLock lock =
        isFirst ? TakeSoon(m_configurationLock) : TryToTake(m_configurationLock);
    const ULONGLONG now = GetTickCount64();
    if (lock == nullptr || now < m_nextLook.load(std::memory_order_relaxed)) {
      return;
    }
    Start();
    TakeOptions(problems);
    m_file.CheckPlaceAtNextWrite();
    m_nextLook.store(now + kLookMilliseconds, std::memory_order_relaxed);
  }
  WriteProblems(problems);
}

void TraceLog::Start() noexcept {
  if (m_isStarted) {
    return;
  }
  m_isStarted = true;
  m_seenChange = kNeverSeen;
  Folder folder = {};
  FolderFailure unusable;
  // The support library says why a folder cannot be used; without one nothing is known of options.
  if (FindConfigFolder(folder, unusable, &m_ownFolder)) {
    static_cast<void>(JoinPath(m_configurationFile, folder.path, L"vorlconf.ini"));
  }
}

// Reads the file when it is not the one that was read last, or was not at rest then. While there is
// none, or none that can be read, everything stays as it is: somebody may be about to replace it.
void TraceLog::TakeOptions(TraceOptionProblems& problems) noexcept {
  const bool isFirst = m_seenChange == kNeverSeen;
  bool isNew = isFirst;
  std::uint64_t change = 0;
  std::uint64_t size = 0;
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (m_configurationFile[0] == 0) {
    return;
  }
  if (GetFileAttributesExW(m_configurationFile, GetFileExInfoStandard, &data)) {
    change = (std::uint64_t{data.ftLastWriteTime.dwHighDateTime} << 32) |
             data.ftLastWriteTime.dwLowDateTime;
    size = (std::uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow;
    isNew = change != m_seenChange || size != m_seenSize;
    if (!isNew && m_isAtRest) {
      return;
    }
  } else if (!isFirst) {
    return;
  }
  TraceOptions options;
  if (!ReadTraceOptions(m_configurationFile, options, problems)) {
    return;
  }
  if (!isNew) {
    problems.count = 0;  // said already
  }
  m_seenChange = change;
  m_seenSize = size;
  m_isAtRest = options.isAtRest;
  m_file.Configure(options);
}

void TraceLog::WriteProblems(const TraceOptionProblems& problems) noexcept {
  for (std::size_t i = 0; i < problems.count; ++i) {
    WriteOwnLine(L"[TRACE] %s=%s is not understood, the default is used", problems.list[i].key,
                 problems.list[i].value);
  }
}

void TraceLog::WriteOwnLine(const wchar_t* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  Write(kTraceLevelError, kOwnModuleName, "TraceLog::LookAtConfiguration", __FILE__, __LINE__,
        format, arguments);
  va_end(arguments);
}

TraceCall TraceLog::MakeCall(int level, const char* moduleName, const char* functionName,
                             const char* sourceFile, int line) noexcept {
  return {level,
          moduleName,
          functionName,
          sourceFile,
          line,
          GetCurrentProcessId(),
          GetCurrentThreadId(),
          m_clock.Now()};
}

void TraceLog::Put(const LineText& line) noexcept {
  const TraceFileResult result = m_file.Locked([&](TraceFile::Writer& writer) {
    TraceFileResult put = PutNotices(writer);
    if (put) {
      put = writer.Write(line.View());
    }
    if (put) {
      // The result is that of the line itself, which is written whatever becomes of the notices.
      static_cast<void>(PutNotices(writer));
    }
    return put;
  });
  if (!result && !m_file.Spill(line.View(), result)) {
    CountLoss(result);
  }
}

// What the reader must know of the trace itself.
TraceFileResult TraceLog::PutNotices(TraceFile::Writer& writer) noexcept {
  TraceFileResult put;
  const std::uint64_t lost = m_lost.load(std::memory_order_relaxed);
  if (lost != 0) {
    const TraceFileResult reason = m_lossReason.load(std::memory_order_relaxed);
    put = PutNotice(writer, L"%I64u lines lost: %S (error %lu)", lost, Describe(reason.failed),
                    reason.error);
    if (put) {
      m_lost.fetch_sub(lost, std::memory_order_relaxed);
    }
  }
  if (put && writer.HasSpilledLines()) {
    SpillFile::Content content;
    put = writer.Join(content);
    if (put && content.lines != 0) {
      put = PutNotice(writer, L"%I64u lines are in %s: %S (error %lu)", content.lines, content.name,
                      Describe(content.why.failed), content.why.error);
    }
  }
  const DWORD rotationError = put ? writer.TakeRotationError() : ERROR_SUCCESS;
  if (rotationError != ERROR_SUCCESS) {
    put = PutNotice(writer, L"The full file cannot get a number (error %lu) and grows until it can",
                    rotationError);
  }
  const wchar_t* const openToOthers = put ? writer.TakeOpenToOthers() : nullptr;
  if (openToOthers != nullptr) {
    put = PutNotice(writer,
                    L"%s was there before and others may write it: take their rights away, or "
                    L"delete it while no program of the product runs",
                    openToOthers);
  }
  return put;
}

TraceFileResult TraceLog::PutNotice(TraceFile::Writer& writer, const wchar_t* format,
                                    ...) noexcept {
  const TraceCall call =
      MakeCall(kTraceLevelError, kOwnModuleName, "TraceLog::PutNotices", __FILE__, __LINE__);
  const TraceFormat layout = m_file.Options().Format();
  LineText text;
  BeginLine(text, layout, call);
  va_list arguments;
  va_start(arguments, format);
  AppendFormatted(text, format, arguments);
  va_end(arguments);
  EndLine(text, layout, call);
  return writer.Write(text.View());
}

void TraceLog::CountLoss(const TraceFileResult& why) noexcept {
  m_lossReason.store(why, std::memory_order_relaxed);
  m_lost.fetch_add(1, std::memory_order_relaxed);
}
