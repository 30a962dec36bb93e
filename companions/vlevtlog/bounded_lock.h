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

// How long a lock is waited for. Its holder opens a few files, which takes its time on a busy
// machine, and a line that gives up sooner goes to another place than the others. At the end of the
// process nothing is waited for: the holder is gone.
inline ExclusiveLock TakeSoon(SRWLOCK& lock) noexcept {
  constexpr int kShortNaps = 100;
  constexpr int kNaps = 600;
  ExclusiveLock taken = TryToTake(lock);
  const int longestWait = IsProcessEnding() ? 0 : kNaps;
  for (int nap = 0; taken == nullptr && nap < longestWait; ++nap) {
    Sleep(nap < kShortNaps ? 1 : 10);
    taken = TryToTake(lock);
  }
  return taken;
}
