// What the update module does to single files, and what becomes of them when a call fails halfway.
#include <gmock/gmock.h>

#include <string>

#include "tests/support/import_patch.h"
#include "tests/unit/vorlupd_test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

TEST(ExtendedLength, KeepsPathsThatHaveNoLimitAndKnowsServers) {
  EXPECT_EQ(ExtendedLength(L"C:\\a"), L"\\\\?\\C:\\a");
  EXPECT_EQ(ExtendedLength(L"\\\\?\\C:\\a"), L"\\\\?\\C:\\a");
  EXPECT_EQ(ExtendedLength(L"\\\\.\\C:\\a"), L"\\\\.\\C:\\a");
  EXPECT_EQ(ExtendedLength(L"\\\\server\\share\\a"), L"\\\\?\\UNC\\server\\share\\a");
}

class UpdateFiles : public ::testing::Test {
 protected:
  std::wstring At(const char* name) const { return (m_folder.Path() / name).wstring(); }
  void Put(const char* name, const std::string& text) const {
    WriteText(m_folder.Path() / name, text);
  }
  std::vector<std::string> Files() const { return TreeOf(m_folder.Path()); }

  const TempFolder m_folder;
};

using FindFirst = HANDLE WINAPI(const wchar_t*, WIN32_FIND_DATAW*);
using Delete = BOOL WINAPI(const wchar_t*);
using Move = BOOL WINAPI(const wchar_t*, const wchar_t*, DWORD);

// Volumes with deduplication or in the cloud give ordinary files such tags.
TEST_F(UpdateFiles, KindIsALinkWhereTheTagLeadsElsewhereOrIsNotGiven) {
  Put("a.txt", "a");
  DWORD tag = 0;
  CallPatch<struct FindTag, FindFirst> find(
      "KERNEL32.dll", "FindFirstFileW", [&](const wchar_t* path, WIN32_FIND_DATAW* found) {
        const HANDLE search = find.CallOriginal(path, found);
        found->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        found->dwReserved0 = tag;
        return search;
      });
  EXPECT_EQ(KindOf(At("a.txt")), PathKind::kLink);
  tag = IO_REPARSE_TAG_SYMLINK;
  EXPECT_EQ(KindOf(At("a.txt")), PathKind::kLink);
  tag = IO_REPARSE_TAG_MOUNT_POINT;
  EXPECT_EQ(KindOf(At("a.txt")), PathKind::kLink);
  tag = IO_REPARSE_TAG_DEDUP;
  EXPECT_EQ(KindOf(At("a.txt")), PathKind::kFile);
}

TEST_F(UpdateFiles, FileInUseGivesWayAndComesBackWhenNothingCanTakeItsPlace) {
  Put("new", "new");
  Put("target", "former");
  int moves = 0;
  {
    const CallPatch<struct MoveTag, Move> move(
        "KERNEL32.dll", "MoveFileExW",
        [&](const wchar_t* from, const wchar_t* to, DWORD flags) -> BOOL {
          ++moves;
          if (moves == 1) {
            SetLastError(ERROR_USER_MAPPED_FILE);
            return FALSE;
          }
          if (moves == 3) {
            EXPECT_THAT(Files(), ElementsAre("aside\\", "aside\\0=former", "new=new"));
            SetLastError(ERROR_DISK_FULL);
            return FALSE;
          }
          const BOOL isMoved = move.CallOriginal(from, to, flags);
          SetLastError(ERROR_SUCCESS);
          return isMoved;
        });
    EXPECT_FALSE(PutInPlace(At("new"), At("target"), At("aside")));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_DISK_FULL});
  }
  EXPECT_EQ(moves, 4);
  EXPECT_THAT(Files(), ElementsAre("aside\\", "new=new", "target=former"));
}

TEST_F(UpdateFiles, FileInUseTakesTheFirstFreeNameAside) {
  Put("new", "new");
  Put("target", "former");
  Put("aside\\0", "of an earlier update");
  Put("aside\\1", "of an earlier update");
  {
    const CallPatch<struct MoveTag, Move> move(
        "KERNEL32.dll", "MoveFileExW",
        [&](const wchar_t* from, const wchar_t* to, DWORD flags) -> BOOL {
          if ((flags & MOVEFILE_REPLACE_EXISTING) != 0) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
          }
          return move.CallOriginal(from, to, flags);
        });
    EXPECT_TRUE(PutInPlace(At("new"), At("target"), At("aside")));
  }
  EXPECT_THAT(Files(),
              ElementsAre("aside\\", "aside\\0=of an earlier update",
                          "aside\\1=of an earlier update", "aside\\2=former", "target=new"));
}

