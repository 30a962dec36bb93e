// The staged update module in installations of the test's own. Its trace lines go to the recording
// trace library.
#include "modules/vorlupd/vorlupd.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>

#include "modules/vorlupd/filesystem.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorlupd_test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

TEST_F(UpdateModule, ExportsItsFunctionByName) {
  const Library module(m_installation / "vorlupd.dll");
  EXPECT_THAT(module.ExportedNames(), ElementsAre("UpdateBeforeClientService"));
}

TEST_F(UpdateModule, NothingPendingIsSuccess) {
  EXPECT_TRUE(Run());
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kUpdate.Info("Entry"), kApplyPending.Info("Nothing is pending"),
                          kUpdate.Info("Exit")));
  fs::create_directories(m_installation / "pending" / "empty");
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("pending\\"));
}

TEST_F(UpdateModule, ReplacesAndAddsFilesInSubfoldersToo) {
  Install("a.txt", "old a");
  Install("kept.txt", "kept");
  Install("sub\\b.txt", "old b");
  Pend("a.txt", "new a");
  Pend("sub\\b.txt", "new b");
  Pend("sub\\c.txt", "new c");
  Pend("fresh\\deep\\d.txt", "new d");
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=new a", "fresh\\", "fresh\\deep\\",
                                       "fresh\\deep\\d.txt=new d", "kept.txt=kept", "pending\\",
                                       "sub\\", "sub\\b.txt=new b", "sub\\c.txt=new c"));
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kUpdate.Info("Entry"), kExecute.Info("Put in place: a.txt"),
                          kExecute.Info("Put in place: fresh\\deep\\d.txt"),
                          kExecute.Info("Put in place: sub\\b.txt"),
                          kExecute.Info("Put in place: sub\\c.txt"), kUpdate.Info("Exit")));
}

TEST_F(UpdateModule, AppliesOneUpdateAfterTheOther) {
  for (int round = 0; round < 5; ++round) {
    const std::string text = "round " + std::to_string(round);
    Pend("a.txt", text);
    Pend("sub\\b.txt", text);
    EXPECT_TRUE(Run());
    EXPECT_THAT(Installed(),
                ElementsAre("a.txt=" + text, "pending\\", "sub\\", "sub\\b.txt=" + text));
  }
}

TEST_F(UpdateModule, FileThatAnotherProgramHoldsOpenUndoesEverythingAndStaysPending) {
  Install("a.txt", "old a");
  Install("z.txt", "old z");
  Pend("a.txt", "new a");
  Pend("fresh\\b.txt", "new b");
  Pend("z.txt", "new z");
  const Tree before = Installed();
  for (int round = 0; round < 2; ++round) {
    // Reading is shared, so it can be backed up; giving its name away is not.
    const FileHandle held(CreateFileW((m_installation / "z.txt").c_str(), GENERIC_READ,
                                      FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(Run());
    EXPECT_THAT(m_journal.TakeTraces(),
                ElementsAre(kUpdate.Info("Entry"), kExecute.Info("Put in place: a.txt"),
                            kExecute.Info("Put in place: fresh\\b.txt"),
                            kExecute.Error("Cannot be put in place (32): z.txt"),
                            kUndo.Info("The update is undone"), kUpdate.Error("Update Failed")));
  }
  EXPECT_THAT(Installed(), ElementsAreArray(before));

  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=new a", "fresh\\", "fresh\\b.txt=new b", "pending\\",
                                       "z.txt=new z"));
}

