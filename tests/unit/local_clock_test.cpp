#include "companions/vlevtlog/local_clock.h"

#include <gtest/gtest.h>

#include <string>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"

namespace {

constexpr std::uint64_t kSecond = 10'000'000;
constexpr std::uint64_t kMinute = 60 * kSecond;

std::uint64_t FileTimeOf(const SYSTEMTIME& time) {
  FILETIME result;
  EXPECT_TRUE(SystemTimeToFileTime(&time, &result));
  return (std::uint64_t{result.dwHighDateTime} << 32) | result.dwLowDateTime;
}

std::string TextOf(const LocalTime& time) {
  char text[64];
  snprintf(text, sizeof text, "%d-%02u-%02u %02u:%02u:%02u.%03u %d", time.year, time.month,
           time.day, time.hour, time.minute, time.second, time.millisecond, time.utcOffsetMinutes);
  return text;
}

TEST(ToLocalTime, CountsFrom1601) {
  EXPECT_EQ(TextOf(ToLocalTime(0, 0)), "1601-01-01 00:00:00.000 0");
}

TEST(ToLocalTime, CrossesDaysMonthsAndLeapYears) {
  const SYSTEMTIME eveOfLeapDay{2024, 2, 0, 28, 23, 45, 59, 999};
  EXPECT_EQ(TextOf(ToLocalTime(FileTimeOf(eveOfLeapDay), 30)), "2024-02-29 00:15:59.999 30");
  const SYSTEMTIME newYear{2026, 1, 0, 1, 3, 0, 0, 0};
  EXPECT_EQ(TextOf(ToLocalTime(FileTimeOf(newYear), -300)), "2025-12-31 22:00:00.000 -300");
}

// A clock and a time zone in the test's hands.
class LocalClockTest : public testing::Test {
 protected:
  LocalClockTest()
      : m_clockPatch("KERNEL32.dll", "GetSystemTimeAsFileTime",
                     [this](FILETIME* time) {
                       time->dwLowDateTime = static_cast<DWORD>(m_now);
                       time->dwHighDateTime = static_cast<DWORD>(m_now >> 32);
                     }),
        m_zonePatch(
            "KERNEL32.dll", "SystemTimeToTzSpecificLocalTime",
            [this](const TIME_ZONE_INFORMATION*, const SYSTEMTIME* utc, SYSTEMTIME* local) -> BOOL {
              ++m_questions;
              const std::uint64_t shifted =
                  FileTimeOf(*utc) + static_cast<std::uint64_t>(m_offset) * kMinute;
              const FILETIME time{static_cast<DWORD>(shifted), static_cast<DWORD>(shifted >> 32)};
              return FileTimeToSystemTime(&time, local);
            }) {}

  std::uint64_t m_now = FileTimeOf({2026, 3, 0, 29, 0, 59, 50, 0});
  int m_offset = 60;
  int m_questions = 0;
  LocalClock m_clock;

 private:
  CallPatch<struct ClockTag, void WINAPI(FILETIME*)> m_clockPatch;
  CallPatch<struct ZoneTag,
            BOOL WINAPI(const TIME_ZONE_INFORMATION*, const SYSTEMTIME*, SYSTEMTIME*)>
      m_zonePatch;
};

TEST_F(LocalClockTest, AsksForTheTimeZoneOnceInTenSeconds) {
  m_now += 9'999'999 + 8 * kSecond;
  EXPECT_EQ(TextOf(m_clock.Now()), "2026-03-29 01:59:58.999 60");
  m_now += kSecond;
  EXPECT_EQ(TextOf(m_clock.Now()), "2026-03-29 01:59:59.999 60");
  EXPECT_EQ(m_questions, 1);
}

TEST_F(LocalClockTest, KnowsSummerTimeFromItsFirstMoment) {
  m_now += 9'999'999 + 9 * kSecond;
  EXPECT_EQ(TextOf(m_clock.Now()), "2026-03-29 01:59:59.999 60");
  m_offset = 120;
  m_now += 1;
  EXPECT_EQ(TextOf(m_clock.Now()), "2026-03-29 03:00:00.000 120");
}

void WINAPI FineClock(FILETIME* time) {
  const std::uint64_t now = FileTimeOf({2030, 1, 0, 1, 12, 0, 0, 0}) + 1'230'000;
  *time = {static_cast<DWORD>(now), static_cast<DWORD>(now >> 32)};
}

// Windows 7 has none: a library that imports it is not loaded there.
TEST_F(LocalClockTest, ReadsTheFineClockWhereThereIsOne) {
  FARPROC fineClock = nullptr;
  std::string wanted;
  const CallPatch<struct FindTag, FARPROC WINAPI(HMODULE, const char*)> find(
      "KERNEL32.dll", "GetProcAddress", [&](HMODULE, const char* name) {
        wanted = name;
        return fineClock;
      });
  fineClock = reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FineClock));
  FindFineClock();
  EXPECT_EQ(wanted, "GetSystemTimePreciseAsFileTime");
  EXPECT_EQ(TextOf(m_clock.Now()), "2030-01-01 13:00:00.123 60");
  fineClock = nullptr;
  FindFineClock();
  EXPECT_EQ(TextOf(m_clock.Now()), "2026-03-29 01:59:50.000 60");
}

TEST_F(LocalClockTest, TakesOffsetsWestOfGreenwich) {
  m_offset = -570;
  EXPECT_EQ(TextOf(m_clock.Now()), "2026-03-28 15:29:50.000 -570");
}

}  // namespace
