#include "tools/vorldiag/trace/tracecommand.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorldiag/trace_lines.h"

using ::testing::HasSubstr;
using ::testing::SizeIs;

namespace {

TraceLine LineOf(const std::string& function, const std::string& text, int level = 2) {
  TraceLine line = ServiceLine(0, function, text, level);
  line.time = "2026-03-09 07:05:02.041 +01:00";
  return line;
}

TEST(TraceFilter, TakesEverythingUntilItIsTold) {
  EXPECT_TRUE(TraceFilter().Takes(LineOf("f", "a", 8)));
}

TEST(TraceFilter, TakesTheLevelAndMoreImportantOnes) {
  TraceFilter filter;
  filter.level = 2;
  EXPECT_TRUE(filter.Takes(LineOf("f", "a", 1)));
  EXPECT_TRUE(filter.Takes(LineOf("f", "a", 2)));
  EXPECT_FALSE(filter.Takes(LineOf("f", "a", 8)));
}

TEST(TraceFilter, TakesOneProcessAndPartsOfNames) {
  TraceFilter filter;
  filter.process = 47;
  EXPECT_TRUE(filter.Takes(LineOf("f", "a")));
  filter.process = 48;
  EXPECT_FALSE(filter.Takes(LineOf("f", "a")));
  filter = {};
  filter.function = "SERVICE::in";
  EXPECT_TRUE(filter.Takes(LineOf("CNTService::Install", "a")));
  EXPECT_FALSE(filter.Takes(LineOf("CNTService::Run", "a")));
}

TEST(TraceFilter, TakesATimeAsExactlyAsItIsGiven) {
  TraceFilter filter;
  const TraceLine line = LineOf("f", "a");
  for (const char* const since : {"2026-03-09", "2026-03-09 07:05", "2026-03-09 07:05:02.041"}) {
    filter.since = since;
    filter.until = since;
    EXPECT_TRUE(filter.Takes(line)) << since;
  }
  filter.since = "2026-03-09 07:06";
  filter.until = "";
  EXPECT_FALSE(filter.Takes(line));
  filter.since = "";
  filter.until = "2026-03-09 07:04";
  EXPECT_FALSE(filter.Takes(line));
}

TEST(TraceAsJson, HasTheLinesThatAreWanted) {
  TraceFilter filter;
  filter.function = "g";
  const auto json = LinesToJson({LineOf("f", "a"), LineOf("g", "b", 4)}, filter);
  EXPECT_EQ(json["command"], "trace");
  ASSERT_THAT(json["lines"], SizeIs(1));
  EXPECT_EQ(json["lines"][0]["text"], "b");
  EXPECT_EQ(json["lines"][0]["level"], "LEVEL4");
  EXPECT_EQ(json["lines"][0]["process"], 47);
  EXPECT_EQ(json["lines"][0]["thread"], 11);
}

TEST(TraceAsJson, HasStartsAndStopsAsTrees) {
  EXPECT_EQ(EpisodeToJson(LastStart({}))["found"], false);
  EXPECT_EQ(EpisodeToJson(LastStop({}))["episode"], "stop");
  std::vector<TraceLine> lines = {
      LineOf("main", "Entry"),
      LineOf("CNTService::ParseStandardArgs", "No Arguments hence returning"),
      LineOf("main", "Exit", 8)};
  lines[2].moment = 7;
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const auto start = EpisodeToJson(LastStart(runs));
  EXPECT_EQ(start["found"], true);
  EXPECT_THAT(start["summary"], HasSubstr("step 2 of 14 is missing"));
  ASSERT_THAT(start["threads"], SizeIs(1));
  ASSERT_THAT(start["threads"][0]["rows"], SizeIs(2));
  EXPECT_EQ(start["threads"][0]["rows"][0]["milliseconds"], 7);
  EXPECT_EQ(start["threads"][0]["rows"][0]["exit"], true);
  EXPECT_EQ(start["threads"][0]["rows"][1]["depth"], 1);
  EXPECT_EQ(start["threads"][0]["rows"][1]["text"], "No Arguments hence returning");
  const auto stop = EpisodeToJson(LastStop(runs));
  EXPECT_THAT(stop["summary"], HasSubstr("it ended by itself, took 0 ms"));
  EXPECT_EQ(stop["threads"][0]["rows"][0]["level"], "VERBOSE");
}

// What comes while the follower is already looking, until Ctrl+C.
class Following : public ::testing::Test {
 protected:
  static std::string Plain(const std::string& function, const std::string& text) {
    return "2026-03-09 07:05:02.041 +01:00 INFO 47 11 vorlsrvc.exe " + function + " x.cpp:1 " +
           text + "\r\n";
  }

  // What it writes; `isTaken`: whether anybody takes it.
  std::string Follow(const TraceFilter& filter, bool isJson, bool isTaken = true) {
    const std::string path = folder.File("output");
    const FileHandle file(CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                      CREATE_ALWAYS, 0, nullptr));
    const CallPatch<struct HandleTag, HANDLE WINAPI(DWORD)> handle(
        "kernel32.dll", "GetStdHandle",
        [&](DWORD which) { return which == STD_OUTPUT_HANDLE ? file.Get() : nullptr; });
    const CallPatch<struct WriteTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)>
        write("kernel32.dll", "WriteFile",
              [&](HANDLE place, const void* bytes, DWORD size, DWORD* written, OVERLAPPED* place2) {
                return isTaken && write.CallOriginal(place, bytes, size, written, place2);
              });
    const CallPatch<struct ControlTag, BOOL WINAPI(PHANDLER_ROUTINE, BOOL)> control(
        "kernel32.dll", "SetConsoleCtrlHandler", [&](PHANDLER_ROUTINE handler, BOOL) {
          std::ofstream(folder.File("vorltrace.log"), std::ios::binary | std::ios::app)
              << Plain("f", "a") << Plain("g", "b");
          return handler(CTRL_C_EVENT);
        });
    Output output(STD_OUTPUT_HANDLE);
    EXPECT_EQ(FollowTrace(folder.Path().wstring(), filter, isJson, output), isTaken);
    const ByteVector bytes = ReadBytes(path);
    return {bytes.begin(), bytes.end()};
  }

  const TempFolder folder;
};

TEST_F(Following, GivesTheLinesThatAreWanted) {
  TraceFilter filter;
  filter.function = "g";
  EXPECT_EQ(Follow(filter, /*isJson=*/false), Plain("g", "b"));
  EXPECT_EQ(Follow({}, /*isJson=*/false), Plain("f", "a") + Plain("g", "b"));
}

TEST_F(Following, GivesEachLineAsADocument) {
  TraceFilter filter;
  filter.function = "g";
  const std::string text = Follow(filter, /*isJson=*/true);
  const nlohmann::json json = nlohmann::json::parse(text);
  EXPECT_EQ(json["lines"][0]["text"], "b");
  EXPECT_EQ(json["command"], "trace");
}

TEST_F(Following, EndsWhenNobodyTakesTheLines) { Follow({}, /*isJson=*/false, /*isTaken=*/false); }

}  // namespace