TEST_F(UpdateModule, FileThatCannotBeReadChangesNothing) {
  Install("a.txt", "old a");
  Install("z.txt", "old z");
  Pend("a.txt", "new a");
  Pend("z.txt", "new z");
  const Tree before = Installed();
  {
    const FileHandle held = OpenWithoutSharing(m_installation / "pending" / "z.txt");
    EXPECT_FALSE(Run());
  }
  EXPECT_THAT(m_journal.TakeTraces(),
              Contains(kPrepare.Error("Pending file cannot be copied (32): z.txt")));
  EXPECT_THAT(Installed(), ElementsAreArray(before));
  {
    const FileHandle held = OpenWithoutSharing(m_installation / "z.txt");
    EXPECT_FALSE(Run());
  }
  EXPECT_THAT(m_journal.TakeTraces(),
              Contains(kPrepare.Error("File cannot be backed up (32): z.txt")));
  EXPECT_THAT(Installed(), ElementsAreArray(before));
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=new a", "pending\\", "z.txt=new z"));
}

TEST_F(UpdateModule, LoadedModuleIsReplacedAndItsFormerFileGoesAtALaterUpdate) {
  fs::copy_file(StagedFolder() / "vorlinfo.dll", m_installation / "used.dll");
  Pend("used.dll", "new");
  {
    const Library used(m_installation / "used.dll");
    EXPECT_TRUE(Run());
    const Tree tree = Installed();
    ASSERT_EQ(tree.size(), 5U);
    EXPECT_EQ(tree[0], "pending\\");
    EXPECT_EQ(tree[1], "update.work\\");
    EXPECT_EQ(tree[2], "update.work\\aside\\");
    EXPECT_THAT(tree[3], ::testing::StartsWith("update.work\\aside\\0=MZ"));
    EXPECT_EQ(tree[4], "used.dll=new");

    // Another update while the former file is still in use.
    Pend("used.dll", "newer");
    EXPECT_TRUE(Run());
    EXPECT_THAT(Installed(), Contains("used.dll=newer"));
  }
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("pending\\", "used.dll=newer"));
}

