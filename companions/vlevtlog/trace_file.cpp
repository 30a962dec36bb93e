#include "companions/vlevtlog/trace_file.h"

#include <algorithm>

#include "companions/vlevtlog/bounded_lock.h"
#include "companions/vlevtlog/torn_end.h"
#include "companions/vlevtlog/trace_folder.h"

namespace {

constexpr ULONGLONG kRotationRetryMilliseconds = 1000;
constexpr int kMostDetaches = 3;

bool AreDifferentFiles(HANDLE one, HANDLE other) noexcept {
  BY_HANDLE_FILE_INFORMATION first;
  BY_HANDLE_FILE_INFORMATION second;
  return GetFileInformationByHandle(one, &first) && GetFileInformationByHandle(other, &second) &&
         (first.dwVolumeSerialNumber != second.dwVolumeSerialNumber ||
          first.nFileIndexHigh != second.nFileIndexHigh ||
          first.nFileIndexLow != second.nFileIndexLow);
}

}  // namespace

// Shared by all processes. Whatever it holds after a power cut does no harm: the holder of the lock
// is gone, the size is measured whenever the file is opened, and the rest is only advice.
struct TraceFile::State {
  std::atomic<std::uint64_t> layout;
  std::atomic<std::uint64_t> options;
  SharedLockState lock;
  std::uint64_t generation;  // changes when everybody must open the file anew
  std::uint64_t size;        // of the file being written
  std::uint64_t retryFrom;  // tick count when the full file could not be set aside; 0 when it could
  std::atomic<std::uint32_t> nextNumber;

  // Magic, version and size. Another version of the library, with another state, has another one.
  static constexpr std::uint64_t kLayout = (std::uint64_t{0x54727653} << 32) | (2U << 16) | 72U;
};

TraceFileResult TraceFile::Lock(std::uint64_t& ownName) noexcept {
  ownName = m_threadNames.OwnName();
  for (int detaches = 0; detaches < kMostDetaches; ++detaches) {
    const TraceFileResult attached = Attach();
    if (!attached) {
      return attached;
    }
    State& state = *m_state.load(std::memory_order_acquire);
    switch (TakeLock(state.lock, ownName, m_patience.load(std::memory_order_relaxed))) {
      case LockResult::kTaken:
        break;
      case LockResult::kTakenFromTheDead:
        // The holder was ended in the middle of a line, or while it changed to another file.
        ++state.generation;
        break;
      case LockResult::kNotTaken:
        m_patience.store(kPatienceWhenStuck, std::memory_order_relaxed);
        return {TraceFileResult::Step::kLock, ERROR_TIMEOUT};
    }
    m_patience.store(kPatience, std::memory_order_relaxed);
    const bool isDetached = m_state.load(std::memory_order_relaxed) != &state;
    const bool mustCheck = !isDetached && m_checkPlace.exchange(false, std::memory_order_relaxed);
    if (mustCheck && m_file != nullptr && IsGone(m_file, m_names->file)) {
      ++state.generation;
    }
    if (mustCheck && IsGone(m_stateFile, m_names->state)) {
      Detach();
    } else if (!isDetached) {
      return {};
    }
    ReleaseLock(state.lock, ownName);
  }
  // Only while somebody takes the page away as fast as it is made.
  return {TraceFileResult::Step::kOpenState, ERROR_PATH_NOT_FOUND};
}

void TraceFile::Unlock(std::uint64_t ownName) noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  const bool mustTidy = std::exchange(m_mustTidy, false);
  ReleaseLock(state.lock, ownName);
  // Nobody waits for the files that go.
  if (mustTidy) {
    Tidy(m_folder, state.nextNumber, std::max(Options().Files(), 1U) - 1);
  }
}

bool TraceFile::Spill(std::string_view line, const TraceFileResult& why) noexcept {
  const bool mayHelp = why.failed != TraceFileResult::Step::kOpenFolder &&
                       why.failed != TraceFileResult::Step::kWrite;
  return mayHelp && m_spill.Write(m_folder, line, FullSize(), why);
}

