// The time that stands in a line of the trace.
#pragma once

#include <atomic>
#include <cstdint>

// A point in time as the clock on the wall shows it.
struct LocalTime {
  int year;
  unsigned month;
  unsigned day;
  unsigned hour;
  unsigned minute;
  unsigned second;
  unsigned millisecond;
  int utcOffsetMinutes;  // local time minus UTC
};

// `fileTime`: 100 ns units since 1601, UTC.
LocalTime ToLocalTime(std::uint64_t fileTime, int utcOffsetMinutes) noexcept;

// For loading the library: looks for a clock that is finer than the ticks of the system, which
// Windows has from version 8 on. Without this call the time is as coarse as the ticks.
void FindFineClock() noexcept;

// Reads the clock. Asking Windows for the time zone takes longer than writing a line, so the offset
// is asked for once in ten seconds; changes to and from summer time fall on such borders.
class LocalClock {
 public:
  LocalTime Now() noexcept;

 private:
  // The interval for which the offset was read, and the offset, in one word.
  std::atomic<std::uint64_t> m_known{0};
};
