#include "companions/vlevtlog/shared_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/windows_api.h"
// Reads the types of windows.h.
#include <tlhelp32.h>

#include "tests/support/import_patch.h"

namespace {

constexpr std::uint32_t kLittlePatience = 30;
// Enough to look at the list of all threads more than once.
constexpr std::uint32_t kListedPatience = 300;
constexpr std::uint32_t kMuchPatience = 60000;

class SharedLockTest : public testing::Test {
 protected:
  ~SharedLockTest() override { m_names.Close(); }

  LockResult Take(std::uint32_t patience = kMuchPatience) {
    return TakeLock(m_lock, m_names.OwnName(), patience);
  }
  void Release() { ReleaseLock(m_lock, m_names.OwnName()); }

  SharedLockState m_lock{};
  ThreadNames m_names;
};

TEST_F(SharedLockTest, IsFreeWhenAllZero) {
  EXPECT_EQ(Take(), LockResult::kTaken);
  Release();
  EXPECT_EQ(m_lock.holder.load(), 0U);
  EXPECT_EQ(Take(), LockResult::kTaken);
}

TEST_F(SharedLockTest, RefusesTheThreadThatHoldsIt) {
  ASSERT_EQ(Take(), LockResult::kTaken);
  EXPECT_EQ(Take(), LockResult::kNotTaken);
}

TEST_F(SharedLockTest, NamesAThreadTheSameWayEveryTime) {
  const std::uint64_t name = m_names.OwnName();
  EXPECT_EQ(m_names.OwnName(), name);
  EXPECT_EQ(static_cast<DWORD>(name), GetCurrentThreadId());
  ThreadNames others;
  EXPECT_EQ(others.OwnName(), name);
  others.Close();
}

TEST_F(SharedLockTest, IsGivenUpWhenALivingHolderDoesNotMove) {
  ASSERT_EQ(Take(), LockResult::kTaken);
  LockResult result = LockResult::kTaken;
  std::thread([&] { result = Take(kLittlePatience); }).join();
  EXPECT_EQ(result, LockResult::kNotTaken);
  EXPECT_EQ(m_lock.holder.load(), m_names.OwnName());
}

// A computer that slept, or was a stopped virtual machine, has let nobody move.
TEST_F(SharedLockTest, IsNotGivenUpBecauseTheClockJumped) {
  ASSERT_EQ(Take(), LockResult::kTaken);
  const std::uint64_t holder = m_names.OwnName();
  LockResult result = LockResult::kNotTaken;
  std::thread([&] {
    ULONGLONG now = 1'000'000;
    int looks = 0;
    const CallPatch<struct JumpTag, ULONGLONG WINAPI()> patch(
        "KERNEL32.dll", "GetTickCount64", [&] {
          ++looks;
          now += looks == 2 ? kMuchPatience : 1;
          if (looks == 3) {
            ReleaseLock(m_lock, holder);
          }
          return now;
        });
    result = Take();
  }).join();
  EXPECT_EQ(result, LockResult::kTaken);
}

TEST_F(SharedLockTest, IsTakenFromAThreadThatEnded) {
  std::thread([&] { ASSERT_EQ(Take(), LockResult::kTaken); }).join();
  EXPECT_EQ(Take(), LockResult::kTakenFromTheDead);
  Release();
  EXPECT_EQ(Take(), LockResult::kTaken);
}

TEST_F(SharedLockTest, IsTakenFromAThreadWhoseIdentifierIsInUseAgain) {
  std::thread([&] {
    const std::uint64_t namesake = m_names.OwnName() ^ (std::uint64_t{2} << 32);
    m_lock.holder.store(namesake);
    // The namesake of this thread died before this thread was born.
    LockResult result = LockResult::kNotTaken;
    std::thread([&] { result = Take(); }).join();
    EXPECT_EQ(result, LockResult::kTakenFromTheDead);
  }).join();
}

// As by a thread that acts for another user: the holder may be in the middle of its line.
TEST_F(SharedLockTest, IsNotTakenFromAHolderThatMayNotBeLookedAt) {
  ASSERT_EQ(Take(), LockResult::kTaken);
  LockResult result = LockResult::kTaken;
  int refusals = 0;
  std::thread([&] {
    const CallPatch<struct OpenTag, HANDLE WINAPI(DWORD, BOOL, DWORD)> patch(
        "KERNEL32.dll", "OpenThread", [&](DWORD, BOOL, DWORD) -> HANDLE {
          ++refusals;
          SetLastError(ERROR_ACCESS_DENIED);
          return nullptr;
        });
    result = Take(kListedPatience);
  }).join();
  EXPECT_EQ(result, LockResult::kNotTaken);
  EXPECT_GT(refusals, 0);
  EXPECT_EQ(m_lock.holder.load(), m_names.OwnName());
}

TEST_F(SharedLockTest, IsTakenFromADeadHolderThatMayNotBeLookedAt) {
  std::thread([&] { ASSERT_EQ(Take(), LockResult::kTaken); }).join();
  LockResult result = LockResult::kNotTaken;
  {
    const CallPatch<struct OpenTag, HANDLE WINAPI(DWORD, BOOL, DWORD)> patch(
        "KERNEL32.dll", "OpenThread", [](DWORD, BOOL, DWORD) -> HANDLE {
          SetLastError(ERROR_ACCESS_DENIED);
          return nullptr;
        });
    result = Take();
  }
  EXPECT_EQ(result, LockResult::kTakenFromTheDead);
}

// What is not known of the dead either is not taken for an end.
TEST_F(SharedLockTest, IsNotTakenFromAHolderOfWhomTheSystemSaysNothing) {
  m_lock.holder.store(0xFEDCBA9876543211);
  LockResult result = LockResult::kTaken;
  {
    const CallPatch<struct OpenTag, HANDLE WINAPI(DWORD, BOOL, DWORD)> open(
        "KERNEL32.dll", "OpenThread", [](DWORD, BOOL, DWORD) -> HANDLE {
          SetLastError(ERROR_ACCESS_DENIED);
          return nullptr;
        });
    const CallPatch<struct ListTag, HANDLE WINAPI(DWORD, DWORD)> list(
        "KERNEL32.dll", "CreateToolhelp32Snapshot", [](DWORD, DWORD) -> HANDLE {
          SetLastError(ERROR_NOT_ENOUGH_MEMORY);
          return INVALID_HANDLE_VALUE;
        });
    result = Take(kListedPatience);
  }
  EXPECT_EQ(result, LockResult::kNotTaken);
  EXPECT_EQ(m_lock.holder.load(), 0xFEDCBA9876543211);
}

// Nobody is overtaken again and again: who has slept comes before who asks now.
TEST_F(SharedLockTest, GoesToOneThatHasWaitedBeforeOneThatAsksAnew) {
  ASSERT_EQ(Take(), LockResult::kTaken);
  const DWORD asker = GetCurrentThreadId();
  const HANDLE isLate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  const HANDLE isAsked = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  const HANDLE wasHeld = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::atomic<bool> hasSlept{false};
  std::atomic<bool> asks{false};
  std::atomic<bool> hadIt{false};
  const CallPatch<struct SleepTag, void WINAPI(DWORD)> sleep("KERNEL32.dll", "Sleep", [&](DWORD) {
    hasSlept = hasSlept || GetCurrentThreadId() != asker;
    if (asks && GetCurrentThreadId() == asker) {
      WaitForSingleObject(wasHeld, INFINITE);
    }
  });
  CallPatch<struct YieldTag, BOOL WINAPI()> yield("KERNEL32.dll", "SwitchToThread", [&]() -> BOOL {
    if (asks && GetCurrentThreadId() == asker) {
      SetEvent(isAsked);
    } else if (hasSlept && GetCurrentThreadId() != asker) {
      SetEvent(isLate);
      WaitForSingleObject(isAsked, INFINITE);
    }
    return yield.CallOriginal();
  });
  std::thread waiter([&] {
    EXPECT_EQ(Take(), LockResult::kTaken);
    hadIt = true;
    Release();
    SetEvent(wasHeld);
  });
  WaitForSingleObject(isLate, INFINITE);
  asks = true;
  Release();
  EXPECT_EQ(Take(), LockResult::kTaken);
  EXPECT_TRUE(hadIt);
  asks = false;
  SetEvent(isAsked);
  Release();
  waiter.join();
  CloseHandle(isLate);
  CloseHandle(isAsked);
  CloseHandle(wasHeld);
  EXPECT_EQ(m_lock.late.load(), 0U);
}

TEST_F(SharedLockTest, IsNotKeptForOneThatWaitedAndIsGone) {
  m_lock.late.store(0xFEDCBA9876543211);
  EXPECT_EQ(Take(), LockResult::kTaken);
  EXPECT_EQ(m_lock.late.load(), 0U);
}

TEST_F(SharedLockTest, IsTakenFromRubbish) {
  m_lock.holder.store(0xFEDCBA9876543211);
  m_lock.releases.store(0x123456789);
  EXPECT_EQ(Take(), LockResult::kTakenFromTheDead);
}

TEST_F(SharedLockTest, IsNotFreedByAThreadThatLostIt) {
  std::thread([&] {
    ASSERT_EQ(Take(), LockResult::kTaken);
    m_lock.holder.store(12345);
    Release();
    EXPECT_EQ(m_lock.holder.load(), 12345U);
  }).join();
}

TEST_F(SharedLockTest, LetsOneThreadInAtATime) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  int counter = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(Take(), LockResult::kTaken);
        // Not atomic on purpose.
        const int seen = *const_cast<volatile int*>(&counter);
        *const_cast<volatile int*>(&counter) = seen + 1;
        Release();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter, kThreads * kRounds);
}

