#include "companions/vlevtlog/line_layout.h"

#include <gtest/gtest.h>

#include <string>

#include "companions/vlevtlog/line_text.h"

namespace {

TraceCall SampleCall() {
  return {2,
          "vorlsrvc.exe",
          "CNTService::Install",
          "service/ntservc.cpp",
          123,
          4711,
          815,
          {2026, 3, 9, 7, 5, 2, 41, 60}};
}

std::string Line(TraceFormat format, const TraceCall& call, std::string_view message) {
  LineText line;
  BeginLine(line, format, call);
  line.AppendNarrow(message);
  EndLine(line, format, call);
  return std::string(line.View());
}

TEST(LineLayout, SaysWhenWhoAndWhere) {
  EXPECT_EQ(Line(TraceFormat::kText, SampleCall(), "Entry"),
            "2026-03-09 07:05:02.041 +01:00 INFO 4711 815 vorlsrvc.exe CNTService::Install "
            "service/ntservc.cpp:123 Entry\r\n");
}

TEST(LineLayout, WritesLevelsAsWords) {
  TraceCall call = SampleCall();
  const auto word = [&](int level) {
    call.level = level;
    const std::string line = Line(TraceFormat::kText, call, "x");
    return line.substr(31, line.find(" 4711") - 31);
  };
  EXPECT_EQ(word(1), "ERROR");
  EXPECT_EQ(word(2), "INFO");
  EXPECT_EQ(word(8), "VERBOSE");
  EXPECT_EQ(word(4), "LEVEL4");
  EXPECT_EQ(word(-2147483647 - 1), "LEVEL-2147483648");
}

TEST(LineLayout, WritesOffsetsWestOfGreenwichAndOfHalfHours) {
  TraceCall call = SampleCall();
  call.time.utcOffsetMinutes = -570;
  EXPECT_EQ(Line(TraceFormat::kText, call, "").substr(24, 6), "-09:30");
  call.time.utcOffsetMinutes = 345;
  EXPECT_EQ(Line(TraceFormat::kText, call, "").substr(24, 6), "+05:45");
}

TEST(LineLayout, KeepsTheFieldsApart) {
  TraceCall call = SampleCall();
  call.moduleName = nullptr;
  call.functionName = "operator new";
  call.sourceFile = "";
  call.line = -1;
  EXPECT_EQ(Line(TraceFormat::kText, call, "a b"),
            "2026-03-09 07:05:02.041 +01:00 INFO 4711 815 - operator\\x20new -:-1 a b\r\n");
}

TEST(LineLayout, CutsEndlessNamesAndSurvivesWrongOnes) {
  const std::string endless(100000, 'n');
  TraceCall call = SampleCall();
  call.moduleName = reinterpret_cast<const char*>(std::uintptr_t{0x10});
  call.functionName = endless.c_str();
  const std::string line = Line(TraceFormat::kText, call, "x");
  EXPECT_NE(line.find(" - " + std::string(260, 'n') + " service"), std::string::npos);
}

TEST(LineLayout, WritesTheMarkUpOfLogViewers) {
  EXPECT_EQ(Line(TraceFormat::kCmTrace, SampleCall(), "Entry"),
            "<![LOG[Entry]LOG]!><time=\"07:05:02.041-060\" date=\"03-09-2026\" "
            "component=\"vorlsrvc.exe\" context=\"INFO 4711 CNTService::Install\" type=\"1\" "
            "thread=\"815\" file=\"service/ntservc.cpp:123\">\r\n");
}

TEST(LineLayout, MarksUpErrorsAndOffsetsWestOfGreenwich) {
  TraceCall call = SampleCall();
  call.level = 1;
  call.functionName = "f<\"x\">";
  call.time.utcOffsetMinutes = -300;
  EXPECT_EQ(Line(TraceFormat::kCmTrace, call, "a ]LOG]!> b\n"),
            "<![LOG[a ]LOG]!\\x3E b\\n]LOG]!><time=\"07:05:02.041+300\" date=\"03-09-2026\" "
            "component=\"vorlsrvc.exe\" context=\"ERROR 4711 f\\x3C\\x22x\\x22\\x3E\" type=\"3\" "
            "thread=\"815\" file=\"service/ntservc.cpp:123\">\r\n");
}

}  // namespace
