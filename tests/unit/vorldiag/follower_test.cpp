// The trace's files as its writers change them, and what a follower gets of it.
#include "tools/vorldiag/trace/follower.h"

#include <gmock/gmock.h>

#include "support/handle.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tools/vorldiag/trace/tracecommand.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class TraceFollowerTest : public ::testing::Test {
 protected:
  void Append(const std::string& file, const std::string& text) const {
    std::ofstream(folder.File(file), std::ios::binary | std::ios::app) << text;
  }
  void AddLine(const std::string& file, const std::string& text) const {
    Append(file,
           "2026-03-09 07:05:02.041 +01:00 INFO 47 11 vorlsrvc.exe main x.cpp:1 " + text + "\r\n");
  }
  void Rename(const std::string& from, const std::string& to) const {
    fs::rename(folder.File(from), folder.File(to));
  }
  static std::vector<std::string> Texts(TraceFollower& follower) {
    std::vector<std::string> texts;
    for (const TraceLine& line : follower.Poll()) {
      texts.push_back(line.text);
    }
    return texts;
  }

  const TempFolder folder;
};

TEST_F(TraceFollowerTest, GivesWhatIsAddedFromNowOn) {
  AddLine("vorltrace.000001.log", "old");
  AddLine("vorltrace.log", "before");
  TraceFollower follower(folder.Path());
  EXPECT_THAT(Texts(follower), IsEmpty());
  AddLine("vorltrace.log", "a");
  AddLine("vorltrace.log", "b");
  EXPECT_THAT(Texts(follower), ElementsAre("a", "b"));
  EXPECT_THAT(Texts(follower), IsEmpty());
}

TEST_F(TraceFollowerTest, WaitsForTheRestOfALine) {
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.log", "a");
  Append("vorltrace.log", "2026-03-09 07:05:02.041 +01:00 INFO 47 11 vorlsrvc.exe main");
  EXPECT_THAT(Texts(follower), ElementsAre("a"));
  Append("vorltrace.log", " x.cpp:1 b\r\n");
  EXPECT_THAT(Texts(follower), ElementsAre("b"));
}

TEST_F(TraceFollowerTest, GoesOnInTheNextFile) {
  AddLine("vorltrace.log", "before");
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.log", "a");
  EXPECT_THAT(Texts(follower), ElementsAre("a"));
  AddLine("vorltrace.log", "b");
  Rename("vorltrace.log", "vorltrace.000001.log");
  AddLine("vorltrace.log", "c");
  EXPECT_THAT(Texts(follower), ElementsAre("b", "c"));
  EXPECT_THAT(Texts(follower), IsEmpty());
}

TEST_F(TraceFollowerTest, MissesNoFileOfSeveralChanges) {
  AddLine("vorltrace.000007.log", "old");
  AddLine("vorltrace.log", "before");
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.log", "a");
  Rename("vorltrace.log", "vorltrace.000008.log");
  AddLine("vorltrace.log", "b");
  Rename("vorltrace.log", "vorltrace.000009.log");
  AddLine("vorltrace.log", "c");
  fs::remove(folder.File("vorltrace.000007.log"));
  EXPECT_THAT(Texts(follower), ElementsAre("a", "b", "c"));
  AddLine("vorltrace.log", "d");
  EXPECT_THAT(Texts(follower), ElementsAre("d"));
}

// The oldest files go; the one that was being read among them.
TEST_F(TraceFollowerTest, ReadsAFileThatIsDeletedToItsEnd) {
  AddLine("vorltrace.log", "before");
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.log", "a");
  Rename("vorltrace.log", "vorltrace.000001.log");
  fs::remove(folder.File("vorltrace.000001.log"));
  AddLine("vorltrace.log", "b");
  EXPECT_THAT(Texts(follower), ElementsAre("a", "b"));
  AddLine("vorltrace.log", "c");
  EXPECT_THAT(Texts(follower), ElementsAre("c"));
}

// Wine does not tell that a file is being deleted.
TEST_F(TraceFollowerTest, LetsADeletedFileGo) {
  bool isDeleted = false;
  CallPatch<struct InformationTag, BOOL WINAPI(HANDLE, FILE_INFO_BY_HANDLE_CLASS, void*, DWORD)>
      patch("kernel32.dll", "GetFileInformationByHandleEx",
            [&](HANDLE, FILE_INFO_BY_HANDLE_CLASS, void* information, DWORD) {
              auto& standard = *static_cast<FILE_STANDARD_INFO*>(information);
              standard.DeletePending = isDeleted;
              standard.NumberOfLinks = 1;
              return TRUE;
            });
  AddLine("vorltrace.log", "before");
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.log", "a");
  fs::remove(folder.File("vorltrace.log"));
  isDeleted = true;
  EXPECT_THAT(Texts(follower), ElementsAre("a"));
  isDeleted = false;
  // The name is free.
  EXPECT_FALSE(fs::exists(folder.File("vorltrace.log")));
  AddLine("vorltrace.log", "b");
  EXPECT_THAT(Texts(follower), ElementsAre("b"));
}

