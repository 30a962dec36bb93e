#include "companions/vlevtlog/shared_lock.h"

#include "support/windows_api.h"

// Reads the types of windows.h.
#include <tlhelp32.h>

#include <algorithm>

#include "support/handle.h"

namespace {

constexpr std::uint64_t kFree = 0;
constexpr int kSpins = 100;
constexpr int kYields = 500;
constexpr int kSightingsOfTheDead = 2;
// Time between two looks counts up to this much only: while the computer slept, or no thread got a
// processor, the holder could not move either.
constexpr ULONGLONG kLongestLookMilliseconds = 100;
// The time between two looks at the list of all threads, which is long.
constexpr ULONGLONG kListMilliseconds = 50;

// Distinguishes threads that had the same identifier one after the other; never zero.
std::uint32_t BirthMark(HANDLE thread) noexcept {
  FILETIME created;
  FILETIME exited;
  FILETIME kernel;
  FILETIME user;
  if (!GetThreadTimes(thread, &created, &exited, &kernel, &user)) {
    return 0;
  }
  return (created.dwLowDateTime ^ created.dwHighDateTime) | 1;
}

std::uint64_t Name(DWORD threadId, std::uint32_t birthMark) noexcept {
  return (std::uint64_t{birthMark} << 32) | threadId;
}

enum class Life { kGone, kLives, kHidden };

Life LifeOf(std::uint64_t name) noexcept {
  const auto threadId = static_cast<DWORD>(name);
  const KernelHandle thread(
      OpenThread(SYNCHRONIZE | THREAD_QUERY_LIMITED_INFORMATION, FALSE, threadId));
  if (!thread) {
    return GetLastError() == ERROR_INVALID_PARAMETER ? Life::kGone : Life::kHidden;
  }
  if (WaitForSingleObject(thread.Get(), 0) == WAIT_OBJECT_0) {
    return Life::kGone;
  }
  const std::uint32_t birthMark = BirthMark(thread.Get());
  const bool areBothKnown = birthMark != 0 && name >> 32 != 0;
  return areBothKnown && name != Name(threadId, birthMark) ? Life::kGone : Life::kLives;
}

// Whether the system lists a thread of this identifier, which asks for no right. It can be another
// one that got the identifier later.
bool IsListed(DWORD threadId) noexcept {
  const FileHandle list(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  if (!list) {
    return true;
  }
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  if (!Thread32First(list.Get(), &entry)) {
    return true;
  }
  do {
    if (entry.th32ThreadID == threadId) {
      return true;
    }
  } while (Thread32Next(list.Get(), &entry));
  return GetLastError() != ERROR_NO_MORE_FILES;
}

bool TakeFree(SharedLockState& lock, std::uint64_t ownName) noexcept {
  std::uint64_t expected = kFree;
  const std::uint64_t late = lock.late.load(std::memory_order_relaxed);
  return (late == kFree || late == ownName) &&
         lock.holder.load(std::memory_order_relaxed) == kFree &&
         lock.holder.compare_exchange_strong(expected, ownName, std::memory_order_acquire);
}

// A line takes a microsecond or two: most holders are done before a wait would have begun.
bool TakeSoon(SharedLockState& lock, std::uint64_t ownName) noexcept {
  for (int spin = 0; spin < kSpins; ++spin) {
    if (TakeFree(lock, ownName)) {
      return true;
    }
    YieldProcessor();
  }
  for (int yield = 0; yield < kYields; ++yield) {
    if (TakeFree(lock, ownName)) {
      return true;
    }
    SwitchToThread();
  }
  return false;
}

// For those who have waited long: while one of them tries, nobody who came later gets the lock.
bool TakeLate(SharedLockState& lock, std::uint64_t ownName) noexcept {
  std::uint64_t expected = kFree;
  if (!lock.late.compare_exchange_strong(expected, ownName, std::memory_order_relaxed)) {
    return false;
  }
  const bool isTaken = TakeSoon(lock, ownName);
  expected = ownName;
  lock.late.compare_exchange_strong(expected, kFree, std::memory_order_relaxed);
  return isTaken;
}

}  // namespace

std::uint64_t ThreadNames::OwnName() noexcept {
  std::uint32_t slot = m_slot.load(std::memory_order_acquire);
  if (slot == 0) {
    const DWORD index = TlsAlloc();
    if (index != TLS_OUT_OF_INDEXES) {
      if (m_slot.compare_exchange_strong(slot, index + 1, std::memory_order_acq_rel)) {
        slot = index + 1;
      } else {
        TlsFree(index);
      }
    }
  }
  void* const stored = slot != 0 ? TlsGetValue(slot - 1) : nullptr;
  auto birthMark = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(stored));
  if (birthMark == 0) {
    birthMark = BirthMark(GetCurrentThread());
    if (slot != 0) {
      TlsSetValue(slot - 1, reinterpret_cast<void*>(static_cast<std::uintptr_t>(birthMark)));
    }
  }
  return Name(GetCurrentThreadId(), birthMark);
}

