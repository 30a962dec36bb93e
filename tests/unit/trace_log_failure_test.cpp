// What ended writers, full disks and foreign hands do to the trace.
#include <gmock/gmock.h>

#include <atomic>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "companions/vlevtlog/torn_end.h"
#include "tests/unit/trace_log_test.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

namespace {

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

// A cut at another place would take lines away.
TEST_F(TraceLogTest, CutsNothingWhereItCannotGoToTheTornEnd) {
  const std::string torn =
      "2026-03-09 07:05:02.041 +01:00 INFO 1 2 a b c:1 whole\r\n" + std::string(5000, 'x');
  for (const std::string& content : {torn, std::string(600 * 1024, 'x')}) {
    int moves = 0;
    int failing = 0;
    const CallPatch<struct MoveTag, decltype(SetFilePointerEx)> patch(
        "KERNEL32.dll", "SetFilePointerEx",
        [&](HANDLE file, LARGE_INTEGER offset, LARGE_INTEGER* position, DWORD method) -> BOOL {
          return ++moves != failing && patch.CallOriginal(file, offset, position, method);
        });
    WriteFirst(content);
    CutTornEnd(First().c_str());
    EXPECT_NE(Content("vorltrace.log"), content);
    WriteFirst(content);
    for (const int last = moves; const int one : {1, last}) {
      failing = one;
      moves = 0;
      CutTornEnd(First().c_str());
      EXPECT_EQ(moves, failing);
      EXPECT_EQ(Content("vorltrace.log"), content);
    }
  }
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

TEST_F(TraceLogTest, RefusesAFolderThatHasRoomForTheTraceButNotForTheConfiguration) {
  TraceLog log;
  EXPECT_FALSE(log.SetFolder(std::wstring(250, L'x').c_str()));
  EXPECT_TRUE(log.SetFolder(std::wstring(240, L'x').c_str()));
  log.Close();
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

// Which takes no right that the shared page would need: it can be used all the same.
TEST_F(TraceLogTest, GoesOnWhereThePageCannotBeKeptInMemoryForWantOfQuota) {
  const CallPatch<struct LockTag, BOOL WINAPI(void*, SIZE_T)> patch(
      "KERNEL32.dll", "VirtualLock", [](void*, SIZE_T) -> BOOL {
        SetLastError(ERROR_WORKING_SET_QUOTA);
        return FALSE;
      });
  Log(2, "one");
  EXPECT_THAT(Messages(), ElementsAre("one"));
  EXPECT_THAT(Files(), ElementsAre("vorltrace.log"));
}

TEST_F(TraceLogTest, TakesNoOptionsWhileAnotherThreadDoesNotEndTakingThem) {
  Configure("Levels=ALL\n");
  std::atomic<bool> isInside{false};
  const HANDLE goOn = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  const CallPatch<struct AttributesTag, BOOL WINAPI(const wchar_t*, GET_FILEEX_INFO_LEVELS, void*)>
      patch("KERNEL32.dll", "GetFileAttributesExW",
            [&](const wchar_t* path, GET_FILEEX_INFO_LEVELS level, void* data) {
              if (!isInside.exchange(true)) {
                WaitForSingleObject(goOn, INFINITE);
              }
              return patch.CallOriginal(path, level, data);
            });
  std::thread slow([&] { EXPECT_TRUE(m_log.SetConfigurationFile(Configuration().c_str())); });
  while (!isInside) {
    SwitchToThread();
  }
  {
    const CallPatch<struct SleepTag, void WINAPI(DWORD)> sleep("KERNEL32.dll", "Sleep",
                                                               [](DWORD) {});
    EXPECT_FALSE(m_log.SetConfigurationFile(Configuration().c_str()));
  }
  SetEvent(goOn);
  slow.join();
  CloseHandle(goOn);
  EXPECT_TRUE(m_log.SetConfigurationFile(Configuration().c_str()));
}

}  // namespace
