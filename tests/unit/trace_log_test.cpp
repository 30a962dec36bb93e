#include "companions/vlevtlog/trace_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Reads the types of windows.h.
#include <sddl.h>

#include <cstdarg>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

constexpr ULONGLONG kSecond = 1000;

MATCHER_P(MatchesRegex, pattern, "") { return std::regex_match(arg, std::regex(pattern)); }

// What stands behind the stamp, which must be a whole one: what is left of another line in front of
// it makes none.
std::string MessageOf(const std::string& line) {
  static const std::regex stamp(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [-+]\d\d:\d\d [A-Z]+\d* \d+ \d+ )"
      R"((module Function source\.cpp:1|vlevtlog\.dll \S+ \S+:\d+) )");
  std::smatch match;
  if (!std::regex_search(line, match, stamp, std::regex_constants::match_continuous)) {
    ADD_FAILURE() << "no stamp: " << line;
    return "";
  }
  return match.suffix();
}

class TraceLogTest : public testing::Test {
 protected:
  TraceLogTest()
      : m_tickPatch("KERNEL32.dll", "GetTickCount64", [this] { return m_tick += m_tickStep; }) {
    EXPECT_TRUE(m_log.SetFolder(m_folder.Path().c_str()));
  }
  ~TraceLogTest() override { m_log.Close(); }

  void Log(int level, const char* format, ...) {
    if (m_log.IsOn(level)) {
      va_list arguments;
      va_start(arguments, format);
      m_log.Write(level, "module", "Function", "source.cpp", 1, format, arguments);
      va_end(arguments);
    }
  }

  static void LogTo(TraceLog& log, int level, const char* format, ...) {
    if (log.IsOn(level)) {
      va_list arguments;
      va_start(arguments, format);
      log.Write(level, "module", "Function", "source.cpp", 1, format, arguments);
      va_end(arguments);
    }
  }

  static DWORD WINAPI LogLastLine(void* log) {
    LogTo(*static_cast<TraceLog*>(log), 2, "last");
    return 0;
  }