void TraceFile::Close() noexcept {
  CloseFile();
  m_spill.Close();
  // A view of nothing is refused.
  UnmapViewOfFile(m_formerState);
  m_formerState = nullptr;
  if (m_state.load() != nullptr) {
    Detach();
    UnmapViewOfFile(m_formerState);
    m_formerState = nullptr;
  }
  m_threadNames.Close();
}

TraceFileResult TraceFile::Attach() noexcept {
  static constexpr Names kNames[] = {{L"vorltrace.log", L"vorltrace.lock"},
                                     {L"vorltrace.second.log", L"vorltrace.second.lock"}};
  if (m_state.load(std::memory_order_acquire) != nullptr) {
    return {};
  }
  const ExclusiveLock lock = TakeSoon(m_attachLock);
  if (lock == nullptr) {
    return {TraceFileResult::Step::kOpenState, ERROR_TIMEOUT};
  }
  if (m_state.load(std::memory_order_relaxed) != nullptr) {
    return {};
  }
  bool wasThere = false;
  DWORD error = MakeTraceFolder(m_folder, wasThere);
  if (error != ERROR_SUCCESS) {
    return {TraceFileResult::Step::kOpenFolder, error};
  }
  if (wasThere && IsOpenToOthers(TracePath(m_folder).Get())) {
    m_openToOthers.store(m_folder);
  }
  for (const Names& names : kNames) {
    error = AttachTo(names);
    // What another version left goes, unless somebody has it open.
    if (error == ERROR_REVISION_MISMATCH && DeleteFileW(TracePath(m_folder, names.state).Get())) {
      error = AttachTo(names);
    }
    if (error != ERROR_REVISION_MISMATCH) {
      break;
    }
  }
  return error == ERROR_SUCCESS ? TraceFileResult{}
                                : TraceFileResult{TraceFileResult::Step::kOpenState, error};
}

DWORD TraceFile::AttachTo(const Names& names) noexcept {
  static_assert((State::kLayout & 0xFFFF) == sizeof(State));
  const TracePath path(m_folder, names.state);
  // To delete it while somebody has it open would give some processes another lock than the rest.
  FileHandle file = OpenTraceFolderFile(path.Get(), GENERIC_READ | GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_ALWAYS);
  const bool wasThere = GetLastError() == ERROR_ALREADY_EXISTS;
  const KernelHandle mapping(
      file ? CreateFileMappingW(file.Get(), /*lpFileMappingAttributes=*/nullptr, PAGE_READWRITE,
                                /*dwMaximumSizeHigh=*/0, sizeof(State), /*lpName=*/nullptr)
           : nullptr);
  void* const view = mapping ? MapViewOfFile(mapping.Get(), FILE_MAP_WRITE, /*dwFileOffsetHigh=*/0,
                                             /*dwFileOffsetLow=*/0, sizeof(State))
                             : nullptr;
  if (view == nullptr) {
    return GetLastError();
  }
  // What cannot be read from the disk is told here, and never by a fault at a line.
  if (!VirtualLock(view, sizeof(State)) && GetLastError() != ERROR_WORKING_SET_QUOTA) {
    const DWORD error = GetLastError();
    UnmapViewOfFile(view);
    return error;
  }
  State& state = *static_cast<State*>(view);
  std::uint64_t layout = 0;
  if (!state.layout.compare_exchange_strong(layout, State::kLayout) && layout != State::kLayout) {
    UnmapViewOfFile(view);
    return ERROR_REVISION_MISMATCH;
  }
  if (wasThere && IsOpenToOthers(path.Get())) {
    m_openToOthers.store(names.state);
  }
  m_names = &names;
  m_stateFile = file.Release();
  m_state.store(&state, std::memory_order_release);
  m_inForce.store(&state.options);
  if (m_configured.load() != 0) {
    TraceOptionWord::Put(state.options, m_configured.load());
  }
  return ERROR_SUCCESS;
}

