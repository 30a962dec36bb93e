// How the trace begins new files, and what it does beside other files and their viewers.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <fstream>
#include <string>
#include <vector>

#include "tests/unit/trace_log_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST_F(TraceLogTest, StartsANewFileWhenOneIsFullAndKeepsTheConfiguredNumber) {
  Configure("FileSizeKB=4\nFiles=3\n");
  const std::string filler(900, 'x');
  for (int i = 0; i < 20; ++i) {
    Log(2, "%d %s", i, filler.c_str());
  }
  EXPECT_THAT(Files(),
              ElementsAre("vorltrace.000003.log", "vorltrace.000004.log", "vorltrace.log"));
  std::vector<int> numbers;
  for (const std::string& name : Files()) {
    EXPECT_LE(fs::file_size(Logs() / name), 4096U);
    for (const std::string& message : Messages(name)) {
      numbers.push_back(std::stoi(message));
    }
  }
  EXPECT_THAT(numbers, ElementsAre(8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19));
}

TEST_F(TraceLogTest, GivesALineThatIsLongerThanAFileItsOwn) {
  Configure("FileSizeKB=4\n");
  Log(2, "one");
  Log(2, "%s", std::string(10000, 'x').c_str());
  Log(2, "three");
  EXPECT_THAT(Messages("vorltrace.000001.log"), ElementsAre("one"));
  EXPECT_THAT(Messages("vorltrace.000002.log"), ElementsAre(std::string(10000, 'x')));
  EXPECT_THAT(Messages(), ElementsAre("three"));
}

TEST_F(TraceLogTest, CountsOnFromTheHighestNumberInTheFolder) {
  Configure("FileSizeKB=4\n");
  fs::create_directories(Logs());
  for (const char* name : {"vorltrace.001234.log", "vorltrace.7.log", "vorltrace.x.log",
                           "vorltrace.99999999999.log", "vorltrace.12.log.bak"}) {
    std::ofstream(Logs() / name) << name;
  }
  Log(2, "%s", std::string(4000, 'x').c_str());
  Log(2, "next");
  EXPECT_TRUE(fs::exists(Logs() / "vorltrace.001235.log"));
}

TEST_F(TraceLogTest, CountsOnBesideTheHighestNumberThatThereIs) {
  Configure("FileSizeKB=4\n");
  fs::create_directories(Logs());
  std::ofstream(Logs() / "vorltrace.999999999.log") << "high";
  for (int i = 0; i < 3; ++i) {
    Log(2, "%s", std::string(4000, 'x').c_str());
  }
  EXPECT_TRUE(fs::exists(Logs() / "vorltrace.000002.log"));
}

// The last numbers that there are. Those that follow them are younger.
TEST_F(TraceLogTest, BeginsAnewBehindTheHighestNumbers) {
  Configure("FileSizeKB=4\nFiles=4\n");
  fs::create_directories(Logs());
  std::ofstream(Logs() / "vorltrace.999999998.log") << "high";
  std::ofstream(Logs() / "vorltrace.999999999.log") << "higher";
  const std::string filler(4000, 'x');
  Log(2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.999999998.log",
                                   "vorltrace.999999999.log", "vorltrace.log"));
  Log(2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.000002.log",
                                   "vorltrace.000003.log", "vorltrace.log"));
}