  // Writes a line in a thread of its own that a patched call ends before the line is done.
  static void LogUntilTheEnd(TraceLog& log) {
    const HANDLE thread = CreateThread(nullptr, 0, &LogLastLine, &log, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
  }

  fs::path Logs() const { return m_folder.Path() / "logs"; }
  fs::path First() const { return Logs() / "vorltrace.log"; }

  std::string Content(const std::string& name) const {
    std::ifstream in(Logs() / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  // The messages of a file, of which every line must be whole.
  std::vector<std::string> Messages(const std::string& name = "vorltrace.log") const {
    const std::string content = Content(name);
    std::vector<std::string> messages;
    std::size_t at = 0;
    while (at < content.size()) {
      const std::size_t end = content.find("\r\n", at);
      if (end == std::string::npos) {
        ADD_FAILURE() << "not a whole line: " << content.substr(at);
        break;
      }
      messages.push_back(MessageOf(content.substr(at, end - at)));
      at = end + 2;
    }
    return messages;
  }

  // The messages of the only file with lines of this process alone.
  std::vector<std::string> SpilledMessages() const {
    for (const std::string& name : Files()) {
      if (name.starts_with("vorltrace.process")) {
        return Messages(name);
      }
    }
    return {};
  }

  // Names in the logs folder, sorted; without the file that the processes share.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(Logs())) {
      if (entry.path().filename() != "vorltrace.lock") {
        names.push_back(entry.path().filename().string());
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  void Configure(const std::string& section) {
    fs::create_directories(m_folder.Path() / "conf");
    std::ofstream(m_folder.Path() / "conf" / "vorlconf.ini", std::ios::trunc) << "[TRACE]\n"
                                                                              << section;
  }

  void WriteFirst(const std::string& content) {
    fs::create_directories(Logs());
    std::ofstream(First(), std::ios::binary) << content;
  }

  HANDLE Hold(const fs::path& file, DWORD shareMode) {
    const HANDLE held = CreateFileW(file.c_str(), GENERIC_READ, shareMode, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(held, INVALID_HANDLE_VALUE);
    return held;
  }

  static void OpenToEverybody(const fs::path& path) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
        L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;WD)", SDDL_REVISION_1, &descriptor, nullptr));
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
    LocalFree(descriptor);
  }

  ULONGLONG m_tick = 1'000'000;
  ULONGLONG m_tickStep = 0;
  TempFolder m_folder;
  TraceLog m_log;

 private:
  CallPatch<struct TickTag, ULONGLONG WINAPI()> m_tickPatch;
};

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

TEST_F(TraceLogTest, CutsTheBeginningOfALineThatAnEndedProcessLeft) {
  WriteFirst("whole line\r\n2026-01-01 00:00:00.000 +0");
  Log(2, "next");
  EXPECT_THAT(Content("vorltrace.log"), MatchesRegex("whole line\r\n2[^\n]* next\r\n"));
}

TEST_F(TraceLogTest, CutsTheZerosThatAPowerCutLeft) {
  WriteFirst("whole line\r\n" + std::string(10000, '\0'));
  Log(2, "next");
  EXPECT_THAT(Content("vorltrace.log"), MatchesRegex("whole line\r\n2[^\n]* next\r\n"));
}

TEST_F(TraceLogTest, CutsAFileThatIsNothingButATornLine) {
  WriteFirst("torn");
  Log(2, "next");
  EXPECT_THAT(Messages(), ElementsAre("next"));
}

TEST_F(TraceLogTest, KeepsAFileThatIsNotALineOfItsOwn) {
  const std::string foreign(600 * 1024, 'x');
  WriteFirst(foreign);
  Log(2, "next");
  EXPECT_THAT(Content("vorltrace.log"), StartsWith(foreign + "\r\n2"));
}

TEST_F(TraceLogTest, SurvivesRubbishInWhatTheProcessesShare) {
  fs::create_directories(Logs());
  std::ofstream(Logs() / "vorltrace.lock", std::ios::binary) << std::string(4096, '\xA5');
  Configure("FileSizeKB=4\n");
  Log(2, "one %s", std::string(4000, 'x').c_str());
  m_tick += 2 * kSecond;
  Log(2, "two %s", std::string(4000, 'x').c_str());
  m_tick += 2 * kSecond;
  Log(2, "three");
  std::vector<std::string> all;
  for (const std::string& name : Files()) {
    for (const std::string& message : Messages(name)) {
      all.push_back(message.substr(0, 3));
    }
  }
  EXPECT_THAT(all, testing::UnorderedElementsAre("one", "two", "thr"));
}

TEST_F(TraceLogTest, GoesOnWhenAThreadEndsInTheMiddleOfALine) {
  Log(2, "one");
  {
    CallPatch<struct DieTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> patch(
        "KERNEL32.dll", "WriteFile",
        [&](HANDLE file, const void* bytes, DWORD, DWORD* written, OVERLAPPED* overlapped) -> BOOL {
          patch.CallOriginal(file, bytes, 10, written, overlapped);
          ExitThread(0);
        });
    LogUntilTheEnd(m_log);
  }
  Log(2, "two");
  EXPECT_THAT(Messages(), ElementsAre("one", "two"));
}

// Another writer whose file has been moved away by then, or has the beginning of a line at its end.
TEST_F(TraceLogTest, OpensTheFileAnewWhenAnotherWriterEndedWhileItChangedFiles) {
  Configure("FileSizeKB=4\n");
  const std::string filler(4000, 'x');
  Log(2, "%s", filler.c_str());
  TraceLog other;
  ASSERT_TRUE(other.SetFolder(m_folder.Path().c_str()));
  {
    CallPatch<struct DieTag, BOOL WINAPI(const wchar_t*, const wchar_t*, DWORD)> patch(
        "KERNEL32.dll", "MoveFileExW",
        [&](const wchar_t* from, const wchar_t* to, DWORD flags) -> BOOL {
          patch.CallOriginal(from, to, flags);
          ExitThread(0);
        });
    LogUntilTheEnd(other);
  }
  Log(2, "two");
  EXPECT_THAT(Messages("vorltrace.000001.log"), ElementsAre(filler));
  EXPECT_THAT(Messages(), ElementsAre("two"));
  other.Close();
}

TEST_F(TraceLogTest, CutsTheBeginningOfALineThatAnotherWriterLeftInTheOpenFile) {
  Log(2, "one");
  TraceLog other;
  ASSERT_TRUE(other.SetFolder(m_folder.Path().c_str()));
  {
    CallPatch<struct DieTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> patch(
        "KERNEL32.dll", "WriteFile",
        [&](HANDLE file, const void* bytes, DWORD, DWORD* written, OVERLAPPED* overlapped) -> BOOL {
          patch.CallOriginal(file, bytes, 10, written, overlapped);
          ExitThread(0);
        });
    LogUntilTheEnd(other);
  }
  Log(2, "two");
  EXPECT_THAT(Messages(), ElementsAre("one", "two"));
  other.Close();
}

TEST_F(TraceLogTest, GivesNumbersToWhatEndedProcessesWroteForThemselves) {
  Configure("FileSizeKB=4\n");
  fs::create_directories(Logs());
  const std::string line = "2026-03-09 07:05:02.041 +01:00 INFO 1 2 module Function source.cpp:1 ";
  std::ofstream(Logs() / "vorltrace.process4711-1.log", std::ios::binary) << line << "left\r\n"
                                                                          << line << "torn";
  std::ofstream(Logs() / "vorltrace.process4712-1.log") << "of one that lives";
  const HANDLE living =
      Hold(Logs() / "vorltrace.process4712-1.log", FILE_SHARE_READ | FILE_SHARE_WRITE);
  const std::string filler(4000, 'x');
  Log(2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  CloseHandle(living);
  EXPECT_THAT(Messages("vorltrace.000002.log"), ElementsAre("left"));
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.000002.log", "vorltrace.log",
                                   "vorltrace.process4712-1.log"));
}

// As after an update of the library while a program with the former one runs on.
TEST_F(TraceLogTest, SharesNothingWithAnotherVersionThatIsInUse) {
  fs::create_directories(Logs());
  const std::string foreign = "state of another version";
  std::ofstream(Logs() / "vorltrace.lock", std::ios::binary) << foreign;
  const HANDLE user = Hold(Logs() / "vorltrace.lock", FILE_SHARE_READ | FILE_SHARE_WRITE);
  Log(2, "one");
  EXPECT_THAT(Messages("vorltrace.second.log"), ElementsAre("one"));
  EXPECT_TRUE(fs::exists(Logs() / "vorltrace.second.lock"));
  EXPECT_THAT(Content("vorltrace.lock"), StartsWith(foreign));
  EXPECT_FALSE(fs::exists(First()));
  CloseHandle(user);
  m_log.Close();
  // It has ended.
  TraceLog later;
  ASSERT_TRUE(later.SetFolder(m_folder.Path().c_str()));
  LogTo(later, 2, "two");
  EXPECT_THAT(Messages(), ElementsAre("two"));
  later.Close();
}

// A page that cannot be read from the disk would end the process at its first use.
TEST_F(TraceLogTest, TouchesNoSharedPageThatCannotBeRead) {
  {
    const CallPatch<struct LockTag, BOOL WINAPI(void*, SIZE_T)> patch(
        "KERNEL32.dll", "VirtualLock", [](void* page, SIZE_T size) -> BOOL {
          DWORD before = 0;
          EXPECT_TRUE(VirtualProtect(page, size, PAGE_NOACCESS, &before));
          SetLastError(ERROR_SWAPERROR);
          return FALSE;
        });
    Log(2, "one");
    m_tick += kSecond;
    Log(2, "two");
  }
  m_tick += kSecond;
  Log(2, "three");
  EXPECT_THAT(Messages(), ElementsAre("2 lines are in vorltrace.000001.log: the logs folder cannot "
                                      "be used (error 999)",
                                      "three"));
}

// Windows does not let a folder go in which files are open, but a disk can be taken away.
TEST_F(TraceLogTest, MakesAFolderThatHasVanishedAnew) {
  TraceLog other;
  ASSERT_TRUE(other.SetFolder(m_folder.Path().c_str()));
  Log(2, "one");
  LogTo(other, 2, "one");
  fs::rename(Logs(), m_folder.Path() / "taken away");
  m_tick += 2 * kSecond;
  Log(2, "two");
  LogTo(other, 2, "three");
  Log(2, "four");
  EXPECT_THAT(Messages(), ElementsAre("two", "three", "four"));
  EXPECT_TRUE(fs::exists(Logs() / "vorltrace.lock"));
  other.Close();
}

// Losses.

TEST_F(TraceLogTest, TriesAFullDiskTenTimesASecondAndNotAtEveryLine) {
  int tries = 0;
  const CallPatch<struct FullTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)>
      patch("KERNEL32.dll", "WriteFile",
            [&](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) -> BOOL {
              ++tries;
              SetLastError(ERROR_DISK_FULL);
              return FALSE;
            });
  for (int i = 0; i < 100; ++i) {
    Log(2, "lost");
  }
  EXPECT_EQ(tries, 1);
  m_tick += kSecond / 10;
  Log(2, "lost");
  EXPECT_EQ(tries, 2);
}

TEST_F(TraceLogTest, TriesAFileThatCannotBeOpenedTenTimesASecondAndNotAtEveryLine) {
  fs::create_directories(First());
  int tries = 0;
  CallPatch<struct OpenTag,
            HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE)>
      patch("KERNEL32.dll", "CreateFileW",
            [&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
                DWORD disposition, DWORD flags, HANDLE like) {
              tries += fs::path(path).filename() == "vorltrace.log" ? 1 : 0;
              return patch.CallOriginal(path, access, share, attributes, disposition, flags, like);
            });
  for (int i = 0; i < 100; ++i) {
    Log(2, "%d", i);
  }
  EXPECT_EQ(tries, 1);
  m_tick += kSecond / 10;
  Log(2, "100");
  EXPECT_EQ(tries, 2);
  EXPECT_EQ(SpilledMessages().size(), 101U);
}