TEST_F(UpdateModule, LoadedModuleIsGivenBackWhenTheUpdateFails) {
  fs::copy_file(StagedFolder() / "vorlinfo.dll", m_installation / "used.dll");
  Install("z.txt", "old z");
  Pend("used.dll", "new");
  Pend("z.txt", "new z");
  const ByteVector former = ReadBytes((m_installation / "used.dll").string());
  {
    const Library used(m_installation / "used.dll");
    const FileHandle held(CreateFileW((m_installation / "z.txt").c_str(), GENERIC_READ,
                                      FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(Run());
    EXPECT_EQ(ReadBytes((m_installation / "used.dll").string()), former);
  }
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("pending\\", "used.dll=new", "z.txt=new z"));
}

TEST_F(UpdateModule, ReplacesItself) {
  Pend("vorlupd.dll", "next update module");
  EXPECT_TRUE(Run());
  EXPECT_THAT(TreeOf(m_installation.Path()), Contains("vorlupd.dll=next update module"));
}

TEST_F(UpdateModule, ReadOnlyFilesAreReplacedLikeOthers) {
  Install("a.txt", "old a");
  Install("b.txt", "old b");
  Pend("a.txt", "new a");
  Pend("b.txt", "new b");
  const auto setReadOnly = [&](const fs::path& file) {
    ASSERT_TRUE(SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY));
  };
  setReadOnly(m_installation / "a.txt");
  setReadOnly(m_installation / "pending" / "b.txt");
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=new a", "b.txt=new b", "pending\\"));
  EXPECT_NE(GetFileAttributesW((m_installation / "b.txt").c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
}

TEST_F(UpdateModule, FileAndFolderDoNotReplaceEachOther) {
  fs::create_directories(m_installation / "a.txt");
  Install("sub", "a file");
  Pend("a.txt", "new a");
  Tree before = Installed();
  EXPECT_FALSE(Run());
  EXPECT_THAT(m_journal.TakeTraces(),
              Contains(kPlanFile.Error("Not a file of this installation: a.txt")));
  EXPECT_THAT(Installed(), ElementsAreArray(before));

  fs::remove(m_installation / "pending" / "a.txt");
  Pend("sub\\b.txt", "new b");
  before = Installed();
  EXPECT_FALSE(Run());
  EXPECT_THAT(m_journal.TakeTraces(),
              Contains(kPlanFile.Error("Not a folder of this installation: sub")));
  EXPECT_THAT(Installed(), ElementsAreArray(before));
}

TEST_F(UpdateModule, PendingFileInPlaceOfTheFolderFails) {
  Install("pending", "a file");
  EXPECT_FALSE(Run());
  EXPECT_THAT(Installed(), ElementsAre("pending=a file"));
}

TEST_F(UpdateModule, FileInPlaceOfItsWorkFolderFails) {
  Install("update.work", "a file");
  Pend("a.txt", "new a");
  EXPECT_FALSE(Run());
  EXPECT_THAT(Installed(), ElementsAre("pending\\", "pending\\a.txt=new a", "update.work=a file"));
}

TEST_F(UpdateModule, ItsOwnFoldersCannotBeUpdated) {
  for (const char* file : {"pending\\a.txt", "Update.Work\\journal"}) {
    Pend(file, "new");
    Pend("a.txt", "new a");
    const Tree before = Installed();
    EXPECT_FALSE(Run());
    EXPECT_THAT(m_journal.TakeTraces(),
                Contains(kPlanFile.Error(std::string("Pending file is refused: ") + file)));
    EXPECT_THAT(Installed(), ElementsAreArray(before));
    fs::remove_all(m_installation / "pending");
  }
}

TEST_F(UpdateModule, ItsOwnFoldersAreKnownByTheirShortNames) {
  // A file that an earlier update could not delete.
  Install("update.work\\aside\\0", "former");
  wchar_t path[1024];
  ASSERT_NE(GetShortPathNameW((m_installation / "update.work").c_str(), path, 1024), 0U);
  const std::string shortName = fs::path(path).filename().string();
  if (shortName == "update.work") {
    GTEST_SKIP() << "there are no short names here";
  }
  for (const bool isThere : {true, false}) {
    if (!isThere) {
      fs::remove_all(m_installation / "update.work");
    }
    Pend(shortName + "\\aside\\1", "new");
    EXPECT_FALSE(Run());
    EXPECT_THAT(m_journal.TakeTraces(),
                Contains(kPlanFile.Error("Pending file is refused: " + shortName + "\\aside\\1")));
    EXPECT_THAT(Installed(), Contains("pending\\" + shortName + "\\aside\\1=new"));
    EXPECT_FALSE(fs::exists(m_installation / "update.work"));
  }
}

// Under Wine only links to folders show as such, and what removes a folder there removes what its
// links lead to as well.
TEST_F(UpdateModule, LinksAreNotFollowedOutOfTheInstallation) {
  const TempFolder outside;
  WriteText(outside.Path() / "a.txt", "outside");
  ASSERT_TRUE(MakeFolderLink(m_installation / "linked", outside.Path()));
  // To replace a file behind a link, and to add one.
  for (const char* file : {"linked\\a.txt", "linked\\b.txt"}) {
    Pend(file, "new");
    EXPECT_FALSE(Run());
    EXPECT_THAT(m_journal.TakeTraces(),
                Contains(kPlanFile.Error("Not a folder of this installation: linked")));
    EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside"));
    fs::remove_all(m_installation / "pending");
  }
  // To take in what lies behind a link.
  fs::create_directory(m_installation / "pending");
  ASSERT_TRUE(MakeFolderLink(m_installation / "pending" / "taken", outside.Path()));
  EXPECT_FALSE(Run());
  EXPECT_THAT(m_journal.TakeTraces(),
              Contains(kApplyPending.Error("Pending files cannot be listed (1920)")));
  EXPECT_FALSE(fs::exists(m_installation / "taken"));
  EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside"));
}

TEST_F(UpdateModule, LinksInPlaceOfItsFoldersAreNotFollowed) {
  for (const char* name : {"pending", "update.work"}) {
    const TempFolder outside;
    WriteText(outside.Path() / "a.txt", "outside");
    const Installation installation({"vorlupd.dll"});
    WriteText(installation / "pending" / "b.txt", "new b");
    fs::remove_all(installation / name);
    if (!MakeFolderLink(installation / name, outside.Path())) {
      GTEST_SKIP() << "no link can be made here";
    }
    EXPECT_FALSE(Run(installation));
    EXPECT_THAT(m_journal.TakeTraces(),
                Contains(::testing::HasSubstr("Not a folder of this installation: ")));
    EXPECT_FALSE(fs::exists(installation / "a.txt"));
    EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside")) << name;
  }
  // Inside its own folder a link is removed like anything that is left over. Under Wine no call
  // removes one, and the update has to wait.
  for (const char* name : {"staged", "backup", "aside"}) {
    const TempFolder outside;
    WriteText(outside.Path() / "a.txt", "outside");
    const Installation installation({"vorlupd.dll"});
    WriteText(installation / "pending" / "b.txt", "new b");
    const fs::path link = installation / "update.work" / name;
    fs::create_directory(link.parent_path());
    ASSERT_TRUE(MakeFolderLink(link, outside.Path()));
    const bool isApplied = Run(installation);
    const bool isLeft = GetFileAttributesW(link.c_str()) != INVALID_FILE_ATTRIBUTES;
    EXPECT_EQ(isApplied, !isLeft) << name;
    EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside")) << name;
  }
}

TEST_F(UpdateModule, PathsBeyond260CharactersAreUpdated) {
  const std::wstring deep = std::wstring(120, L'x') + L"\\" + std::wstring(120, L'y');
  const std::wstring root = L"\\\\?\\" + m_installation.Path().wstring();
  const std::wstring pending = root + L"\\pending\\" + deep;
  ASSERT_TRUE(CreateDirectoryW((root + L"\\pending").c_str(), nullptr));
  ASSERT_TRUE(CreateDirectoryW((root + L"\\pending\\" + std::wstring(120, L'x')).c_str(), nullptr));
  ASSERT_TRUE(CreateDirectoryW(pending.c_str(), nullptr));
  for (int round = 0; round < 2; ++round) {
    CreateDirectoryW((root + L"\\pending\\" + std::wstring(120, L'x')).c_str(), nullptr);
    CreateDirectoryW(pending.c_str(), nullptr);
    ASSERT_TRUE(FileHandle(CreateFileW((pending + L"\\a.txt").c_str(), GENERIC_WRITE, 0, nullptr,
                                       CREATE_NEW, 0, nullptr)));
    EXPECT_TRUE(Run());
    EXPECT_NE(GetFileAttributesW((root + L"\\" + deep + L"\\a.txt").c_str()),
              INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesW(pending.c_str()), INVALID_FILE_ATTRIBUTES);
  }
  // What removes the folder afterwards does not reach so far.
  DeleteFileW((root + L"\\" + deep + L"\\a.txt").c_str());
  RemoveDirectoryW((root + L"\\" + deep).c_str());
}

// `levels` folders of one another below `root`, each called "d"; the path of the deepest.
std::wstring MakeNested(const std::wstring& root, unsigned levels) {
  std::wstring path = root;
  CreateDirectoryW(path.c_str(), nullptr);
  for (unsigned level = 0; level < levels; ++level) {
    path += L"\\d";
    EXPECT_TRUE(CreateDirectoryW(path.c_str(), nullptr)) << "level " << level;
  }
  return path;
}

// The other way round; files in the folders must be gone.
void RemoveNested(std::wstring path, unsigned levels) {
  for (unsigned level = 0; level < levels; ++level) {
    EXPECT_TRUE(RemoveDirectoryW(path.c_str())) << "level " << level;
    path.resize(path.size() - 2);
  }
}

TEST_F(UpdateModule, FoldersNestedHundredsDeepAreRefused) {
  constexpr unsigned kLevels = 300;
  const std::wstring pending = L"\\\\?\\" + m_installation.Path().wstring() + L"\\pending";
  const std::wstring deepest = MakeNested(pending, kLevels);
  Pend("a.txt", "new a");
  EXPECT_FALSE(Run());
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kUpdate.Info("Entry"),
                          kApplyPending.Error("Pending folders are nested deeper than 64"),
                          kUpdate.Error("Update Failed")));
  EXPECT_FALSE(fs::exists(m_installation / "a.txt"));
  RemoveNested(deepest, kLevels);
}

