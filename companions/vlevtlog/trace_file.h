// The product-wide trace file, written by any number of processes.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <utility>

#include "companions/vlevtlog/back_off.h"
#include "companions/vlevtlog/shared_lock.h"
#include "companions/vlevtlog/spill_file.h"
#include "companions/vlevtlog/trace_options.h"
#include "companions/vlevtlog/trace_result.h"
#include "support/windows_api.h"

// In the folder lie
//   vorltrace.log             the file being written
//   vorltrace.000007.log      full ones; the highest number is the youngest
//   vorltrace.process*.log    what one process wrote while it could not write into the first
//   vorltrace.lock            what the processes share: lock, state, options in force
//   vorltrace.second.*        first and lock of processes with another version of this library
// Every write happens under the lock, is one call of WriteFile and is a whole number of lines.
// Between two writes no process knows anything about the file that another could not find out.
class TraceFile {
 public:
  constexpr TraceFile() noexcept = default;
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  // `folder`: without a trailing backslash; made when missing. Must outlive the object. Called
  // once, before the first line.
  void SetFolder(const wchar_t* folder) noexcept { m_folder = folder; }

  // What all processes go by: the configuration that was read whole last, by whichever of them.
  TraceOptionWord Options() const noexcept {
    return TraceOptionWord(m_inForce.load()->load(std::memory_order_relaxed));
  }

  // Puts a configuration into force that this process has read whole; of a file that was not at
  // rest only as TraceOptionWord::Put says. A process that never had one begins no new file and
  // deletes none.
  void Configure(const TraceOptions& options) noexcept {
    const std::uint64_t word = TraceOptionWord::Of(options);
    TraceOptionWord::Put(m_configured, word);
    TraceOptionWord::Put(*m_inForce.load(), word);
  }

  // Where lines can be put while the lock is held.
  class Writer {
   public:
    // Writes a whole number of lines, starting a new file first when they do not fit.
    TraceFileResult Write(std::string_view lines) noexcept { return m_file.Write(lines); }

    bool HasSpilledLines() const noexcept { return m_file.m_spill.HasLines(); }
    // Puts the file with the spilled lines, `content`, among the full ones. The name that it bears
    // then is in `content`; without lines another thread is writing there.
    TraceFileResult Join(SpillFile::Content& content) noexcept { return m_file.Join(content); }

    // Why a full file could not be set aside, if that has begun; told once.
    DWORD TakeRotationError() noexcept { return std::exchange(m_file.m_rotationError, 0U); }
    // What was there before and can be written by others, if anything; told once.
    const wchar_t* TakeOpenToOthers() noexcept { return m_file.m_openToOthers.exchange(nullptr); }

   private:
    friend class TraceFile;
    explicit Writer(TraceFile& file) noexcept : m_file(file) {}
    TraceFile& m_file;
  };

  // Takes the lock, calls `write` with a Writer and releases the lock. `write` returns a
  // TraceFileResult, which is passed on. What fails is not tried again with every line.
  template <typename Write>
  TraceFileResult Locked(Write&& write) noexcept {
    TraceFileResult result = m_backOff.Pending();
    if (!result) {
      return result;
    }
    std::uint64_t ownName = 0;
    result = Lock(ownName);
    if (result) {
      Writer writer(*this);
      result = write(writer);
      Unlock(ownName);
    }
    if (!result) {
      m_backOff.Begin(result);
    }
    return result;
  }

  // Keeps a line, which `why` kept from the file, in one of this process's own. False when that
  // cannot be done either.
  bool Spill(std::string_view line, const TraceFileResult& why) noexcept;

  // Makes the next write look whether the open file is still the one in the folder: somebody may
  // have moved or deleted it.
  void CheckPlaceAtNextWrite() noexcept { m_checkPlace.store(true, std::memory_order_relaxed); }

  // For unloading the library, when no thread is in here any more.
  void Close() noexcept;

 private:
  struct State;
  struct Names {
    const wchar_t* file;
    const wchar_t* state;
  };

  TraceFileResult Lock(std::uint64_t& ownName) noexcept;
  void Unlock(std::uint64_t ownName) noexcept;

  TraceFileResult Attach() noexcept;
  DWORD AttachTo(const Names& names) noexcept;
  void Detach() noexcept;
  TraceFileResult Write(std::string_view lines) noexcept;
  TraceFileResult PrepareFile(std::uint64_t length) noexcept;
  TraceFileResult Join(SpillFile::Content& content) noexcept;
  DWORD Open() noexcept;
  void CloseFile() noexcept;
  bool IsGone(HANDLE file, const wchar_t* name) const noexcept;
  void Rotate() noexcept;
  std::uint32_t NumberFile(const wchar_t* name) noexcept;
  std::uint64_t FullSize() const noexcept;

  // Bare handles, for no destructor may run at the end of the process: whoever writes a line even
  // then finds them open, and the system closes them.
  const wchar_t* m_folder = nullptr;
  BackOff m_backOff;
  SRWLOCK m_attachLock = SRWLOCK_INIT;
  const Names* m_names = nullptr;
  HANDLE m_stateFile = nullptr;
  std::atomic<State*> m_state{nullptr};
  State* m_formerState = nullptr;
  std::atomic<std::uint64_t> m_configured{0};
  std::atomic<std::atomic<std::uint64_t>*> m_inForce{&m_configured};
  ThreadNames m_threadNames;
  std::atomic<std::uint32_t> m_patience{kPatience};
  std::atomic<bool> m_checkPlace{false};
  std::atomic<const wchar_t*> m_openToOthers{nullptr};
  SpillFile m_spill;

  // The rest is guarded by the shared lock.
  HANDLE m_file = nullptr;
  std::uint64_t m_generation = 0;
  bool m_knowsNumbers = false;
  bool m_mustTidy = false;
  DWORD m_rotationError = ERROR_SUCCESS;

  // Milliseconds without any progress after which a line is given up: a disk may take its time, a
  // holder that a debugger has stopped takes for ever, and then every line would.
  static constexpr std::uint32_t kPatience = 5000;
  static constexpr std::uint32_t kPatienceWhenStuck = 20;
};