// What is closed to a thread that acts for another user is not closed to the others.
TEST_F(TraceLogTest, LetsOneThreadThatMayNotWriteKeepNoOtherFromIt) {
  const DWORD self = GetCurrentThreadId();
  int refusals = 0;
  const CallPatch<struct TokenTag, BOOL WINAPI(HANDLE, DWORD, BOOL, HANDLE*)> token(
      "ADVAPI32.dll", "OpenThreadToken", [&](HANDLE, DWORD access, BOOL, HANDLE* result) -> BOOL {
        if (GetCurrentThreadId() != self) {
          return OpenProcessToken(GetCurrentProcess(), access, result);
        }
        SetLastError(ERROR_NO_TOKEN);
        return FALSE;
      });
  CallPatch<struct OpenTag,
            HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE)>
      open("KERNEL32.dll", "CreateFileW",
           [&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
               DWORD disposition, DWORD flags, HANDLE like) -> HANDLE {
             if (GetCurrentThreadId() != self) {
               ++refusals;
               SetLastError(ERROR_ACCESS_DENIED);
               return INVALID_HANDLE_VALUE;
             }
             return open.CallOriginal(path, access, share, attributes, disposition, flags, like);
           });
  std::thread([&] {
    for (int i = 0; i < 100; ++i) {
      Log(2, "lost");
    }
  }).join();
  // The configuration, the state and the file of the process's own, once each at most.
  EXPECT_LE(refusals, 102);
  Log(2, "mine");
  EXPECT_THAT(Messages(),
              ElementsAre("100 lines lost: the logs folder cannot be used (error 5)", "mine"));
}

