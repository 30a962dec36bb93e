#include "companions/vlevtlog/trace_file.h"

#include "companions/vlevtlog/process_end.h"
#include "companions/vlevtlog/trace_folder.h"

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// A torn line is no longer than a line can be, with what surrounds its message.
constexpr std::int64_t kTornLimit = std::int64_t{512} * 1024;
constexpr ULONGLONG kRetryMilliseconds = 1000;
constexpr ULONGLONG kAttachRetryMilliseconds = 100;
constexpr int kLongestAttachMilliseconds = 500;

bool ReadAt(HANDLE file, std::int64_t offset, char* bytes, DWORD count) noexcept {
  LARGE_INTEGER position;
  position.QuadPart = offset;
  DWORD read = 0;
  return SetFilePointerEx(file, position, nullptr, FILE_BEGIN) &&
         ReadFile(file, bytes, count, &read, nullptr) && read == count;
}

bool CutAt(HANDLE file, std::int64_t size) noexcept {
  LARGE_INTEGER position;
  position.QuadPart = size;
  return SetFilePointerEx(file, position, nullptr, FILE_BEGIN) && SetEndOfFile(file);
}

// The size of the file up to and with its last line end; 0 when there is none as far back as a
// line can reach, -1 when it cannot be read.
std::int64_t EndOfLastLine(HANDLE file, std::int64_t size) noexcept {
  constexpr std::int64_t kBlockSize = 4096;
  char block[kBlockSize];
  std::int64_t end = size;
  while (end > 0 && size - end < kTornLimit) {
    const std::int64_t start = end > kBlockSize ? end - kBlockSize : 0;
    const auto count = static_cast<DWORD>(end - start);
    if (!ReadAt(file, start, block, count)) {
      return -1;
    }
    for (DWORD i = count; i > 0; --i) {
      if (block[i - 1] == '\n') {
        return start + i;
      }
    }
    end = start;
  }
  return 0;
}

bool AreSameFile(HANDLE one, HANDLE other) noexcept {
  BY_HANDLE_FILE_INFORMATION first;
  BY_HANDLE_FILE_INFORMATION second;
  return GetFileInformationByHandle(one, &first) && GetFileInformationByHandle(other, &second) &&
         first.dwVolumeSerialNumber == second.dwVolumeSerialNumber &&
         first.nFileIndexHigh == second.nFileIndexHigh &&
         first.nFileIndexLow == second.nFileIndexLow;
}

}  // namespace

// Shared by all processes. Whatever stands in it after a power cut, it leads to a right file: the
// lock's holder is gone, the size is measured at every opening, the rest is advice.
struct TraceFile::State {
  SharedLockState lock;
  std::uint64_t generation;     // changes when everybody must open the file anew
  std::uint64_t size;           // of the file being written
  std::uint64_t retryFrom;      // tick count of the last thing that failed and is tried again
  std::uint64_t isSecondInUse;  // nonzero while the first file cannot be opened
};

TraceFileResult TraceFile::Writer::Write(std::string_view lines) noexcept {
  return m_file.Write(m_limits, lines);
}

TraceFileResult TraceFile::Lock(std::uint64_t& ownName) noexcept {
  const DWORD error = Attach();
  if (error != ERROR_SUCCESS) {
    return {TraceFileResult::Step::kOpenFolder, error};
  }
  State& state = *m_state.load(std::memory_order_acquire);
  ownName = m_threadNames.OwnName();
  switch (TakeLock(state.lock, ownName, m_patience.load(std::memory_order_relaxed))) {
    case LockResult::kTaken:
      break;
    case LockResult::kTakenFromTheDead:
      // Somebody was ended in the middle of a line, or of a change of files.
      ++state.generation;
      break;
    case LockResult::kNotTaken:
      m_patience.store(kPatienceWhenStuck, std::memory_order_relaxed);
      return {TraceFileResult::Step::kLock, ERROR_TIMEOUT};
  }
  m_patience.store(kPatience, std::memory_order_relaxed);
  return {};
}

void TraceFile::Unlock(std::uint64_t ownName) noexcept {
  ReleaseLock(m_state.load(std::memory_order_relaxed)->lock, ownName);
}