// With the lock held. The page itself stays where it is until the library is unloaded, since other
// threads may be waiting for its lock.
void TraceFile::Detach() noexcept {
  CloseFile();
  m_knowsNumbers = false;
  m_inForce.store(&m_configured);
  CloseHandle(m_stateFile);
  m_stateFile = nullptr;
  m_formerState = m_state.load(std::memory_order_relaxed);
  m_state.store(nullptr, std::memory_order_release);
}

TraceFileResult TraceFile::Write(std::string_view lines) noexcept {
  const TraceFileResult prepared = PrepareFile(lines.size());
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
  CutTornEnd(TracePath(m_folder, m_names->file).Get());
  CloseFile();
  return {TraceFileResult::Step::kWrite, error};
}

TraceFileResult TraceFile::PrepareFile(std::uint64_t length) noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  if (m_generation != state.generation) {
    CloseFile();
  }
  DWORD error = m_file == nullptr ? Open() : DWORD{ERROR_SUCCESS};
  if (error == ERROR_SUCCESS && state.size > 0 && state.size + length > FullSize() &&
      GetTickCount64() - state.retryFrom >= kRotationRetryMilliseconds) {
    Rotate();
    error = m_file == nullptr ? Open() : DWORD{ERROR_SUCCESS};
  }
  return error == ERROR_SUCCESS ? TraceFileResult{}
                                : TraceFileResult{TraceFileResult::Step::kOpenFile, error};
}

TraceFileResult TraceFile::Join(SpillFile::Content& content) noexcept {
  content.lines = 0;
  const TraceFileResult prepared = PrepareFile(0);
  if (prepared && m_spill.HandOver(content)) {
    const std::uint32_t number = NumberFile(content.name);
    if (number != 0) {
      static_cast<void>(
          StringCchPrintfW(content.name, std::size(content.name), kFullFileFormat, number));
    }
  }
  return prepared;
}

std::uint64_t TraceFile::FullSize() const noexcept {
  return m_configured.load(std::memory_order_relaxed) != 0 ? Options().FileSize()
                                                           : static_cast<std::uint64_t>(-1);
}

DWORD TraceFile::Open() noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  // Appending only: whatever else were wrong, no written line could be written over.
  const TracePath path(m_folder, m_names->file);
  FileHandle file = OpenTraceFolderFile(
      path.Get(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll, OPEN_ALWAYS);
  if (!file) {
    return GetLastError();
  }
  m_file = file.Release();
  m_generation = state.generation;
  CutTornEnd(path.Get());
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

// What may not be looked at is taken to be there: the thread may be acting for another user.
bool TraceFile::IsGone(HANDLE file, const wchar_t* name) const noexcept {
  FILE_STANDARD_INFO information;
  if (GetFileInformationByHandleEx(file, FileStandardInfo, &information, sizeof information) &&
      information.DeletePending) {
    return true;
  }
  const FileHandle inFolder = OpenTraceFolderFile(TracePath(m_folder, name).Get(),
                                                  FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING);
  if (inFolder) {
    return AreDifferentFiles(file, inFolder.Get());
  }
  const DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
         error == ERROR_CANT_ACCESS_FILE;
}

std::uint32_t TraceFile::NumberFile(const wchar_t* name) noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  // The number there can be older than the files in the folder, after a power cut for example.
  if (!m_knowsNumbers) {
    CountOn(m_folder, state.nextNumber);
    m_knowsNumbers = true;
  }
  return GiveNumber(m_folder, name, state.nextNumber);
}

void TraceFile::Rotate() noexcept {
  State& state = *m_state.load(std::memory_order_relaxed);
  if (NumberFile(m_names->file) == 0) {
    const DWORD error = GetLastError();
    // A viewer holds the file. It grows until the viewer lets go.
    if (state.retryFrom == 0) {
      m_rotationError = error;
    }
    state.retryFrom = GetTickCount64();
    return;
  }
  state.retryFrom = 0;
  ++state.generation;
  CloseFile();
  m_mustTidy = true;
}