TEST_F(TraceLogTest, TellsHowManyLinesWereLostWhileThereWasNoFolder) {
  std::ofstream(Logs()) << "a file where the folder should be";
  for (int i = 0; i < 3; ++i) {
    Log(2, "lost");
  }
  fs::remove(Logs());
  m_tick += kSecond;
  Log(2, "written");
  Log(2, "and on");
  EXPECT_THAT(
      Messages(),
      ElementsAre(MatchesRegex(R"(3 lines lost: the logs folder cannot be used \(error \d+\))"),
                  "written", "and on"));
}

// As every line of a program without the right to write the trace would.
TEST_F(TraceLogTest, TriesAFolderThatItCannotUseTenTimesASecondAndNotAtEveryLine) {
  std::ofstream(Logs()) << "a file where the folder should be";
  int tries = 0;
  CallPatch<struct MakeTag, BOOL WINAPI(const wchar_t*, SECURITY_ATTRIBUTES*)> patch(
      "KERNEL32.dll", "CreateDirectoryW",
      [&](const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
        ++tries;
        return patch.CallOriginal(path, attributes);
      });
  for (int i = 0; i < 100; ++i) {
    Log(2, "lost");
  }
  EXPECT_EQ(tries, 1);
  m_tick += kSecond / 10 - 1;
  Log(2, "lost");
  EXPECT_EQ(tries, 1);
  m_tick += 1;
  Log(2, "lost");
  EXPECT_EQ(tries, 2);
}