void ThreadNames::Close() noexcept {
  const std::uint32_t slot = m_slot.exchange(0);
  if (slot != 0) {
    TlsFree(slot - 1);
  }
}

LockResult TakeLock(SharedLockState& lock, std::uint64_t ownName, std::uint32_t patience) noexcept {
  if (TakeSoon(lock, ownName)) {
    return LockResult::kTaken;
  }
  std::uint64_t seenHolder = kFree;
  std::uint64_t seenLate = kFree;
  std::uint64_t seenReleases = 0;
  ULONGLONG lastLook = 0;
  ULONGLONG stoodStill = 0;  // milliseconds
  ULONGLONG nextList = 0;
  int sightings = 0;
  for (;;) {
    std::uint64_t holder = lock.holder.load(std::memory_order_relaxed);
    std::uint64_t late = lock.late.load(std::memory_order_relaxed);
    const std::uint64_t releases = lock.releases.load(std::memory_order_relaxed);
    const ULONGLONG now = GetTickCount64();
    if (holder == ownName) {
      return LockResult::kNotTaken;
    }
    if (holder != seenHolder || late != seenLate || releases != seenReleases) {
      seenHolder = holder;
      seenLate = late;
      seenReleases = releases;
      stoodStill = 0;
      nextList = kListMilliseconds;
      sightings = 0;
    } else if (holder != kFree) {
      stoodStill += std::min(now - lastLook, kLongestLookMilliseconds);
      Life life = LifeOf(holder);
      // Windows does not show every thread to one that acts for another user. Unknown is not dead:
      // two holders would do more harm than a line that goes elsewhere.
      if (life == Life::kHidden && stoodStill >= nextList) {
        life = IsListed(static_cast<DWORD>(holder)) ? Life::kLives : Life::kGone;
        nextList = stoodStill + kListMilliseconds;
      }
      // The system can report the end of a thread a moment before its last instruction.
      const bool isGone = life == Life::kGone && ++sightings >= kSightingsOfTheDead;
      if (isGone &&
          lock.holder.compare_exchange_strong(holder, ownName, std::memory_order_acquire)) {
        return LockResult::kTakenFromTheDead;
      }
      if (life != Life::kGone && stoodStill >= patience) {
        return LockResult::kNotTaken;
      }
    } else if (late != kFree) {
      // The lock is free, so whoever comes first would have taken it if it could: it is gone.
      lock.late.compare_exchange_strong(late, kFree, std::memory_order_relaxed);
    }
    lastLook = now;
    // The holder signals no object, which would cost it more than its line, so there is none to
    // wait for.
    Sleep(1);
    // Others overtake whoever sleeps, but not for ever: see TakeLate.
    if (TakeLate(lock, ownName)) {
      return LockResult::kTaken;
    }
  }
}

void ReleaseLock(SharedLockState& lock, std::uint64_t ownName) noexcept {
  lock.releases.fetch_add(1, std::memory_order_relaxed);
  // Not a plain store: a thread taken for dead must not free a lock that is somebody else's now.
  std::uint64_t expected = ownName;
  lock.holder.compare_exchange_strong(expected, kFree, std::memory_order_release);
}