TEST_F(TraceFollowerTest, ReadsAFileThatIsMovedAwayToItsEnd) {
  fs::create_directory(folder.Path() / "away");
  AddLine("vorltrace.log", "before");
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.log", "a");
  Rename("vorltrace.log", "away/vorltrace.log");
  AddLine("vorltrace.log", "b");
  EXPECT_THAT(Texts(follower), ElementsAre("a", "b"));
}

TEST_F(TraceFollowerTest, FollowsTheFilesOfTwoVersionsOfTheLibrary) {
  AddLine("vorltrace.log", "before");
  AddLine("vorltrace.second.log", "before");
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.second.log", "a");
  EXPECT_THAT(Texts(follower), ElementsAre("a"));
  AddLine("vorltrace.log", "b");
  EXPECT_THAT(Texts(follower), ElementsAre("b"));
  AddLine("vorltrace.second.log", "c");
  Rename("vorltrace.second.log", "vorltrace.000001.log");
  AddLine("vorltrace.log", "d");
  EXPECT_THAT(Texts(follower), ElementsAre("c", "d"));
}

TEST_F(TraceFollowerTest, BeginsWhenTheFolderIsMade) {
  TraceFollower follower(folder.Path() / "logs");
  EXPECT_THAT(Texts(follower), IsEmpty());
  fs::create_directory(folder.Path() / "logs");
  AddLine("logs/vorltrace.log", "a");
  EXPECT_THAT(Texts(follower), ElementsAre("a"));
}

TEST_F(TraceFollowerTest, KeepsNobodyFromTheFiles) {
  AddLine("vorltrace.log", "before");
  TraceFollower follower(folder.Path());
  Texts(follower);
  const FileHandle all(CreateFileW(
      (folder.Path() / "vorltrace.log").c_str(), GENERIC_READ | GENERIC_WRITE | DELETE,
      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(all);
}

class FolderWatchTest : public TraceFollowerTest {
 protected:
  const KernelHandle stop{CreateEventW(nullptr, /*bManualReset=*/TRUE, FALSE, nullptr)};
};

TEST_F(FolderWatchTest, ReturnsForAChangeAndForTheStop) {
  FolderWatch watch(folder.Path());
  EXPECT_TRUE(watch.Wait(stop.Get()));
  AddLine("vorltrace.log", "a");
  EXPECT_TRUE(watch.Wait(stop.Get()));
  SetEvent(stop.Get());
  EXPECT_FALSE(watch.Wait(stop.Get()));
}

TEST_F(FolderWatchTest, GetsOverAFolderThatComesAndGoes) {
  FolderWatch watch(folder.Path() / "logs");
  EXPECT_TRUE(watch.Wait(stop.Get()));
  fs::create_directory(folder.Path() / "logs");
  EXPECT_TRUE(watch.Wait(stop.Get()));
  fs::remove(folder.Path() / "logs");
  EXPECT_TRUE(watch.Wait(stop.Get()));
  fs::create_directory(folder.Path() / "logs");
  EXPECT_TRUE(watch.Wait(stop.Get()));
  SetEvent(stop.Get());
  EXPECT_FALSE(watch.Wait(stop.Get()));
}

TEST_F(TraceFollowerTest, WaitsForAFileThatSomebodyKeepsForHimself) {
  TraceFollower follower(folder.Path());
  AddLine("vorltrace.log", "a");
  {
    const FileHandle holder(CreateFileW((folder.Path() / "vorltrace.log").c_str(), GENERIC_READ, 0,
                                        nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_THAT(Texts(follower), IsEmpty());
  }
  EXPECT_THAT(Texts(follower), ElementsAre("a"));
}

TEST_F(FolderWatchTest, BeginsAnewWhenWindowsTellsNoMore) {
  FolderWatch watch(folder.Path());
  EXPECT_TRUE(watch.Wait(stop.Get()));
  int begun = 0;
  {
    bool isAsked = false;
    const CallPatch<struct NextTag, BOOL WINAPI(HANDLE)> next(
        "kernel32.dll", "FindNextChangeNotification", [&](HANDLE) {
          isAsked = true;
          return FALSE;
        });
    // Windows may tell late.
    while (!isAsked) {
      AddLine("vorltrace.log", "a");
      EXPECT_TRUE(watch.Wait(stop.Get()));
    }
  }
  const CallPatch<struct FirstTag, HANDLE WINAPI(const wchar_t*, BOOL, DWORD)> first(
      "kernel32.dll", "FindFirstChangeNotificationW",
      [&](const wchar_t* path, BOOL isTree, DWORD filter) {
        ++begun;
        return first.CallOriginal(path, isTree, filter);
      });
  EXPECT_TRUE(watch.Wait(stop.Get()));
  EXPECT_EQ(begun, 1);
}

TEST_F(TraceFollowerTest, IsEndedByTheConsole) {
  CallPatch<struct ControlTag, BOOL WINAPI(PHANDLER_ROUTINE, BOOL)> patch(
      "kernel32.dll", "SetConsoleCtrlHandler", [](PHANDLER_ROUTINE handler, BOOL isAdded) {
        return handler != nullptr && isAdded && handler(CTRL_C_EVENT);
      });
  Output output(STD_OUTPUT_HANDLE);
  EXPECT_TRUE(FollowTrace(folder.Path(), {}, /*isJson=*/false, output));
}

}  // namespace
