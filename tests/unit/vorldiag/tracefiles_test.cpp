#include "tools/vorldiag/trace/tracefiles.h"

#include <gmock/gmock.h>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

std::string Line(const std::string& function, const std::string& text) {
  return "2026-03-09 07:05:02.041 +01:00 INFO 47 11 vorlsrvc.exe " + function + " x.cpp:1 " + text +
         "\r\n";
}

class TraceFilesTest : public ::testing::Test {
 protected:
  void Put(const std::string& file, const std::string& text) const {
    std::ofstream(folder.File(file), std::ios::binary) << text;
  }
  static std::vector<std::string> Texts(const TraceContent& trace) {
    std::vector<std::string> texts;
    for (const TraceLine& line : trace.lines) {
      texts.push_back(line.text);
    }
    return texts;
  }

  const TempFolder folder;
  const std::wstring path = folder.Path().wstring();
};

TEST(TraceFileNumber, IsThatBetweenTheNameAndItsEnding) {
  EXPECT_EQ(TraceFileNumber(L"C:\\logs\\vorltrace.000042.log"), 42U);
  EXPECT_EQ(TraceFileNumber(L"VORLTRACE.7.LOG"), 7U);
  for (const wchar_t* const other :
       {L"vorltrace.log", L"vorltrace..log", L"vorltrace.second.log", L"vorltrace.0000x1.log",
        L"othertrace.000001.log", L"vorltrace.000001.txt", L""}) {
    EXPECT_EQ(TraceFileNumber(other), 0U);
  }
}

TEST(TraceLines, AreThoseThatEnd) {
  const std::string bytes = "\r\n\n" + Line("f", "a") + "no line\r\n\r\n" +
                            "2026-03-09 07:05:02.041 +01:00 INFO 47 11 m f s:1 without CR\n";
  const std::string half = Line("f", "half").substr(0, 40);
  std::vector<TraceLine> lines;
  unsigned long long unreadable = 0;
  EXPECT_EQ(AddTraceLines(bytes + half, lines, &unreadable), bytes.size());
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[1].text, "without CR");
  EXPECT_EQ(unreadable, 1U);
  EXPECT_EQ(AddTraceLines("no line\n", lines), 8U);
}

TEST_F(TraceFilesTest, AreReadInTheirOrder) {
  Put("vorltrace.000010.log", Line("f", "b"));
  Put("vorltrace.000009.log", Line("f", "a"));
  Put("vorltrace.log", Line("f", "c"));
  Put("vorltrace.second.log", Line("f", "d"));
  Put("vorltrace.x.log", Line("f", "none of them"));
  const TraceContent trace = ReadWholeTrace(path);
  EXPECT_THAT(Texts(trace), ElementsAre("a", "b", "c", "d"));
  EXPECT_TRUE(trace.isComplete);
  EXPECT_EQ(trace.problem, "");
}

// A start may have begun in the file before the one that shows it.
TEST_F(TraceFilesTest, OfTheLatestStartAreTheOneWithItAndTheOneBefore) {
  const std::string start = Line("CNTService::ParseStandardArgs", "No Arguments hence returning");
  Put("vorltrace.000001.log", Line("f", "old"));
  Put("vorltrace.000002.log", Line("f", "before"));
  Put("vorltrace.000003.log", start + Line("CNTService::ParseStandardArgs", "-start") +
                                  Line("f", "No Arguments hence returning"));
  Put("vorltrace.log", Line("f", "young"));
  TraceContent trace = ReadLatestTrace(path);
  ASSERT_THAT(trace.lines, SizeIs(5));
  EXPECT_EQ(trace.lines[0].text, "before");
  EXPECT_EQ(trace.lines[4].text, "young");
  EXPECT_FALSE(trace.isComplete);
  std::filesystem::remove(folder.File("vorltrace.000001.log"));
  EXPECT_TRUE(ReadLatestTrace(path).isComplete);
  // Without a start all of them are read.
  Put("vorltrace.000003.log", "");
  trace = ReadLatestTrace(path);
  EXPECT_THAT(Texts(trace), ElementsAre("before", "young"));
}

TEST_F(TraceFilesTest, AreReadAsLongAsTheyAreNotTooMany) {
  Put("vorltrace.000001.log", Line("f", "old"));
  Put("vorltrace.log", Line("f", "young"));
  constexpr std::uintmax_t most = std::uintmax_t{64} * 1024 * 1024;
  std::filesystem::resize_file(folder.File("vorltrace.log"), most);
  EXPECT_THAT(Texts(ReadRecentTrace(path)), ElementsAre("old", "young"));
  std::filesystem::resize_file(folder.File("vorltrace.log"), most + 1);
  for (const TraceContent& trace : {ReadRecentTrace(path), ReadLatestTrace(path)}) {
    EXPECT_THAT(Texts(trace), ElementsAre("young"));
    EXPECT_FALSE(trace.isComplete);
  }
  EXPECT_THAT(Texts(ReadWholeTrace(path)), ElementsAre("old", "young"));
}

TEST_F(TraceFilesTest, ThatShrinkWhileTheyAreReadAreReadAsFarAsTheyGo) {
  Put("vorltrace.log", Line("f", "a"));
  const CallPatch<struct SizeTag, BOOL WINAPI(HANDLE, LARGE_INTEGER*)> size(
      "KERNEL32.dll", "GetFileSizeEx", [](HANDLE, LARGE_INTEGER* bytes) {
        bytes->QuadPart = 1000;
        return TRUE;
      });
  EXPECT_THAT(Texts(ReadWholeTrace(path)), ElementsAre("a"));
}

TEST_F(TraceFilesTest, ThatCannotBeReadAreNamed) {
  EXPECT_EQ(ReadWholeTrace(path + L"\\none").problem, "");
  Put("vorltrace.log", Line("f", "a"));
  const FileHandle holder(CreateFileA(folder.File("vorltrace.log").c_str(), GENERIC_READ, 0,
                                      nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_THAT(ReadWholeTrace(path).problem, HasSubstr("\\vorltrace.log: error 32"));
  EXPECT_THAT(ReadWholeTrace(path).advice, HasSubstr("another program keeps the file"));
  std::filesystem::create_directory(folder.File("vorltrace.second.log"));
  EXPECT_THAT(ReadWholeTrace(path).problem, HasSubstr("\\vorltrace.log: error 32"));
  std::filesystem::create_directory(folder.File("logs"));
  std::filesystem::create_directory(folder.File("logs/vorltrace.log"));
  const TraceContent trace = ReadWholeTrace(path + L"\\logs");
  EXPECT_THAT(trace.problem, HasSubstr("\\logs\\vorltrace.log is a folder"));
  EXPECT_THAT(trace.advice, HasSubstr("Remove the folder"));
  EXPECT_THAT(trace.lines, IsEmpty());
}

// Half a line at the end is one that is being written, unless there is nothing else.
TEST_F(TraceFilesTest, WithoutAnyLineAreUnreadable) {
  Put("vorltrace.log", "not a line");
  EXPECT_EQ(ReadWholeTrace(path).unreadable, 1U);
  Put("vorltrace.log", Line("f", "a") + "not yet a line");
  EXPECT_EQ(ReadWholeTrace(path).unreadable, 0U);
  Put("vorltrace.log", "");
  EXPECT_EQ(ReadWholeTrace(path).unreadable, 0U);
}

}  // namespace
