// The lock that orders the lines of all threads of all processes.
#pragma once

#include <atomic>
#include <cstdint>

// Lies in memory that several processes share; all zero is a free lock. One word names the thread
// that holds it, so that whoever waits can see when the holder is gone. A process or thread that is
// ended in the middle of a line therefore leaves nobody waiting. A kernel mutex would do the same,
// and cost more than the line itself.
struct SharedLockState {
  std::atomic<std::uint64_t> holder;
  std::atomic<std::uint64_t> late;  // one that has waited and now comes first
  std::atomic<std::uint64_t> releases;
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

enum class LockResult {
  kTaken,
  kTakenFromTheDead,  // what the lock guards may be half done
  kNotTaken,          // the holder lives and does not move, or is the caller itself
};

// Names the calling thread for as long as the system runs: its identifier alone is used again.
// Gives the same name as long as the object lives.
class ThreadNames {
 public:
  std::uint64_t OwnName() noexcept;
  void Close() noexcept;

 private:
  std::atomic<std::uint32_t> m_slot{0};  // index of the thread-local slot plus one
};

// Waits while the holder makes progress; gives up when nothing has moved for `patience`
// milliseconds. A holder counts as living unless the system says that it is not.
LockResult TakeLock(SharedLockState& lock, std::uint64_t ownName, std::uint32_t patience) noexcept;

void ReleaseLock(SharedLockState& lock, std::uint64_t ownName) noexcept;