TEST_F(TraceLogTest, LeavesNoHalfLineOnAFullDiskAndTellsWhatItCost) {
  Log(2, "before");
  {
    CallPatch<struct FullTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> patch(
        "KERNEL32.dll", "WriteFile",
        [&](HANDLE file, const void* bytes, DWORD count, DWORD* written,
            OVERLAPPED* overlapped) -> BOOL {
          patch.CallOriginal(file, bytes, count / 2, written, overlapped);
          SetLastError(ERROR_DISK_FULL);
          return FALSE;
        });
    Log(2, "lost");
    Log(2, "lost");
  }
  m_tick += kSecond / 10;
  Log(2, "after");
  EXPECT_THAT(
      Messages(),
      ElementsAre("before", "2 lines lost: the file cannot be written (error 112)", "after"));
}

TEST_F(TraceLogTest, TakesAShortWriteForAFullDisk) {
  {
    CallPatch<struct ShortTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> patch(
        "KERNEL32.dll", "WriteFile",
        [&](HANDLE file, const void* bytes, DWORD count, DWORD* written, OVERLAPPED* overlapped) {
          return patch.CallOriginal(file, bytes, count - 1, written, overlapped);
        });
    Log(2, "lost");
  }
  m_tick += kSecond / 10;
  Log(2, "after");
  EXPECT_THAT(Messages(),
              ElementsAre("1 lines lost: the file cannot be written (error 112)", "after"));
}

TEST_F(TraceLogTest, WritesIntoAFileOfItsOwnWhileAnotherWriterStandsStill) {
  Log(2, "before");
  std::atomic<bool> isInside{false};
  const HANDLE goOn = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  CallPatch<struct StandTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> patch(
      "KERNEL32.dll", "WriteFile",
      [&](HANDLE file, const void* bytes, DWORD count, DWORD* written, OVERLAPPED* overlapped) {
        if (!isInside.exchange(true)) {
          WaitForSingleObject(goOn, INFINITE);
        }
        return patch.CallOriginal(file, bytes, count, written, overlapped);
      });
  std::thread slow([&] { Log(2, "slow"); });
  while (!isInside) {
    SwitchToThread();
  }
  m_tickStep = kSecond;
  Log(2, "one");
  Log(2, "two");
  EXPECT_THAT(SpilledMessages(), ElementsAre("one", "two"));
  m_tickStep = 0;
  SetEvent(goOn);
  slow.join();
  CloseHandle(goOn);
  m_tick += kSecond / 10;
  Log(2, "after");
  EXPECT_THAT(Messages(),
              ElementsAre("before", "slow",
                          "2 lines are in vorltrace.000001.log: another writer does not "
                          "let go of the file (error 1460)",
                          "after"));
  EXPECT_THAT(Messages("vorltrace.000001.log"), ElementsAre("one", "two"));
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.log"));
}