TEST_F(TraceLogTest, KeepsTheFileThatHasJustBecomeFullWhateverElseLiesThere) {
  Configure("FileSizeKB=4\nFiles=2\n");
  const std::string filler(4000, 'x');
  Log(2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  std::ofstream(Logs() / "vorltrace.005000.log") << "from a backup";
  Log(2, "%s", filler.c_str());
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000002.log", "vorltrace.log"));
}

// However many go. Nobody waits for it either.
TEST_F(TraceLogTest, LooksThroughTheFolderOnceAndDeletesWithoutTheLock) {
  Configure("FileSizeKB=4\nFiles=3\n");
  fs::create_directories(Logs());
  for (int number = 100001; number <= 100300; ++number) {
    std::ofstream(Logs() / ("vorltrace." + std::to_string(number) + ".log")) << "old\r\n";
  }
  const std::string filler(4000, 'x');
  Log(2, "%s", filler.c_str());
  TraceLog other;
  ASSERT_TRUE(other.SetFolder(m_folder.Path().c_str()));
  int looks = 0;
  int deletions = 0;
  {
    CallPatch<struct FindTag, HANDLE WINAPI(const wchar_t*, WIN32_FIND_DATAW*)> find(
        "KERNEL32.dll", "FindFirstFileW", [&](const wchar_t* pattern, WIN32_FIND_DATAW* found) {
          ++looks;
          return find.CallOriginal(pattern, found);
        });
    CallPatch<struct DeleteTag, BOOL WINAPI(const wchar_t*)> remove(
        "KERNEL32.dll", "DeleteFileW", [&](const wchar_t* path) {
          if (++deletions == 1) {
            LogTo(other, 2, "meanwhile");
          }
          return remove.CallOriginal(path);
        });
    Log(2, "one");
    // Once for the number, which is known from then on.
    EXPECT_EQ(looks, 2);
    EXPECT_EQ(deletions, 299);
    Log(2, "%s", filler.c_str());
    EXPECT_EQ(looks, 3);
  }
  EXPECT_THAT(Messages("vorltrace.100302.log"), ElementsAre("one", "meanwhile"));
  EXPECT_THAT(Files(),
              ElementsAre("vorltrace.100301.log", "vorltrace.100302.log", "vorltrace.log"));
  other.Close();
}

// The longest folder that the product accepts.
TEST_F(TraceLogTest, RotatesInAFolderOf246Characters) {
  std::wstring folder = m_folder.Path().wstring();
  while (folder.size() < 244) {
    folder += L"\\" + std::wstring(std::min<std::size_t>(100, 245 - folder.size()), L'd');
    ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + folder).c_str(), nullptr));
  }
  folder.resize(246, L'e');
  CreateDirectoryW((L"\\\\?\\" + folder).c_str(), nullptr);
  Configure("FileSizeKB=4\nFiles=2\n");
  TraceLog deep;
  // No configuration can lie below it.
  EXPECT_FALSE(deep.SetFolder(folder.c_str()));
  EXPECT_TRUE(deep.SetConfigurationFile((m_folder.Path() / "conf" / "vorlconf.ini").c_str()));
  const std::string filler(4000, 'x');
  // Windows takes such a path with its prefix only, Wine without it, too.
  std::vector<std::wstring> refused;
  const auto check = [&](const wchar_t* path) {
    if (std::wcslen(path) >= 248 && !std::wstring_view(path).starts_with(L"\\\\?\\")) {
      refused.emplace_back(path);
    }
  };
  {
    CallPatch<struct MoveTag, BOOL WINAPI(const wchar_t*, const wchar_t*, DWORD)> move(
        "KERNEL32.dll", "MoveFileExW", [&](const wchar_t* from, const wchar_t* to, DWORD flags) {
          check(from);
          check(to);
          return move.CallOriginal(from, to, flags);
        });
    CallPatch<struct FolderTag, BOOL WINAPI(const wchar_t*, SECURITY_ATTRIBUTES*)> folders(
        "KERNEL32.dll", "CreateDirectoryW",
        [&](const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
          check(path);
          return folders.CallOriginal(path, attributes);
        });
    for (int i = 0; i < 3; ++i) {
      LogTo(deep, 2, "%s", filler.c_str());
    }
  }
  EXPECT_THAT(refused, IsEmpty());
  deep.Close();
  const auto exists = [&](const wchar_t* name) {
    return GetFileAttributesW((L"\\\\?\\" + folder + L"\\logs\\" + name).c_str()) !=
           INVALID_FILE_ATTRIBUTES;
  };
  EXPECT_TRUE(exists(L"vorltrace.log"));
  EXPECT_TRUE(exists(L"vorltrace.000002.log"));
  EXPECT_FALSE(exists(L"vorltrace.000001.log"));
}

TEST_F(TraceLogTest, WritesIntoNoFileThatHasASecondName) {
  const fs::path foreign = m_folder.Path() / "foreign.txt";
  std::ofstream(foreign, std::ios::binary) << "whole line\r\nno line end";
  fs::create_directories(Logs());
  ASSERT_TRUE(CreateHardLinkW(First().c_str(), foreign.c_str(), nullptr));
  Log(2, "one");
  EXPECT_EQ(fs::file_size(foreign), 23U);
  EXPECT_THAT(SpilledMessages(), ElementsAre("one"));
}

TEST_F(TraceLogTest, LeavesFilesThatAreNotItsOwn) {
  Configure("FileSizeKB=4\nFiles=2\n");
  fs::create_directories(Logs());
  std::ofstream(Logs() / "vorltrace.mine.log") << "keep";
  for (int i = 0; i < 8; ++i) {
    Log(2, "%s", std::string(3000, 'x').c_str());
  }
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000007.log", "vorltrace.log", "vorltrace.mine.log"));
}

TEST_F(TraceLogTest, GoesOnInAFileThatAViewerHoldsAndRotatesAfterwards) {
  Configure("FileSizeKB=4\n");
  const std::string filler(3000, 'x');
  Log(2, "0 %s", filler.c_str());
  const HANDLE viewer = Hold(First(), FILE_SHARE_READ | FILE_SHARE_WRITE);
  for (int i = 1; i < 5; ++i) {
    Log(2, "%d %s", i, filler.c_str());
    m_tick += kSecond;
  }
  EXPECT_THAT(Files(), ElementsAre("vorltrace.log"));
  EXPECT_EQ(Messages().size(), 6U);
  EXPECT_THAT(Messages(),
              testing::Contains("The full file cannot get a number (error 32) and grows until it "
                                "can"));
  CloseHandle(viewer);
  m_tick += kSecond;
  Log(2, "after");
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.log"));
  EXPECT_EQ(Messages("vorltrace.000001.log").size(), 6U);
  EXPECT_THAT(Messages(), ElementsAre("after"));
}

