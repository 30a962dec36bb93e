// Keeps what just failed from being tried again with every line.
#pragma once

#include <atomic>
#include <cstdint>

#include "companions/vlevtlog/trace_result.h"
#include "support/windows_api.h"

// One for the process's own identity, one for the user in whose name the thread acted that failed
// last: what is closed to one of them may be open to the other.
class BackOff {
 public:
  // What failed less than a tenth of a second ago for the user in whose name the calling thread
  // acts.
  TraceFileResult Pending() const noexcept {
    const ULONGLONG now = GetTickCount64();
    return now < m_own.until.load(std::memory_order_relaxed) ||
                   now < m_borrowed.until.load(std::memory_order_relaxed)
               ? PendingFor(now)
               : TraceFileResult{};
  }

  void Begin(const TraceFileResult& why) noexcept;

 private:
  struct Door {
    std::atomic<std::uint64_t> identity{0};
    std::atomic<ULONGLONG> until{0};  // tick count
    std::atomic<TraceFileResult> why{};
  };

  TraceFileResult PendingFor(ULONGLONG now) const noexcept;

  Door m_own;
  Door m_borrowed;
};
