// Locks of this process that are not waited for without limit: their holder may have been ended.
#pragma once

#include <memory>

#include "companions/vlevtlog/process_end.h"
#include "support/windows_api.h"

struct ReleaseExclusive {
  void operator()(SRWLOCK* lock) const noexcept { ReleaseSRWLockExclusive(lock); }
};

// Null stands for a lock that was not taken.
using ExclusiveLock = std::unique_ptr<SRWLOCK, ReleaseExclusive>;

inline ExclusiveLock TryToTake(SRWLOCK& lock) noexcept {
  return ExclusiveLock(TryAcquireSRWLockExclusive(&lock) ? &lock : nullptr);
}

inline ExclusiveLock TakeSoon(SRWLOCK& lock) noexcept {
  constexpr int kLongestWaitMilliseconds = 500;
  ExclusiveLock taken = TryToTake(lock);
  const int longestWait = IsProcessEnding() ? 0 : kLongestWaitMilliseconds;
  for (int wait = 0; taken == nullptr && wait < longestWait; ++wait) {
    Sleep(1);
    taken = TryToTake(lock);
  }
  return taken;
}
