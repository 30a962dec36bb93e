#include "companions/vlevtlog/trace_log.h"

#include <gmock/gmock.h>

#include <cstring>
#include <fstream>
#include <string>

#include "tests/unit/trace_log_test.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

namespace {

TEST_F(TraceLogTest, WritesOneLineACallIntoTheLogsFolder) {
  Log(2, "%s", "Entry");
  Log(1, "X failed %u", 5U);
  const std::string content = Content("vorltrace.log");
  const std::string who =
      std::to_string(GetCurrentProcessId()) + " " + std::to_string(GetCurrentThreadId());
  EXPECT_THAT(content, EndsWith(" ERROR " + who + " module Function source.cpp:1 X failed 5\r\n"));
  EXPECT_THAT(Messages(), ElementsAre("Entry", "X failed 5"));
}

TEST_F(TraceLogTest, StampsLinesWithTheLocalTime) {
  SYSTEMTIME before;
  GetLocalTime(&before);
  Log(2, "x");
  SYSTEMTIME after;
  GetLocalTime(&after);
  const auto text = [](const SYSTEMTIME& time) {
    char stamp[32];
    snprintf(stamp, sizeof stamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u", time.wYear, time.wMonth,
             time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
    return std::string(stamp);
  };
  const std::string stamp = Content("vorltrace.log").substr(0, 23);
  // The two clocks of the system may differ by a tick of the coarser one.
  EXPECT_LE(stamp.substr(0, 19), text(after).substr(0, 19));
  EXPECT_GE(stamp.substr(0, 17), text(before).substr(0, 17));
  EXPECT_THAT(Content("vorltrace.log").substr(23, 8), MatchesRegex(" [-+]..:.. "));
}

TEST_F(TraceLogTest, KeepsOneCallOneLineWhateverItSays) {
  Log(2, "a\nb\r\nc%s", "\n2026-01-01 00:00:00.000 +00:00 ERROR 1 1 m f s:1 forged");
  EXPECT_THAT(Messages(), ElementsAre("a\\nb\\r\\nc\\n2026-01-01 00:00:00.000 +00:00 ERROR 1 1 m "
                                      "f s:1 forged"));
}

TEST_F(TraceLogTest, CutsAMessageOfAMegabyte) {
  Log(2, "%s", std::string(1 << 20, 'x').c_str());
  EXPECT_THAT(Messages(), ElementsAre(std::string(262144, 'x') + " [cut]"));
}

TEST_F(TraceLogTest, ContinuesAnExistingFile) {
  WriteFirst("old line\r\n");
  Log(2, "new");
  EXPECT_THAT(Content("vorltrace.log"), StartsWith("old line\r\n2"));
}

// Levels and format.

TEST_F(TraceLogTest, NeitherFormatsNorWritesALineThatIsOff) {
  Configure("Levels=ERROR\n");
  Log(1, "start");
  const std::string text(1000, 'x');
  int reads = 0;
  int writes = 0;
  {
    const CallPatch<struct ReadTag, SIZE_T WINAPI(const void*, MEMORY_BASIC_INFORMATION*, SIZE_T)>
        read("KERNEL32.dll", "VirtualQuery",
             [&](const void*, MEMORY_BASIC_INFORMATION*, SIZE_T) -> SIZE_T {
               ++reads;
               return 0;
             });
    const CallPatch<struct WriteTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)>
        write("KERNEL32.dll", "WriteFile",
              [&](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) -> BOOL {
                ++writes;
                return FALSE;
              });
    Log(2, "%s", text.c_str());
    Log(8, "%s", text.c_str());
    // Unnamed levels go with the verbose one.
    Log(4, "%s", text.c_str());
  }
  EXPECT_EQ(reads, 0);
  EXPECT_EQ(writes, 0);
  EXPECT_THAT(Messages(), ElementsAre("start"));
}

TEST_F(TraceLogTest, PicksUpAChangeOfTheConfigurationWithinSeconds) {
  Configure("Levels=ERROR\n");
  Log(2, "one");
  Configure("Levels=ERROR,INFO\n");
  m_tick += 2 * kSecond;
  Log(2, "two");
  Configure("Levels=NONE\nFormat=CMTRACE\n");
  m_tick += 2 * kSecond;
  Log(1, "three");
  Configure("Levels=ALL \nFormat=CMTRACE\n");
  m_tick += 2 * kSecond;
  Log(8, "four");
  const std::string content = Content("vorltrace.log");
  EXPECT_THAT(content, MatchesRegex("[^\n]* two\r\n<!\\[LOG\\[four\\]LOG\\]!><time=[^\n]*\r\n"));
}

TEST_F(TraceLogTest, LooksAtTheConfigurationEveryTwoSecondsAndNotAtEveryLine) {
  int looks = 0;
  CallPatch<struct LookTag, BOOL WINAPI(const wchar_t*, GET_FILEEX_INFO_LEVELS, void*)> patch(
      "KERNEL32.dll", "GetFileAttributesExW",
      [&](const wchar_t* path, GET_FILEEX_INFO_LEVELS level, void* data) {
        ++looks;
        return patch.CallOriginal(path, level, data);
      });
  for (int i = 0; i < 1000; ++i) {
    Log(2, "line");
  }
  EXPECT_EQ(looks, 1);
  m_tick += 2 * kSecond - 1;
  Log(2, "line");
  EXPECT_EQ(looks, 1);
  m_tick += 1;
  Log(2, "line");
  EXPECT_EQ(looks, 2);
}

TEST_F(TraceLogTest, ReportsAValueThatIsNotUnderstoodOnce) {
  Configure("Levels=LOUD\n");
  Log(2, "one");
  m_tick += 2 * kSecond;
  Log(2, "two");
  EXPECT_THAT(Messages(), ElementsAre("[TRACE] Levels=LOUD is not understood, the default is used",
                                      "one", "two"));
}

TEST_F(TraceLogTest, KeepsItsOptionsWhileTheFileIsMissing) {
  Configure("Levels=ERROR\n");
  Log(2, "one");
  fs::remove(m_folder.Path() / "conf" / "vorlconf.ini");
  m_tick += 2 * kSecond;
  Log(2, "two");
  Log(1, "three");
  EXPECT_THAT(Messages(), ElementsAre("three"));
}

TEST_F(TraceLogTest, KeepsItsOptionsWhileTheFileCannotBeRead) {
  Configure("Levels=ERROR\n");
  Log(2, "one");
  Configure("Levels=INFO\n");
  const HANDLE keeper = Hold(m_folder.Path() / "conf" / "vorlconf.ini", 0);
  m_tick += 2 * kSecond;
  Log(2, "two");
  Log(1, "three");
  CloseHandle(keeper);
  m_tick += 2 * kSecond;
  Log(2, "four");
  Log(1, "five");
  EXPECT_THAT(Messages(), ElementsAre("three", "four"));
}

TEST_F(TraceLogTest, FollowsAFileThatCouldNotBeReadAtFirst) {
  Configure("Levels=NONE\n");
  const HANDLE keeper = Hold(m_folder.Path() / "conf" / "vorlconf.ini", 0);
  Log(2, "one");
  CloseHandle(keeper);
  m_tick += 2 * kSecond;
  Log(2, "two");
  EXPECT_THAT(Messages(), ElementsAre("one"));
}

TEST_F(TraceLogTest, TakesAnotherConfigurationFileAtOnce) {
  const fs::path other = m_folder.Path() / "other.ini";
  std::ofstream(other) << "[TRACE]\nLevels=NONE\n";
  LetRest(other);
  Log(2, "one");
  EXPECT_TRUE(m_log.SetConfigurationFile(other.c_str()));
  Log(2, "two");
  std::ofstream(other) << "[TRACE]\nLevels=INFO\n";
  m_tick += 2 * kSecond;
  Log(2, "three");
  EXPECT_THAT(Messages(), ElementsAre("one", "three"));
}

TEST_F(TraceLogTest, RefusesAConfigurationFileThatCannotBe) {
  EXPECT_FALSE(m_log.SetConfigurationFile(nullptr));
  EXPECT_FALSE(m_log.SetConfigurationFile(L""));
  EXPECT_FALSE(m_log.SetConfigurationFile(std::wstring(260, L'x').c_str()));
  EXPECT_TRUE(m_log.SetConfigurationFile(std::wstring(259, L'x').c_str()));
}

// Rotation.

// What is kept for them is not known yet.
TEST_F(TraceLogTest, DeletesNothingBeforeItCouldReadTheConfiguration) {
  Configure("FileSizeKB=4\nFiles=100\n");
  fs::create_directories(Logs());
  for (int number = 1; number <= 30; ++number) {
    std::ofstream(Logs() / ("vorltrace." + std::to_string(number) + ".log")) << "old\r\n";
  }
  std::ofstream(First(), std::ios::binary) << std::string(6 * 1024 * 1024, 'x') << "\r\n";
  const HANDLE keeper = Hold(m_folder.Path() / "conf" / "vorlconf.ini", 0);
  Log(2, "one");
  EXPECT_EQ(Files().size(), 31U);
  CloseHandle(keeper);
  m_tick += 2 * kSecond;
  Log(2, "two");
  EXPECT_EQ(Files().size(), 32U);
}

TEST_F(TraceLogTest, DeletesNothingWhileThereIsNoConfiguration) {
  fs::create_directories(Logs());
  for (int number = 100001; number <= 100030; ++number) {
    std::ofstream(Logs() / ("vorltrace." + std::to_string(number) + ".log")) << "old\r\n";
  }
  std::ofstream(First(), std::ios::binary) << std::string(6 * 1024 * 1024, 'x') << "\r\n";
  Log(2, "one");
  m_tick += 2 * kSecond;
  Log(2, "two");
  EXPECT_EQ(Files().size(), 31U);
}

// The options in force are those that any process has read whole.
TEST_F(TraceLogTest, GoesByTheOptionsThatAnotherProcessHasRead) {
  Configure("Levels=ERROR\n");
  Log(1, "one");
  TraceLog other;
  ASSERT_TRUE(other.SetFolder(m_folder.Path().c_str()));
  const HANDLE keeper = Hold(m_folder.Path() / "conf" / "vorlconf.ini", 0);
  LogTo(other, 1, "two");
  LogTo(other, 2, "off");
  CloseHandle(keeper);
  Configure("Levels=VERBOSE\n");
  EXPECT_TRUE(other.SetConfigurationFile((m_folder.Path() / "conf" / "vorlconf.ini").c_str()));
  Log(1, "off");
  Log(8, "three");
  EXPECT_THAT(Messages(), ElementsAre("one", "two", "three"));
  other.Close();
}

TEST_F(TraceLogTest, BeginsNoNewFileOnWhatOnlyAnotherProcessHasRead) {
  Configure("FileSizeKB=4\nFiles=2\n");
  Log(2, "one");
  TraceLog other;
  ASSERT_TRUE(other.SetFolder(m_folder.Path().c_str()));
  const HANDLE keeper = Hold(m_folder.Path() / "conf" / "vorlconf.ini", 0);
  const std::string filler(4000, 'x');
  LogTo(other, 2, "%s", filler.c_str());
  LogTo(other, 2, "%s", filler.c_str());
  CloseHandle(keeper);
  EXPECT_THAT(Files(), ElementsAre("vorltrace.log"));
  Log(2, "two");
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.log"));
  other.Close();
}

// An editor that has emptied the file and is about to write it.
TEST_F(TraceLogTest, KeepsItsOptionsWhileTheFileIsEmptyForAMoment) {
  Configure("Levels=ERROR\n");
  Log(1, "one");
  std::ofstream(m_folder.Path() / "conf" / "vorlconf.ini", std::ios::trunc).flush();
  m_tick += 2 * kSecond;
  Log(2, "two");
  Log(1, "three");
  EXPECT_THAT(Messages(), ElementsAre("one", "three"));
}

// A file that is written in several openings may lack what its writer has not come to yet.
TEST_F(TraceLogTest, KeepsItsFilesWhileTheConfigurationIsWrittenPieceByPiece) {
  Configure("FileSizeKB=4\nFiles=20\n");
  const std::string filler(4000, 'x');
  const auto fill = [&](int files) {
    for (int i = 0; i < files; ++i) {
      Log(2, "%s", filler.c_str());
    }
  };
  fill(30);
  ASSERT_EQ(Files().size(), 20U);
  ConfigureNow("FileSizeKB=4\n");
  for (int looks = 0; looks < 2; ++looks) {
    Pass(2 * kSecond);
    fill(10);
    EXPECT_EQ(Files().size(), 20U);
  }
  ConfigureNow("FileSizeKB=4\nFiles=15\n");
  Pass(4999);
  fill(2);
  EXPECT_EQ(Files().size(), 20U);
  Pass(2 * kSecond);
  fill(2);
  EXPECT_EQ(Files().size(), 15U);
}

TEST_F(TraceLogTest, BeginsNoNewFileOnAConfigurationThatIsJustBeingWritten) {
  ConfigureNow("FileSizeKB=4\nFiles=2\n");
  const std::string filler(4000, 'x');
  for (int i = 0; i < 3; ++i) {
    Log(2, "%s", filler.c_str());
  }
  EXPECT_THAT(Files(), ElementsAre("vorltrace.log"));
  Pass(5 * kSecond);
  Log(2, "one");
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.log"));
  EXPECT_THAT(Messages(), ElementsAre("one"));
}

// The first one takes what is in force from the others.
TEST_F(TraceLogTest, KeepsTheLimitsInForceInAProcessThatBeginsMeanwhile) {
  Configure("FileSizeKB=4\nFiles=3\n");
  const std::string filler(4000, 'x');
  for (int i = 0; i < 5; ++i) {
    Log(2, "%s", filler.c_str());
  }
  ConfigureNow("Levels=ERROR,INFO\nFiles=2\n");
  TraceLog other;
  ASSERT_TRUE(other.SetFolder(m_folder.Path().c_str()));
  LogTo(other, 2, "%s", filler.c_str());
  LogTo(other, 2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  EXPECT_THAT(Files(),
              ElementsAre("vorltrace.000006.log", "vorltrace.000007.log", "vorltrace.log"));
  other.Close();
}

TEST_F(TraceLogTest, AddsLevelsAtOnceAndTakesThemAwayWhenTheFileIsAtRest) {
  Configure("Levels=ERROR\n");
  Log(2, "off");
  ConfigureNow("Levels=VERBOSE\nFormat=CMTRACE\n");
  Pass(2 * kSecond);
  Log(2, "off");
  Log(8, "one");
  Log(1, "two");
  Pass(3 * kSecond);
  Log(1, "off");
  Log(8, "three");
  EXPECT_THAT(Content("vorltrace.log"),
              MatchesRegex("[^\n]* one\r\n[^\n]* two\r\n<!\\[LOG\\[three\\]LOG\\]!>[^\n]*\r\n"));
}

TEST_F(TraceLogTest, TakesLevelsAndFormatAtOnceWhereNoneAreInForce) {
  ConfigureNow("Levels=ERROR\nFormat=CMTRACE\n");
  Log(2, "off");
  Log(1, "on");
  EXPECT_THAT(Content("vorltrace.log"), MatchesRegex("<!\\[LOG\\[on\\]LOG\\]!>[^\n]*\r\n"));
}

TEST_F(TraceLogTest, ReportsAValueThatIsNotUnderstoodOnceHoweverOftenItIsRead) {
  ConfigureNow("Levels=LOUD\n");
  for (int seconds = 0; seconds < 8; seconds += 2) {
    Log(2, "%d", seconds);
    Pass(2 * kSecond);
  }
  EXPECT_THAT(Messages(), ElementsAre("[TRACE] Levels=LOUD is not understood, the default is used",
                                      "0", "2", "4", "6"));
}

}  // namespace