TEST_F(UpdateFiles, FileThatIsNotInUseStaysWhereItCannotBeReplacedOrDeleted) {
  Put("new", "new");
  Put("target", "former");
  const CallPatch<struct MoveTag, Move> move("KERNEL32.dll", "MoveFileExW",
                                             [](const wchar_t*, const wchar_t*, DWORD) -> BOOL {
                                               SetLastError(ERROR_WRITE_PROTECT);
                                               return FALSE;
                                             });
  const CallPatch<struct DeleteTag, Delete> deletion("KERNEL32.dll", "DeleteFileW",
                                                     [](const wchar_t*) -> BOOL {
                                                       SetLastError(ERROR_WRITE_PROTECT);
                                                       return FALSE;
                                                     });
  EXPECT_FALSE(PutInPlace(At("new"), At("target"), At("aside")));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_WRITE_PROTECT});
  EXPECT_FALSE(RemoveFile(At("target"), At("aside")));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_WRITE_PROTECT});
  EXPECT_THAT(Files(), ElementsAre("new=new", "target=former"));
}

TEST_F(UpdateFiles, FileInUseIsRemovedByMovingItAsideWhereThereIsRoomForIt) {
  Put("target", "former");
  const CallPatch<struct DeleteTag, Delete> deletion("KERNEL32.dll", "DeleteFileW",
                                                     [](const wchar_t*) -> BOOL {
                                                       SetLastError(ERROR_SHARING_VIOLATION);
                                                       return FALSE;
                                                     });
  EXPECT_FALSE(RemoveFile(At("target"), At("missing\\aside")));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_PATH_NOT_FOUND});
  EXPECT_THAT(Files(), ElementsAre("target=former"));
  EXPECT_TRUE(RemoveFile(At("target"), At("aside")));
  EXPECT_THAT(Files(), ElementsAre("aside\\", "aside\\0=former"));
}