TEST_F(TraceLogTest, LosesEverythingQuietlyInAFolderThatIsTooDeep) {
  TraceLog deep;
  EXPECT_FALSE(deep.SetFolder(std::wstring(255, L'x').c_str()));
  const auto write = [&](const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    deep.Write(2, "m", "f", "s", 1, format, arguments);
    va_end(arguments);
  };
  write("nowhere");
  deep.Close();
  EXPECT_THAT(fs::is_empty(m_folder.Path()), true);
}

// Access.

TEST_F(TraceLogTest, GivesNewFilesToAdministratorsAndTheSystemOnly) {
  std::map<std::string, std::string> descriptors;
  const auto remember = [&](const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
    if (attributes != nullptr) {
      char* text = nullptr;
      ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorA(
          attributes->lpSecurityDescriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
          nullptr));
      descriptors[fs::path(path).filename().string()] = text;
      LocalFree(text);
    }
  };
  Configure("FileSizeKB=4\n");
  {
    CallPatch<struct FileTag, HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*,
                                            DWORD, DWORD, HANDLE)>
        file("KERNEL32.dll", "CreateFileW",
             [&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
                 DWORD disposition, DWORD flags, HANDLE like) {
               remember(path, attributes);
               return file.CallOriginal(path, access, share, attributes, disposition, flags, like);
             });
    CallPatch<struct FolderTag, BOOL WINAPI(const wchar_t*, SECURITY_ATTRIBUTES*)> folder(
        "KERNEL32.dll", "CreateDirectoryW",
        [&](const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
          remember(path, attributes);
          return folder.CallOriginal(path, attributes);
        });
    Log(2, "x");
  }
  using testing::Pair;
  EXPECT_THAT(descriptors, ElementsAre(Pair("logs", "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"),
                                       Pair("vorltrace.lock", "D:P(A;;FA;;;SY)(A;;FA;;;BA)"),
                                       Pair("vorltrace.log", "D:P(A;;FA;;;SY)(A;;FA;;;BA)")));
}

TEST_F(TraceLogTest, SaysOnceThatOthersMayWriteIntoAFolderThatWasThere) {
  ASSERT_TRUE(CreateDirectoryW(Logs().c_str(), nullptr));
  OpenToEverybody(Logs());
  Log(2, "one");
  Log(2, "two");
  EXPECT_THAT(
      Messages(),
      ElementsAre(EndsWith("\\logs was there before and others may write it: take their "
                           "rights away, or delete it while no program of the product runs"),
                  "one", "two"));
  EXPECT_THAT(Content("vorltrace.log"), MatchesRegex("[^\n]* ERROR [^\n]* vlevtlog\\.dll "
                                                     "[^\n]*\r\n[^\n]*\r\n[^\n]*\r\n"));
}

TEST_F(TraceLogTest, SaysThatOthersMayWriteIntoALockFileThatWasThere) {
  Log(2, "one");
  m_log.Close();
  OpenToEverybody(Logs() / "vorltrace.lock");
  Log(2, "two");
  EXPECT_THAT(Messages(), ElementsAre("one", StartsWith("vorltrace.lock was there before"), "two"));
}

TEST_F(TraceLogTest, LetsViewersReadAndDeleteWhileItWrites) {
  Log(2, "one");
  const HANDLE viewer = CreateFileW(First().c_str(), GENERIC_READ | DELETE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  EXPECT_NE(viewer, INVALID_HANDLE_VALUE);
  Log(2, "two");
  CloseHandle(viewer);
  EXPECT_THAT(Messages(), ElementsAre("one", "two"));
}

}  // namespace
