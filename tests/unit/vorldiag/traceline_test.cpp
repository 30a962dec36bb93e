#include "tools/vorldiag/trace/traceline.h"

#include <gmock/gmock.h>

namespace {

// 2026-03-09 06:05:02.041 UTC
constexpr std::int64_t kMoment = 1773036302041;

TEST(ParseTraceLine, ReadsPlainLines) {
  TraceLine line;
  ASSERT_TRUE(
      ParseTraceLine("2026-03-09 07:05:02.041 +01:00 INFO 4711 815 vorlsrvc.exe "
                     "CNTService::Install service/ntservc.cpp:123 -start now",
                     line));
  EXPECT_EQ(line.moment, kMoment);
  EXPECT_EQ(line.time, "2026-03-09 07:05:02.041 +01:00");
  EXPECT_EQ(line.level, 2);
  EXPECT_EQ(line.processId, 4711U);
  EXPECT_EQ(line.threadId, 815U);
  EXPECT_EQ(line.module, "vorlsrvc.exe");
  EXPECT_EQ(line.function, "CNTService::Install");
  EXPECT_EQ(line.source, "service/ntservc.cpp:123");
  EXPECT_EQ(line.text, "-start now");
}

TEST(ParseTraceLine, ReadsLinesForLogViewers) {
  TraceLine line;
  ASSERT_TRUE(ParseTraceLine(
      "<![LOG[a ]LOG]!>< b]LOG]!><time=\"07:05:02.041-060\" date=\"03-09-2026\" "
      "component=\"vorlsrvc.exe\" context=\"ERROR 4711 CNTService::Install\" type=\"3\" "
      "thread=\"815\" file=\"service/ntservc.cpp:123\">",
      line));
  EXPECT_EQ(line.moment, kMoment);
  EXPECT_EQ(line.time, "2026-03-09 07:05:02.041 +01:00");
  EXPECT_EQ(line.level, 1);
  EXPECT_EQ(line.processId, 4711U);
  EXPECT_EQ(line.threadId, 815U);
  EXPECT_EQ(line.module, "vorlsrvc.exe");
  EXPECT_EQ(line.function, "CNTService::Install");
  EXPECT_EQ(line.source, "service/ntservc.cpp:123");
  EXPECT_EQ(line.text, "a ]LOG]!>< b");
}

TEST(ParseTraceLine, ReadsOffsetsWestOfGreenwich) {
  TraceLine line;
  ASSERT_TRUE(ParseTraceLine("2026-03-09 02:35:02.041 -03:30 LEVEL4 1 2 m - -:0 ", line));
  EXPECT_EQ(line.moment, kMoment);
  EXPECT_EQ(line.level, 4);
  EXPECT_EQ(line.function, "");
  EXPECT_EQ(line.text, "");

  ASSERT_TRUE(
      ParseTraceLine("<![LOG[x]LOG]!><time=\"02:35:02.041+210\" date=\"03-09-2026\" "
                     "component=\"m\" context=\"INFO 1 f\" type=\"1\" thread=\"2\" "
                     "file=\"s:1\">",
                     line));
  EXPECT_EQ(line.moment, kMoment);
  EXPECT_EQ(line.time, "2026-03-09 02:35:02.041 -03:30");
}

TEST(ParseTraceLine, GivesBlanksInNamesBack) {
  TraceLine line;
  ASSERT_TRUE(
      ParseTraceLine("2026-03-09 07:05:02.041 +01:00 VERBOSE 1 2 my\\x20module f s:1 text", line));
  EXPECT_EQ(line.module, "my module");
  EXPECT_EQ(line.level, 8);
}

TEST(ParseTraceLine, RefusesWhatIsNone) {
  TraceLine line;
  for (const char* text :
       {"", "text", "2026-03-09 07:05:02.041 +01:00 INFO 4711 815 m f", "<![LOG[x]LOG]!>",
        "2026-13-09 07:05:02.041 +01:00 INFO 1 2 m f s:1 x",
        "2026-03-09 07:05:02.041 +01:00 LOUD 1 2 m f s:1 x",
        "2026-03-09 07:05:02.041 +01:00 INFO x 2 m f s:1 x",
        "<![LOG[x]LOG]!><time=\"07:05:02.041\" date=\"03-09-2026\" context=\"\">"}) {
    EXPECT_FALSE(ParseTraceLine(text, line)) << text;
  }
}

TEST(LevelOf, ReadsWordsAndNumbers) {
  EXPECT_EQ(LevelOf("error"), 1);
  EXPECT_EQ(LevelOf("Verbose"), 8);
  EXPECT_EQ(LevelOf("2"), 2);
  EXPECT_EQ(LevelOf("LEVEL4"), 4);
  EXPECT_EQ(LevelOf("loud"), 0);
}

TEST(LevelWord, IsItsNumberWhereItHasNoName) {
  EXPECT_EQ(LevelWord(1), "ERROR");
  EXPECT_EQ(LevelWord(2), "INFO");
  EXPECT_EQ(LevelWord(8), "VERBOSE");
  EXPECT_EQ(LevelWord(4), "LEVEL4");
}

}  // namespace