TEST_F(UpdateModule, FoldersNested64DeepAreUpdated) {
  const std::wstring root = L"\\\\?\\" + m_installation.Path().wstring();
  const std::wstring pending = MakeNested(root + L"\\pending", 64);
  ASSERT_TRUE(FileHandle(CreateFileW((pending + L"\\a.txt").c_str(), GENERIC_WRITE, 0, nullptr,
                                     CREATE_NEW, 0, nullptr)));
  EXPECT_TRUE(Run());
  std::wstring target = root;
  for (unsigned level = 0; level < 64; ++level) {
    target += L"\\d";
  }
  EXPECT_TRUE(DeleteFileW((target + L"\\a.txt").c_str()));
  RemoveNested(target, 64);
  EXPECT_THAT(Installed(), ElementsAre("pending\\"));
}

// Every folder holds one more.
HANDLE WINAPI FindEndless(const wchar_t* path, WIN32_FIND_DATAW* found) {
  const HANDLE search = FindFirstFileW(path, found);
  if (std::wstring_view(path).find(L"\\pending\\") == std::wstring_view::npos &&
      std::wstring_view(path).find(L"\\aside\\") == std::wstring_view::npos) {
    return search;
  }
  if (search != INVALID_HANDLE_VALUE) {
    FindClose(search);
  }
  WIN32_FIND_DATAW unused;
  *found = {};
  found->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
  found->cFileName[0] = L'd';
  return FindFirstFileW(L"C:\\*", &unused);
}