TEST_F(TraceLogTest, TriesAFailedRotationOnceASecond) {
  Configure("FileSizeKB=4\n");
  int tries = 0;
  const CallPatch<struct MoveTag, BOOL WINAPI(const wchar_t*, const wchar_t*, DWORD)> patch(
      "KERNEL32.dll", "MoveFileExW", [&](const wchar_t*, const wchar_t*, DWORD) -> BOOL {
        ++tries;
        SetLastError(ERROR_SHARING_VIOLATION);
        return FALSE;
      });
  const std::string filler(3000, 'x');
  for (int i = 0; i < 100; ++i) {
    Log(2, "%d %s", i, filler.c_str());
  }
  EXPECT_EQ(tries, 1);
  m_tick += kSecond;
  Log(2, "x");
  EXPECT_EQ(tries, 2);
  const std::vector<std::string> messages = Messages();
  EXPECT_EQ(messages.size(), 102U);
  EXPECT_EQ(std::count(messages.begin(), messages.end(),
                       "The full file cannot get a number (error 32) and grows until it can"),
            1);
}

TEST_F(TraceLogTest, LeavesAnOldFileThatAViewerHoldsToTheNextRotation) {
  Configure("FileSizeKB=4\nFiles=2\n");
  const std::string filler(3000, 'x');
  Log(2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  const HANDLE viewer = Hold(Logs() / "vorltrace.000001.log", FILE_SHARE_READ | FILE_SHARE_WRITE);
  Log(2, "%s", filler.c_str());
  EXPECT_THAT(Files(),
              ElementsAre("vorltrace.000001.log", "vorltrace.000002.log", "vorltrace.log"));
  Log(2, "%s", filler.c_str());
  EXPECT_THAT(Files(),
              ElementsAre("vorltrace.000001.log", "vorltrace.000003.log", "vorltrace.log"));
  CloseHandle(viewer);
  Log(2, "%s", filler.c_str());
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000004.log", "vorltrace.log"));
}

TEST_F(TraceLogTest, GoesOnBesideAFileThatSomebodyKeepsForHimself) {
  WriteFirst("old line\r\n");
  const HANDLE keeper = Hold(First(), 0);
  Log(2, "one");
  Log(2, "two");
  EXPECT_THAT(SpilledMessages(), ElementsAre("one", "two"));
  CloseHandle(keeper);
  m_tick += kSecond / 10;
  Log(2, "three");
  EXPECT_THAT(Content("vorltrace.log"),
              MatchesRegex("old line\r\n[^\n]* 2 lines are in vorltrace\\.000001\\.log: the file "
                           "cannot be opened \\(error 32\\)\r\n[^\n]* three\r\n"));
  EXPECT_THAT(Messages("vorltrace.000001.log"), ElementsAre("one", "two"));
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.log"));
}

// As beside a writer that is stopped for days.
TEST_F(TraceLogTest, FillsNoMoreThanOneFileBesideAFileThatSomebodyKeepsForHimself) {
  Configure("FileSizeKB=4\nFiles=3\n");
  WriteFirst("old line\r\n");
  const HANDLE keeper = Hold(First(), 0);
  const std::string filler(3000, 'x');
  Log(2, "1 %s", filler.c_str());
  Log(2, "2 %s", filler.c_str());
  Log(2, "3");
  EXPECT_THAT(SpilledMessages(), ElementsAre("1 " + filler, "3"));
  CloseHandle(keeper);
  m_tick += kSecond / 10;
  Log(2, "new");
  EXPECT_THAT(
      Content("vorltrace.log"),
      MatchesRegex("old line\r\n[^\n]* 1 lines lost: the file cannot be opened \\(error 32\\)"
                   "\r\n[^\n]* 2 lines are in vorltrace\\.000001\\.log: the file cannot be "
                   "opened \\(error 32\\)\r\n[^\n]* new\r\n"));
}

TEST_F(TraceLogTest, GoesOnBesideAFolderOfTheFilesName) {
  fs::create_directories(First());
  Log(2, "one");
  EXPECT_THAT(SpilledMessages(), ElementsAre("one"));
}

TEST_F(TraceLogTest, NoticesThatTheFileWasMovedAway) {
  Log(2, "one");
  fs::rename(First(), Logs() / "taken away.txt");
  m_tick += 2 * kSecond;
  Log(2, "two");
  EXPECT_THAT(Messages("taken away.txt"), ElementsAre("one"));
  EXPECT_THAT(Messages(), ElementsAre("two"));
}

// What other processes leave behind.

}  // namespace