TEST_F(UpdateFiles, ReadOnlyFileThatCannotBeDeletedStaysReadOnly) {
  Put("target", "former");
  ASSERT_TRUE(SetFileAttributesW(At("target").c_str(), FILE_ATTRIBUTE_READONLY));
  DWORD error = ERROR_ACCESS_DENIED;
  {
    const CallPatch<struct DeleteTag, Delete> deletion(
        "KERNEL32.dll", "DeleteFileW", [&](const wchar_t* path) -> BOOL {
          const bool isReadOnly = (GetFileAttributesW(path) & FILE_ATTRIBUTE_READONLY) != 0;
          SetLastError(isReadOnly ? ERROR_ACCESS_DENIED : ERROR_SHARING_VIOLATION);
          return FALSE;
        });
    EXPECT_FALSE(DeleteAnyFile(At("target")));
    error = GetLastError();
  }
  EXPECT_EQ(error, DWORD{ERROR_SHARING_VIOLATION});
  EXPECT_NE(GetFileAttributesW(At("target").c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
  EXPECT_TRUE(DeleteAnyFile(At("target")));
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(UpdateFiles, CopyOfAReadOnlyFileFailsWhereItCannotBeFlushed) {
  Put("source", "text");
  ASSERT_TRUE(SetFileAttributesW(At("source").c_str(), FILE_ATTRIBUTE_READONLY));
  int failing = 1;
  int calls = 0;
  const CallPatch<struct AttributesTag, BOOL WINAPI(const wchar_t*, DWORD)> attributes(
      "KERNEL32.dll", "SetFileAttributesW", [&](const wchar_t* path, DWORD value) -> BOOL {
        if (++calls == failing) {
          SetLastError(ERROR_WRITE_PROTECT);
          return FALSE;
        }
        return attributes.CallOriginal(path, value);
      });
  for (; failing <= 2; ++failing) {
    calls = 0;
    EXPECT_FALSE(CopyToDisk(At("source"), At("copy")));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_WRITE_PROTECT});
    EXPECT_EQ(calls, failing);
    attributes.CallOriginal(At("copy").c_str(), FILE_ATTRIBUTE_NORMAL);
    fs::remove(At("copy"));
  }
  calls = 0;
  EXPECT_TRUE(CopyToDisk(At("source"), At("copy")));
  EXPECT_NE(GetFileAttributesW(At("copy").c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
  attributes.CallOriginal(At("copy").c_str(), FILE_ATTRIBUTE_NORMAL);
  attributes.CallOriginal(At("source").c_str(), FILE_ATTRIBUTE_NORMAL);
}

// The same with the whole module.

TEST_F(UpdateModule, AddsSeveralFilesToOneNewFolder) {
  Pend("fresh\\a.txt", "new a");
  Pend("fresh\\b.txt", "new b");
  Pend("fresh\\deep\\c.txt", "new c");
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("fresh\\", "fresh\\a.txt=new a", "fresh\\b.txt=new b",
                                       "fresh\\deep\\", "fresh\\deep\\c.txt=new c", "pending\\"));
}

TEST_F(UpdateModule, SecondLoadedModuleIsReplacedWhileTheFormerFileOfTheFirstIsStillInUse) {
  for (const char* name : {"one.dll", "two.dll"}) {
    fs::copy_file(StagedFolder() / "vorlinfo.dll", m_installation / name);
  }
  {
    const Library one(m_installation / "one.dll");
    const Library two(m_installation / "two.dll");
    Pend("one.dll", "new one");
    EXPECT_TRUE(Run());
    Pend("two.dll", "new two");
    EXPECT_TRUE(Run());
    EXPECT_THAT(Installed(), Contains("one.dll=new one"));
    EXPECT_THAT(Installed(), Contains("two.dll=new two"));
    EXPECT_TRUE(fs::exists(m_installation / "update.work" / "aside" / "1"));
  }
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("one.dll=new one", "pending\\", "two.dll=new two"));
}

// Names that no file of Windows can have, as of a file system of another one.
BOOL(WINAPI* g_findNext)(HANDLE, WIN32_FIND_DATAW*) = nullptr;

BOOL WINAPI FindStrangeName(HANDLE search, WIN32_FIND_DATAW* found) {
  const BOOL isFound = g_findNext(search, found);
  if (isFound && std::wstring_view(found->cFileName) == L"a.txt") {
    found->cFileName[1] = L'/';
  }
  return isFound;
}

TEST_F(UpdateModule, PendingNameThatIsNoneOfAFileIsRefused) {
  Pend("a.txt", "new a");
  {
    const Library module(m_installation / "vorlupd.dll");
    g_findNext = module.ReplaceImport("FindNextFileW", &FindStrangeName);
    EXPECT_FALSE(sample_update::RunUpdate(module));
  }
  EXPECT_THAT(m_journal.TakeTraces(), Contains(kPlanFile.Error("Pending file is refused: a/txt")));
  EXPECT_THAT(Installed(), ElementsAre("pending\\", "pending\\a.txt=new a"));
}

TEST_F(UpdateModule, StepsOfAJournalAreNotFollowedThroughALinkOutOfTheInstallation) {
  const TempFolder outside;
  WriteText(outside.Path() / "a.txt", "outside");
  ASSERT_TRUE(MakeFolderLink(m_installation / "linked", outside.Path()));
  const std::wstring journal =
      L"\xFEFFvorlupd journal 1\r\ncreate linked\\a.txt\r\ncreate b.txt\r\nend\r\n";
  WriteText(m_installation / "update.work" / "journal",
            {reinterpret_cast<const char*>(journal.data()), journal.size() * sizeof(wchar_t)});
  Install("b.txt", "new b");
  EXPECT_FALSE(Run());
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kUpdate.Info("Entry"),
                          kUndoInterrupted.Info("An earlier update was cut off and is undone"),
                          kUndo.Error("Leads out of this installation: linked\\a.txt"),
                          kUpdate.Error("Update Failed")));
  EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside"));
  EXPECT_FALSE(fs::exists(m_installation / "b.txt"));
  EXPECT_TRUE(fs::exists(m_installation / "update.work" / "journal"));
}

TEST_F(UpdateModule, JournalThatIsTooLargeIsNotRead) {
  const fs::path file = m_installation / "update.work" / "journal";
  const std::wstring journal = L"\xFEFFvorlupd journal 1\r\nend\r\n";
  WriteText(file,
            {reinterpret_cast<const char*>(journal.data()), journal.size() * sizeof(wchar_t)});
  fs::resize_file(file, kLargestJournalSize + 2);
  EXPECT_FALSE(Run());
  EXPECT_THAT(m_journal.TakeTraces(), Contains(::testing::HasSubstr("Journal cannot be read: ")));
}

}  // namespace
