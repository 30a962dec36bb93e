// The product-wide trace file, written by any number of processes.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "companions/vlevtlog/shared_lock.h"
#include "support/windows_api.h"

// When a file is full, and how many are kept, the one being written included.
struct TraceFileLimits {
  std::uint64_t fileSize;  // bytes
  std::uint32_t files;
};

// Why a line was not written. `error` is what Windows said.
struct TraceFileResult {
  enum class Step : std::uint8_t { kNone, kOpenFolder, kLock, kOpenFile, kWrite };
  Step failed = Step::kNone;
  DWORD error = ERROR_SUCCESS;
  explicit operator bool() const noexcept { return failed == Step::kNone; }
};

// In the folder lie
//   vorltrace.log           the file being written
//   vorltrace.000007.log    full ones; the highest number is the youngest
//   vorltrace.second.log    written while the first cannot be opened
//   vorltrace.lock          what the processes share: lock, state
// Every write happens under the lock, is one call of WriteFile and is a whole number of lines.
// Nobody keeps anything about the file between two writes that the next process could not find out.
class TraceFile {
 public:
  constexpr TraceFile() noexcept = default;
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  // `folder`: without a trailing backslash; made when missing. Must outlive the object. Called
  // once, before the first line.
  void SetFolder(const wchar_t* folder) noexcept { m_folder = folder; }

  // Where lines can be put while the lock is held.
  class Writer {
   public:
    // Writes a whole number of lines, starting a new file first when they do not fit.
    TraceFileResult Write(std::string_view lines) noexcept;

   private:
    friend class TraceFile;
    Writer(TraceFile& file, const TraceFileLimits& limits) noexcept
        : m_file(file), m_limits(limits) {}
    TraceFile& m_file;
    const TraceFileLimits& m_limits;
  };

  // Takes the lock, calls `write` with a Writer and releases the lock. `write` returns a
  // TraceFileResult, which is passed on.
  template <typename Write>
  TraceFileResult Locked(const TraceFileLimits& limits, Write&& write) noexcept {
    std::uint64_t ownName = 0;
    TraceFileResult result = Lock(ownName);
    if (result) {
      Writer writer(*this, limits);
      result = write(writer);
      Unlock(ownName);
    }
    return result;
  }

  // Makes the next write look whether the open file is still the one in the folder: somebody may
  // have moved or deleted it.
  void CheckPlaceAtNextWrite() noexcept { m_checkPlace.store(true, std::memory_order_relaxed); }

  // For unloading the library, when no thread is in here any more.
  void Close() noexcept;

 private:
  struct State;

  TraceFileResult Lock(std::uint64_t& ownName) noexcept;
  void Unlock(std::uint64_t ownName) noexcept;

  DWORD Attach() noexcept;
  TraceFileResult Write(const TraceFileLimits& limits, std::string_view lines) noexcept;
  TraceFileResult PrepareFile(const TraceFileLimits& limits, std::uint64_t length) noexcept;
  DWORD Open() noexcept;
  DWORD OpenNamed(const wchar_t* name) noexcept;
  void CloseFile() noexcept;
  bool IsStillInPlace() noexcept;
  void CutTornEnd() noexcept;
  void Rotate(const TraceFileLimits& limits) noexcept;
  bool SetAside(const wchar_t* name) noexcept;
  void ReturnToFirstFile(const TraceFileLimits& limits) noexcept;
  const wchar_t* CurrentName() const noexcept;

  // Bare handles, for no destructor may run at the end of the process: whoever writes a line even
  // then finds them open, and the system closes them.
  const wchar_t* m_folder = nullptr;
  SRWLOCK m_attachLock = SRWLOCK_INIT;
  std::atomic<ULONGLONG> m_nextAttach{0};  // tick count
  std::atomic<DWORD> m_attachError{ERROR_SUCCESS};
  HANDLE m_stateFile = nullptr;
  std::atomic<State*> m_state{nullptr};
  ThreadNames m_threadNames;
  std::atomic<std::uint32_t> m_patience{kPatience};
  std::atomic<bool> m_checkPlace{false};

  // The rest is guarded by the shared lock.
  HANDLE m_file = nullptr;
  std::uint64_t m_generation = 0;

  // Milliseconds without any progress after which a line is given up: a disk may take its time, a
  // holder that a debugger has stopped takes for ever, and then every line would.
  static constexpr std::uint32_t kPatience = 5000;
  static constexpr std::uint32_t kPatienceWhenStuck = 20;
};