// Two first lines at the same time.
TEST_F(SharedLockTest, NamesThreadsInOneSlotWhenTwoOfThemAskForTheFirst) {
  DWORD taken = TLS_OUT_OF_INDEXES;
  std::vector<DWORD> freed;
  {
    CallPatch<struct AllocTag, DWORD WINAPI()> alloc("KERNEL32.dll", "TlsAlloc", [&] {
      if (taken == TLS_OUT_OF_INDEXES) {
        taken = 0;
        std::thread([&] { m_names.OwnName(); }).join();
        taken = alloc.CallOriginal();
        return taken;
      }
      return alloc.CallOriginal();
    });
    CallPatch<struct FreeTag, BOOL WINAPI(DWORD)> release("KERNEL32.dll", "TlsFree",
                                                          [&](DWORD slot) {
                                                            freed.push_back(slot);
                                                            return release.CallOriginal(slot);
                                                          });
    EXPECT_EQ(static_cast<DWORD>(m_names.OwnName()), GetCurrentThreadId());
    EXPECT_EQ(freed, std::vector<DWORD>{taken});
  }
  EXPECT_EQ(Take(), LockResult::kTaken);
  Release();
}

// A thread whose birth cannot be told is known by its identifier alone.
TEST_F(SharedLockTest, IsNotTakenFromALivingHolderWhoseBirthIsNotKnown) {
  const std::uint64_t living = GetCurrentThreadId();
  for (const bool canBeTold : {true, false}) {
    m_lock.holder.store(canBeTold ? living : m_names.OwnName());
    LockResult result = LockResult::kTaken;
    std::thread([&] {
      const std::uint64_t name = m_names.OwnName();
      const CallPatch<struct TimesTag,
                      BOOL WINAPI(HANDLE, FILETIME*, FILETIME*, FILETIME*, FILETIME*)>
          patch("KERNEL32.dll", "GetThreadTimes",
                [&](HANDLE thread, FILETIME* created, FILETIME* exited, FILETIME* kernel,
                    FILETIME* user) -> BOOL {
                  return canBeTold && patch.CallOriginal(thread, created, exited, kernel, user);
                });
      result = TakeLock(m_lock, name, kLittlePatience);
    }).join();
    EXPECT_EQ(result, LockResult::kNotTaken) << canBeTold;
  }
}

// A list that cannot be read is no proof of an end.
TEST_F(SharedLockTest, IsNotTakenFromAHolderWhenTheListOfThreadsCannotBeRead) {
  m_lock.holder.store(0xFEDCBA9876543211);
  // The report of a failure opens the thread as well.
  LockResult result{};
  {
    const CallPatch<struct OpenTag, HANDLE WINAPI(DWORD, BOOL, DWORD)> open(
        "KERNEL32.dll", "OpenThread", [](DWORD, BOOL, DWORD) -> HANDLE {
          SetLastError(ERROR_ACCESS_DENIED);
          return nullptr;
        });
    const CallPatch<struct FirstTag, BOOL WINAPI(HANDLE, THREADENTRY32*)> first(
        "KERNEL32.dll", "Thread32First", [](HANDLE, THREADENTRY32*) -> BOOL {
          SetLastError(ERROR_NO_MORE_FILES);
          return FALSE;
        });
    result = Take(kListedPatience);
  }
  EXPECT_EQ(result, LockResult::kNotTaken);
}

}  // namespace