void TraceFile::Close() noexcept {
  CloseFile();
  State* const state = m_state.exchange(nullptr);
  if (state != nullptr) {
    UnmapViewOfFile(state);
    CloseHandle(m_stateFile);
    m_stateFile = nullptr;
  }
  m_threadNames.Close();
}

DWORD TraceFile::Attach() noexcept {
  if (m_state.load(std::memory_order_acquire) != nullptr) {
    return ERROR_SUCCESS;
  }
  // A program without the right to write the trace would pay for it with every line.
  const ULONGLONG now = GetTickCount64();
  if (now < m_nextAttach.load(std::memory_order_acquire)) {
    return m_attachError.load(std::memory_order_relaxed);
  }
  // Its holder may have been ended.
  for (int wait = 0; !TryAcquireSRWLockExclusive(&m_attachLock); ++wait) {
    if (wait == kLongestAttachMilliseconds || IsProcessEnding()) {
      return ERROR_TIMEOUT;
    }
    Sleep(1);
  }
  DWORD error = ERROR_SUCCESS;
  if (m_state.load(std::memory_order_relaxed) == nullptr) {
    error = MakeTraceFolder(m_folder);
    if (error == ERROR_SUCCESS) {
      // Deleting it while somebody has it would part the processes from each other.
      OwnedHandle file = OpenTraceFolderFile(TracePath(m_folder, kStateFileName).Get(),
                                             GENERIC_READ | GENERIC_WRITE,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_ALWAYS);
      const OwnedHandle mapping(
          file != nullptr
              ? CreateFileMappingW(file.get(), nullptr, PAGE_READWRITE, 0, sizeof(State), nullptr)
              : nullptr);
      void* const view = mapping != nullptr
                             ? MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, sizeof(State))
                             : nullptr;
      if (view != nullptr) {
        m_stateFile = file.release();
        m_state.store(static_cast<State*>(view), std::memory_order_release);
      } else {
        error = GetLastError();
      }
    }
    if (error != ERROR_SUCCESS) {
      m_attachError.store(error, std::memory_order_relaxed);
      m_nextAttach.store(now + kAttachRetryMilliseconds, std::memory_order_release);
    }
  }
  ReleaseSRWLockExclusive(&m_attachLock);
  return error;
}

TraceFileResult TraceFile::Write(const TraceFileLimits& limits, std::string_view lines) noexcept {
  const TraceFileResult prepared = PrepareFile(limits, lines.size());
  if (!prepared) {
    return prepared;
  }
  DWORD written = 0;
  const auto length = static_cast<DWORD>(lines.size());
  const BOOL isWritten = WriteFile(m_file, lines.data(), length, &written, nullptr);
  if (isWritten && written == length) {
    m_state.load(std::memory_order_relaxed)->size += length;
    return {};
  }
  const DWORD error = isWritten ? ERROR_DISK_FULL : GetLastError();
  // No half line may stay; the file is opened anew, and measured, for the next one.
  CutTornEnd();
  CloseFile();
  return {TraceFileResult::Step::kWrite, error};
}

TraceFileResult TraceFile::PrepareFile(const TraceFileLimits& limits,
                                       std::uint64_t length) noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  if (m_checkPlace.load(std::memory_order_relaxed)) {
    m_checkPlace.store(false, std::memory_order_relaxed);
    if (m_file != nullptr && !IsStillInPlace()) {
      ++state.generation;
    }
    if (state.isSecondInUse != 0) {
      ReturnToFirstFile(limits);
    }
  }
  if (m_generation != state.generation) {
    CloseFile();
  }
  if (m_file == nullptr) {
    const DWORD error = Open();
    if (error != ERROR_SUCCESS) {
      return {TraceFileResult::Step::kOpenFile, error};
    }
  }
  if (state.size > 0 && state.size + length > limits.fileSize &&
      GetTickCount64() - state.retryFrom >= kRetryMilliseconds) {
    Rotate(limits);
    if (m_file == nullptr) {
      const DWORD error = Open();
      if (error != ERROR_SUCCESS) {
        return {TraceFileResult::Step::kOpenFile, error};
      }
    }
  }
  return {};
}

const wchar_t* TraceFile::CurrentName() const noexcept {
  return m_state.load(std::memory_order_relaxed)->isSecondInUse != 0 ? kSecondFileName
                                                                     : kFirstFileName;
}

