#include "companions/vlevtlog/local_clock.h"

#include <chrono>

#include "support/windows_api.h"

namespace {

using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

constexpr std::uint64_t kTicksPerMinute = 600'000'000;
constexpr std::uint64_t kTicksPerInterval = 100'000'000;
constexpr unsigned kOffsetBits = 16;
constexpr int kOffsetBase = 0x8000;

using ReadClock = void WINAPI(FILETIME*);

// Null where there is none.
constinit std::atomic<ReadClock*> g_fineClock{nullptr};

std::uint64_t Join(FILETIME time) noexcept {
  return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

int ReadUtcOffsetMinutes(const FILETIME& now) noexcept {
  SYSTEMTIME utc;
  SYSTEMTIME local;
  FILETIME shifted;
  if (!FileTimeToSystemTime(&now, &utc) ||
      !SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) ||
      !SystemTimeToFileTime(&local, &shifted)) {
    return 0;
  }
  // Both times are cut to milliseconds, `now` is not.
  FILETIME whole;
  SystemTimeToFileTime(&utc, &whole);
  const auto difference = static_cast<std::int64_t>(Join(shifted) - Join(whole));
  return static_cast<int>(difference / static_cast<std::int64_t>(kTicksPerMinute));
}

}  // namespace

LocalTime ToLocalTime(std::uint64_t fileTime, int utcOffsetMinutes) noexcept {
  using namespace std::chrono;
  constexpr sys_days kEpoch{year{1601} / January / 1};
  const Ticks sinceEpoch = Ticks(static_cast<std::int64_t>(fileTime)) + minutes(utcOffsetMinutes);
  const days wholeDays = floor<days>(sinceEpoch);
  const year_month_day date{kEpoch + wholeDays};
  const hh_mm_ss time{floor<milliseconds>(sinceEpoch - wholeDays)};
  return {static_cast<int>(date.year()),
          static_cast<unsigned>(date.month()),
          static_cast<unsigned>(date.day()),
          static_cast<unsigned>(time.hours().count()),
          static_cast<unsigned>(time.minutes().count()),
          static_cast<unsigned>(time.seconds().count()),
          static_cast<unsigned>(time.subseconds().count()),
          utcOffsetMinutes};
}

void FindFineClock() noexcept {
  const FARPROC found =
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetSystemTimePreciseAsFileTime");
  g_fineClock.store(reinterpret_cast<ReadClock*>(reinterpret_cast<void*>(found)),
                    std::memory_order_relaxed);
}

LocalTime LocalClock::Now() noexcept {
  FILETIME now;
  if (ReadClock* const fineClock = g_fineClock.load(std::memory_order_relaxed)) {
    fineClock(&now);
  } else {
    GetSystemTimeAsFileTime(&now);
  }
  const std::uint64_t fileTime = Join(now);
  const std::uint64_t interval = fileTime / kTicksPerInterval;
  std::uint64_t known = m_known.load(std::memory_order_relaxed);
  if (known >> kOffsetBits != interval) {
    const int offset = ReadUtcOffsetMinutes(now);
    known = (interval << kOffsetBits) | static_cast<std::uint64_t>(offset + kOffsetBase);
    m_known.store(known, std::memory_order_relaxed);
  }
  const auto stored = static_cast<int>(known & ((1U << kOffsetBits) - 1));
  return ToLocalTime(fileTime, stored - kOffsetBase);
}