BOOL WINAPI FindNoMore(HANDLE, WIN32_FIND_DATAW*) {
  SetLastError(ERROR_NO_MORE_FILES);
  return FALSE;
}

TEST_F(UpdateModule, EndlesslyNestedFoldersAreLeftAlone) {
  fs::create_directories(m_installation / "pending");
  {
    const Library module(m_installation / "vorlupd.dll");
    module.ReplaceImport("FindFirstFileW", &FindEndless);
    module.ReplaceImport("FindNextFileW", &FindNoMore);
    EXPECT_FALSE(module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")());
  }
  EXPECT_THAT(m_journal.TakeTraces(),
              Contains(kApplyPending.Error("Pending folders are nested deeper than 64")));
  // In its own folder.
  fs::remove_all(m_installation / "pending");
  fs::create_directories(m_installation / "update.work" / "aside");
  {
    const Library module(m_installation / "vorlupd.dll");
    module.ReplaceImport("FindFirstFileW", &FindEndless);
    module.ReplaceImport("FindNextFileW", &FindNoMore);
    EXPECT_TRUE(module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")());
  }
}

// Links, as which all that the folder holds is shown here: Wine shows none to files.
TEST(RemoveTree, RemovesLinksToFilesAndToFolders) {
  const TempFolder folder;
  const fs::path tree = folder.Path() / "tree";
  fs::create_directories(tree / "link to a folder");
  WriteText(tree / "link to a file", "");
  const CallPatch<struct NextTag, decltype(FindNextFileW)> next(
      "KERNEL32.dll", "FindNextFileW", [&](HANDLE search, WIN32_FIND_DATAW* found) {
        const BOOL isFound = next.CallOriginal(search, found);
        found->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        return isFound;
      });
  EXPECT_TRUE(RemoveTree(tree.wstring()));
  EXPECT_FALSE(fs::exists(tree));
}

}  // namespace
