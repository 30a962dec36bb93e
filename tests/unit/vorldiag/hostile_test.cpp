// Traces that nobody means well with.
#include <gmock/gmock.h>

#include <string>

#include "tests/support/mutation.h"
#include "tools/vorldiag/trace/traceline.h"

namespace {

TEST(HostileTrace, AnyChangedLineIsReadOrRefused) {
  Mutator mutator(
      {"2026-03-09 07:05:02.041 +01:00 INFO 4711 815 vorlsrvc.exe CNTService::Install "
       "service/ntservc.cpp:123 -start now",
       "<![LOG[a ]LOG]!><time=\"07:05:02.041-060\" date=\"03-09-2026\" component=\"vorlsrvc.exe\" "
       "context=\"ERROR 4711 CNTService::Install\" type=\"3\" thread=\"815\" "
       "file=\"service/ntservc.cpp:123\">",
       ""},
      {"<![LOG[", "]LOG]!>", "\"", ">", "<", " ", "99999999999999999999", "-", "+", ":",
       "LEVEL4294967295", "0000-00-00", std::string(1, '\0'), "\xFF\xC0\x80"});
  GuardedText guarded;
  ForEachMutation("trace lines", mutator, 50'000, [&](const std::string& input) {
    TraceLine line;
    if (ParseTraceLine(guarded.Copy(input), line)) {
      EXPECT_NE(line.level, 0);
      EXPECT_GE(line.time.size(), 23U);
    }
  });
}

}  // namespace