DWORD TraceFile::Open() noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  const DWORD error = OpenNamed(CurrentName());
  if (error == ERROR_SUCCESS || state.isSecondInUse != 0) {
    return error;
  }
  // Somebody keeps the first file for himself: the trace goes on beside it.
  state.isSecondInUse = 1;
  if (OpenNamed(CurrentName()) != ERROR_SUCCESS) {
    state.isSecondInUse = 0;
    return error;
  }
  m_generation = ++state.generation;
  return ERROR_SUCCESS;
}

DWORD TraceFile::OpenNamed(const wchar_t* name) noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  // Appending only: whatever else were wrong, no written line could be written over.
  OwnedHandle file = OpenTraceFolderFile(TracePath(m_folder, name).Get(),
                                         FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                         kShareAll, OPEN_ALWAYS);
  if (file == nullptr) {
    return GetLastError();
  }
  m_file = file.release();
  m_generation = state.generation;
  CutTornEnd();
  LARGE_INTEGER size{};
  GetFileSizeEx(m_file, &size);
  state.size = static_cast<std::uint64_t>(size.QuadPart);
  return ERROR_SUCCESS;
}

void TraceFile::CloseFile() noexcept {
  // Forgotten first: a thread that is ended in between must not leave a handle that another one
  // closes a second time.
  const HANDLE file = m_file;
  m_file = nullptr;
  if (file != nullptr) {
    CloseHandle(file);
  }
}

bool TraceFile::IsStillInPlace() noexcept {
  FILE_STANDARD_INFO information;
  if (GetFileInformationByHandleEx(m_file, FileStandardInfo, &information, sizeof information) &&
      information.DeletePending) {
    return false;
  }
  const OwnedHandle inFolder = OpenTraceFolderFile(TracePath(m_folder, CurrentName()).Get(),
                                                   FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING);
  return inFolder != nullptr && AreSameFile(m_file, inFolder.get());
}

// A process that was ended while it wrote, or a disk that was full, can leave the beginning of a
// line, and a power cut a row of zeros. Nobody was told that such a line is written.
void TraceFile::CutTornEnd() noexcept {
  const OwnedHandle file =
      OpenTraceFolderFile(TracePath(m_folder, CurrentName()).Get(), GENERIC_READ | GENERIC_WRITE,
                          kShareAll, OPEN_EXISTING);
  LARGE_INTEGER size{};
  if (file == nullptr || !GetFileSizeEx(file.get(), &size) || size.QuadPart == 0) {
    return;
  }
  const std::int64_t end = EndOfLastLine(file.get(), size.QuadPart);
  if (end < 0 || end == size.QuadPart) {
    return;
  }
  if (end == 0 && size.QuadPart > kTornLimit) {
    // Not a line of this library. It is left alone but for its end.
    DWORD written = 0;
    WriteFile(m_file, "\r\n", 2, &written, nullptr);
    return;
  }
  CutAt(file.get(), end);
}

bool TraceFile::SetAside(const wchar_t* name) noexcept {
  const TracePath path(m_folder, name);
  const TracePath full(m_folder, NextFileNumber(m_folder));
  return MoveFileExW(path.Get(), full.Get(), 0) != FALSE;
}

void TraceFile::Rotate(const TraceFileLimits& limits) noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  if (!SetAside(CurrentName())) {
    // A viewer holds the file. It grows until the viewer lets go.
    state.retryFrom = GetTickCount64();
    return;
  }
  ++state.generation;
  CloseFile();
  DeleteOldFiles(m_folder, limits.files - 1);
}

void TraceFile::ReturnToFirstFile(const TraceFileLimits& limits) noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  const OwnedHandle first = OpenTraceFolderFile(TracePath(m_folder, kFirstFileName).Get(),
                                                FILE_APPEND_DATA, kShareAll, OPEN_ALWAYS);
  if (first == nullptr) {
    return;
  }
  // Where the second cannot be set aside it stays, and is gone on with the next time.
  static_cast<void>(SetAside(kSecondFileName));
  DeleteOldFiles(m_folder, limits.files - 1);
  state.isSecondInUse = 0;
  ++state.generation;
}
