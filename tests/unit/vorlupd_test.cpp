// The staged sample update module in installations of the test's own. Its trace lines go to the
// recording trace library.
#include "modules/vorlupd/vorlupd.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "modules/vorlupd/filesystem.h"
#include "modules/vorlupd/journal.h"
#include "tests/fakes/vlevtlog_fake.h"
#include "tests/support/start_process.h"
#include "tests/unit/vorlupd_operations.h"
#include "tests/unit/vorlupd_sample.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

namespace {

using sample_update::New;
using sample_update::Old;
using sample_update::Pending;
using sample_update::Prepare;
using sample_update::Rest;
using sample_update::Tree;
using sample_update::TreeOfInstallation;
using sample_update::WithPending;

FileHandle OpenWithoutSharing(const fs::path& file) {
  FileHandle handle(CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(handle) << file << ", error " << GetLastError();
  return handle;
}

// Makes the folder `link` lead to `target`; false where this cannot be done. A program under Wine
// makes a link with the host's own tools, which it can run.
bool MakeFolderLink(const fs::path& link, const fs::path& target) {
  struct ChangeTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { FindCloseChangeNotification(handle); }
  };
  using UnixName = char*(const wchar_t*);
  auto* const unixName = reinterpret_cast<UnixName*>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  std::string command;
  if (unixName == nullptr) {
    command = "cmd.exe /c mklink /J \"" + link.string() + "\" \"" + target.string() + "\"";
  } else {
    const std::string parent = unixName(link.parent_path().c_str());
    command = "Z:\\bin\\ln -s \"" + std::string(unixName(target.c_str())) + "\" \"" + parent + "/" +
              link.filename().string() + "\"";
  }
  // The end of one of the host's programs cannot be waited for, what it does can.
  const UniqueHandle<ChangeTraits> change(
      FindFirstChangeNotificationW(link.parent_path().c_str(), FALSE,
                                   FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME));
  const KernelHandle process = StartProcess(fs::path(command).wstring()).process;
  WaitForSingleObject(process.Get(), 30'000);
  DWORD attributes = GetFileAttributesW(link.c_str());
  while (attributes == INVALID_FILE_ATTRIBUTES &&
         WaitForSingleObject(change.Get(), 30'000) == WAIT_OBJECT_0) {
    FindNextChangeNotification(change.Get());
    attributes = GetFileAttributesW(link.c_str());
  }
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

class UpdateModule : public ::testing::Test {
 protected:
  UpdateModule() { FakeTraceClear(); }

  static bool Run(const Installation& installation) {
    const Library module(installation / "vorlupd.dll");
    return module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")() != FALSE;
  }
  bool Run() const { return Run(m_installation); }

  void Install(const std::string& file, const std::string& text) const {
    WriteText(m_installation / file, text);
  }
  void Pend(const std::string& file, const std::string& text) const {
    WriteText(m_installation / "pending" / file, text);
  }

  Tree Installed() const { return TreeOfInstallation(m_installation); }

  // "<level> <function>: <text>" of all lines since the last call.
  static std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (unsigned i = 0; i < FakeTraceCount(); ++i) {
      FakeTraceLine line{};
      FakeTraceGet(i, &line);
      EXPECT_STREQ(line.moduleName, "vorlupd.dll");
      lines.push_back(std::to_string(line.level) + " " + line.functionName + ": " + line.text);
    }
    FakeTraceClear();
    return lines;
  }

  const Installation m_installation{{"vorlupd.dll"}};
};

TEST_F(UpdateModule, ExportsItsFunctionByName) {
  const Library module(m_installation / "vorlupd.dll");
  EXPECT_THAT(module.ExportedNames(), ElementsAre("UpdateBeforeClientService"));
}

TEST_F(UpdateModule, NothingPendingIsSuccess) {
  EXPECT_TRUE(Run());
  EXPECT_THAT(Lines(), ElementsAre("2 UpdateBeforeClientService: Entry",
                                   "2 Update::ApplyPending: Nothing is pending",
                                   "2 UpdateBeforeClientService: Exit"));
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
  EXPECT_THAT(Lines(), ElementsAre("2 UpdateBeforeClientService: Entry",
                                   "2 Update::Execute: Put in place: a.txt",
                                   "2 Update::Execute: Put in place: fresh\\deep\\d.txt",
                                   "2 Update::Execute: Put in place: sub\\b.txt",
                                   "2 Update::Execute: Put in place: sub\\c.txt",
                                   "2 UpdateBeforeClientService: Exit"));
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
    EXPECT_THAT(Lines(), ElementsAre("2 UpdateBeforeClientService: Entry",
                                     "2 Update::Execute: Put in place: a.txt",
                                     "2 Update::Execute: Put in place: fresh\\b.txt",
                                     "1 Update::Execute: Cannot be put in place (32): z.txt",
                                     "2 Update::Undo: The update is undone",
                                     "1 UpdateBeforeClientService: Update Failed"));
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
  EXPECT_THAT(Lines(), Contains("1 Update::Prepare: Pending file cannot be copied (32): z.txt"));
  EXPECT_THAT(Installed(), ElementsAreArray(before));
  {
    const FileHandle held = OpenWithoutSharing(m_installation / "z.txt");
    EXPECT_FALSE(Run());
  }
  EXPECT_THAT(Lines(), Contains("1 Update::Prepare: File cannot be backed up (32): z.txt"));
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
  EXPECT_THAT(Lines(), Contains("1 Update::PlanFile: Not a file of this installation: a.txt"));
  EXPECT_THAT(Installed(), ElementsAreArray(before));

  fs::remove(m_installation / "pending" / "a.txt");
  Pend("sub\\b.txt", "new b");
  before = Installed();
  EXPECT_FALSE(Run());
  EXPECT_THAT(Lines(), Contains("1 Update::PlanFile: Not a folder of this installation: sub"));
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
    EXPECT_THAT(Lines(),
                Contains(std::string("1 Update::PlanFile: Pending file is refused: ") + file));
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
    EXPECT_THAT(Lines(), Contains("1 Update::PlanFile: Pending file is refused: " + shortName +
                                  "\\aside\\1"));
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
    EXPECT_THAT(Lines(), Contains("1 Update::PlanFile: Not a folder of this installation: linked"));
    EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside"));
    fs::remove_all(m_installation / "pending");
  }
  // To take in what lies behind a link.
  fs::create_directory(m_installation / "pending");
  ASSERT_TRUE(MakeFolderLink(m_installation / "pending" / "taken", outside.Path()));
  EXPECT_FALSE(Run());
  EXPECT_THAT(Lines(), Contains("1 Update::ApplyPending: Pending files cannot be listed (1920)"));
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
    EXPECT_THAT(Lines(), Contains(::testing::HasSubstr("Not a folder of this installation: ")));
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
  EXPECT_THAT(Lines(),
              ElementsAre("2 UpdateBeforeClientService: Entry",
                          "1 Update::ApplyPending: Pending folders are nested deeper than 64",
                          "1 UpdateBeforeClientService: Update Failed"));
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
  EXPECT_THAT(Lines(),
              Contains("1 Update::ApplyPending: Pending folders are nested deeper than 64"));
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

class CutOffUpdate : public UpdateModule {
 protected:
  // Runs the update in a process that dies ahead of operation `number`; its exit code.
  static DWORD DieAhead(const Installation& installation, unsigned number) {
    wchar_t program[1024];
    GetModuleFileNameW(nullptr, program, 1024);
    const std::wstring command =
        L"\"" + (fs::path(program).parent_path() / "vorlupd_victim.exe").wstring() + L"\" \"" +
        installation.Path().wstring() + L"\" " + std::to_wstring(number);
    const KernelHandle process = StartProcess(command).process;
    EXPECT_EQ(WaitForSingleObject(process.Get(), 60'000), WAIT_OBJECT_0);
    DWORD exitCode = 0;
    GetExitCodeProcess(process.Get(), &exitCode);
    return exitCode;
  }
};

TEST_F(CutOffUpdate, AtAnyOperationIsUndoneOrCompleteButNeverHalf) {
  constexpr DWORD kDied = 77;
  unsigned undone = 0;
  unsigned complete = 0;
  for (unsigned number = 1;; ++number) {
    const Installation installation({"vorlupd.dll"});
    Prepare(installation);
    const DWORD exitCode = DieAhead(installation, number);
    if (exitCode != kDied) {
      EXPECT_EQ(exitCode, 0U);
      break;
    }
    // Nothing pending any more: the next start can only undo.
    fs::rename(installation / "pending", installation / "taken away");
    EXPECT_TRUE(Run(installation)) << "operation " << number;
    fs::remove_all(installation / "taken away");
    const Tree tree = TreeOfInstallation(installation);
    if (tree == Old()) {
      ++undone;
    } else {
      EXPECT_THAT(tree, ElementsAreArray(New())) << "operation " << number;
      ++complete;
    }
  }
  // Deaths before and after the moment at which the update is complete were met.
  EXPECT_GT(undone, 10U);
  EXPECT_GT(complete, 3U);
}

TEST_F(CutOffUpdate, AtAnyOperationIsAppliedAtTheNextStart) {
  for (unsigned number = 1;; ++number) {
    const Installation installation({"vorlupd.dll"});
    Prepare(installation);
    if (DieAhead(installation, number) == 0) {
      break;
    }
    EXPECT_TRUE(Run(installation)) << "operation " << number;
    EXPECT_THAT(TreeOfInstallation(installation),
                ElementsAreArray(WithPending(New(), {"pending\\"})))
        << "operation " << number;
  }
}

TEST_F(CutOffUpdate, AtAnyFailingOperationLeavesTheOldOrTheNewInstallation) {
  unsigned failed = 0;
  for (unsigned number = 1;; ++number) {
    const Installation installation({"vorlupd.dll"});
    Prepare(installation);
    bool isApplied = false;
    {
      const Library module(installation / "vorlupd.dll");
      operations::Watch(module, [number](unsigned current) {
        return current == number ? DWORD{ERROR_DISK_FULL} : DWORD{ERROR_SUCCESS};
      });
      isApplied =
          module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")() != FALSE;
    }
    if (operations::g_count < number) {
      EXPECT_TRUE(isApplied);
      break;
    }
    if (isApplied) {
      EXPECT_THAT(Rest(installation), ElementsAreArray(New())) << "operation " << number;
    } else {
      ++failed;
      EXPECT_THAT(Rest(installation), ElementsAreArray(Old())) << "operation " << number;
      Tree tree = TreeOfInstallation(installation);
      std::erase_if(tree,
                    [](const std::string& entry) { return entry.starts_with("update.work\\"); });
      EXPECT_THAT(tree, ElementsAreArray(WithPending(Old(), Pending()))) << "operation " << number;
    }
    EXPECT_TRUE(Run(installation)) << "operation " << number;
    EXPECT_THAT(TreeOfInstallation(installation),
                ElementsAreArray(WithPending(New(), {"pending\\"})))
        << "operation " << number;
  }
  EXPECT_GT(failed, 10U);
}

class JournalOfModule : public UpdateModule {
 protected:
  void PutJournal(const std::wstring& text) const { PutJournal(m_installation, text); }
  static void PutJournal(const Installation& installation, const std::wstring& text) {
    std::string bytes = "\xFF\xFE";
    bytes.append(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
    WriteText(installation / "update.work" / "journal", bytes);
  }
};

TEST_F(JournalOfModule, OfACutOffUpdateIsFollowedBackwards) {
  Install("a.txt", "new a");
  Install("fresh\\c.txt", "new c");
  Install("later.txt", "old later");
  Install("update.work\\backup\\a.txt", "old a");
  Install("update.work\\backup\\later.txt", "old later");
  Install("update.work\\backup\\gone.txt", "old gone");
  Install("update.work\\staged\\later.txt", "new later");
  // Moved aside, and nothing put in its place yet.
  Install("update.work\\staged\\gone.txt", "new gone");
  PutJournal(
      L"vorlupd journal 1\r\nreplace a.txt\r\nfolder fresh\r\ncreate fresh\\c.txt\r\n"
      L"replace gone.txt\r\nreplace later.txt\r\nend\r\n");
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=old a", "gone.txt=old gone", "later.txt=old later"));
  EXPECT_THAT(Lines(),
              ElementsAre("2 UpdateBeforeClientService: Entry",
                          "2 Update::UndoInterrupted: An earlier update was cut off and is undone",
                          "2 Update::Undo: The update is undone",
                          "2 Update::ApplyPending: Nothing is pending",
                          "2 UpdateBeforeClientService: Exit"));
}

TEST_F(JournalOfModule, ThatCannotBeUndoneYetIsTriedAgainAndHoldsBackOtherUpdates) {
  Install("a.txt", "new a");
  Install("b.txt", "new b");
  Install("update.work\\backup\\a.txt", "old a");
  Install("update.work\\backup\\b.txt", "old b");
  PutJournal(L"vorlupd journal 1\r\nreplace a.txt\r\nreplace b.txt\r\nend\r\n");
  Pend("c.txt", "new c");
  {
    const FileHandle held = OpenWithoutSharing(m_installation / "a.txt");
    EXPECT_FALSE(Run());
  }
  EXPECT_THAT(Lines(), Contains("1 Update::Undo: Cannot be undone (32): a.txt"));
  EXPECT_FALSE(fs::exists(m_installation / "c.txt"));
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=old a", "b.txt=old b", "c.txt=new c", "pending\\"));
}

HANDLE WINAPI FindAllButStaged(const wchar_t* path, WIN32_FIND_DATAW* found) {
  if (fs::path(path).parent_path().filename() == "staged") {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
  }
  return FindFirstFileW(path, found);
}

TEST_F(JournalOfModule, OfWhichAStepCannotBeToldIsNotTakenForUndone) {
  Install("a.txt", "new a");
  Install("update.work\\backup\\a.txt", "old a");
  PutJournal(L"vorlupd journal 1\r\nreplace a.txt\r\nend\r\n");
  {
    const Library module(m_installation / "vorlupd.dll");
    module.ReplaceImport("FindFirstFileW", &FindAllButStaged);
    EXPECT_FALSE(module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")());
  }
  EXPECT_THAT(Lines(), Contains("1 Update::Undo: Cannot be undone (5): a.txt"));
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=old a"));
}

TEST_F(JournalOfModule, ThatIsDamagedOrLeadsOutOfTheInstallationIsNotFollowed) {
  const TempFolder outside;
  WriteText(outside.Path() / "a.txt", "outside");
  Install("a.txt", "a");
  Install("update.work\\backup\\a.txt", "old a");
  Pend("b.txt", "new b");
  const std::wstring other = outside.Path().filename().wstring();
  for (const std::wstring& journal :
       {std::wstring(), std::wstring(L"vorlupd journal 1\r\n"), std::wstring(L"garbage"),
        std::wstring(L"vorlupd journal 1\r\nreplace a.txt\r\n"),
        std::wstring(L"vorlupd journal 2\r\nreplace a.txt\r\nend\r\n"),
        std::wstring(L"vorlupd journal 1\r\nremove a.txt\r\nend\r\n"),
        L"vorlupd journal 1\r\ncreate ..\\" + other + L"\\a.txt\r\nend\r\n",
        L"vorlupd journal 1\r\ncreate " + outside.Path().wstring() + L"\\a.txt\r\nend\r\n",
        std::wstring(L"vorlupd journal 1\r\ncreate sub\\..\\a.txt\r\nend\r\n"),
        std::wstring(L"vorlupd journal 1\r\ncreate \\a.txt\r\nend\r\n"),
        std::wstring(L"vorlupd journal 1\r\ncreate a.txt:stream\r\nend\r\n"),
        std::wstring(L"vorlupd journal 1\r\ncreate \r\nend\r\n"),
        std::wstring(L"vorlupd journal 1\r\ncreate a.txt\\\r\nend\r\n")}) {
    PutJournal(journal);
    const Tree before = Installed();
    FakeTraceClear();
    EXPECT_FALSE(Run());
    EXPECT_THAT(Lines(), Contains(::testing::HasSubstr("Journal cannot be read: ")));
    EXPECT_THAT(Installed(), ElementsAreArray(before));
    EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside"));
  }
}

TEST_F(JournalOfModule, IsNotFollowedThroughLinks) {
  for (const char* name : {"backup", "staged", "aside"}) {
    const TempFolder outside;
    WriteText(outside.Path() / "a.txt", "outside");
    const Installation installation({"vorlupd.dll"});
    WriteText(installation / "a.txt", "a");
    PutJournal(installation, L"vorlupd journal 1\r\nreplace a.txt\r\nend\r\n");
    if (!MakeFolderLink(installation / "update.work" / name, outside.Path())) {
      GTEST_SKIP() << "no link can be made here";
    }
    EXPECT_FALSE(Run(installation)) << name;
    EXPECT_THAT(Lines(), Contains(::testing::HasSubstr("Not a folder of this installation: ")));
    EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside"));
    EXPECT_THAT(TreeOfInstallation(installation), Contains("a.txt=a")) << name;
  }
}

// The journal's own functions, with the largest and strangest that they can be given.
class JournalFile : public ::testing::Test {
 protected:
  std::vector<std::string> Files() const { return TreeOf(m_folder.Path()); }

  const TempFolder m_folder;
  const std::wstring m_file = ExtendedLength((m_folder.Path() / "journal").wstring());
};

TEST_F(JournalFile, IsReadAgainWhateverTheNamesAre) {
  std::vector<Step> steps;
  for (const std::wstring& name :
       {std::wstring(L"a"), std::wstring(L" "), std::wstring(L" a "), std::wstring(L"a."),
        std::wstring(L"end"), std::wstring(L"create b"), std::wstring(L"100% %s %n"),
        std::wstring(L"\x7F"), std::wstring(L"\x85"), std::wstring(L"\x2028\x2029"),
        std::wstring(L"\xFEFF"), std::wstring(L"\xFFFE\xFFFF"), std::wstring(L"\xD83D\xDE00"),
        std::wstring(L"\xDE00\xD83D"), std::wstring(L"\xD83D"), std::wstring(32'000, L'x')}) {
    steps.push_back({Step::Kind::kFolder, name});
    steps.push_back({Step::Kind::kReplace, name + L"\\" + name});
    steps.push_back({Step::Kind::kCreate, name + L"\\b\\" + name});
  }
  ASSERT_TRUE(WriteJournal(m_file, steps));
  EXPECT_EQ(ReadJournal(m_file), steps);
}

TEST_F(JournalFile, IsNotWrittenWhereItCouldNotBeReadAgain) {
  for (const wchar_t* path : {L"", L"a\r\nb", L"a\n", L"\r", L"..\\a", L"a\\..\\b", L"a\\\\b",
                              L"a\\", L"\\a", L"a/b", L"a:b", L"a\x1F"}) {
    EXPECT_FALSE(WriteJournal(m_file, {{Step::Kind::kCreate, L"a"}, {Step::Kind::kCreate, path}}));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_NAME});
    EXPECT_THAT(Files(), IsEmpty());
  }
}

TEST_F(JournalFile, IsReadAgainWhenItIsTheLargestAndNotWrittenWhenItWouldBeLarger) {
  // One step takes "create ", its path and the end of the line.
  constexpr std::size_t kPathLength = 32'000;
  constexpr std::size_t kStepSize = (7 + kPathLength + 2) * sizeof(wchar_t);
  // The mark, the title and the last line.
  constexpr std::size_t kFrameSize = (1 + 19 + 5) * sizeof(wchar_t);
  const std::size_t count = (kLargestJournalSize - kFrameSize) / kStepSize;
  std::vector<Step> steps(count, {Step::Kind::kCreate, std::wstring(kPathLength, L'x')});
  steps.back().path.append((kLargestJournalSize - kFrameSize - count * kStepSize) / 2, L'y');
  ASSERT_TRUE(WriteJournal(m_file, steps));
  EXPECT_EQ(fs::file_size(m_file), kLargestJournalSize);
  EXPECT_TRUE(ReadJournal(m_file) == steps);
  fs::remove(m_file);

  steps.back().path.append(L"z");
  EXPECT_FALSE(WriteJournal(m_file, steps));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_TOO_LARGE});
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(JournalFile, ThatIsCutAnywhereIsNotRead) {
  const std::vector<Step> steps = {{Step::Kind::kFolder, L"a"}, {Step::Kind::kCreate, L"a\\end"}};
  ASSERT_TRUE(WriteJournal(m_file, steps));
  const ByteVector whole = ReadBytes(fs::path(m_file).string());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    fs::resize_file(m_file, size);
    EXPECT_FALSE(ReadJournal(m_file)) << size << " bytes";
    fs::remove(m_file);
    ASSERT_TRUE(WriteJournal(m_file, steps));
  }
}

// A disk that fills up in the middle of the journal.
BOOL(WINAPI* g_writeFile)(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) = nullptr;

BOOL WINAPI WriteHalf(HANDLE file, const void* data, DWORD size, DWORD* written,
                      OVERLAPPED* overlapped) {
  return g_writeFile(file, data, size / 2, written, overlapped);
}

TEST_F(JournalOfModule, OfWhichOnlyHalfIsWrittenStopsTheUpdate) {
  Install("a.txt", "old a");
  Pend("a.txt", "new a");
  {
    const Library module(m_installation / "vorlupd.dll");
    g_writeFile = module.ReplaceImport("WriteFile", &WriteHalf);
    EXPECT_FALSE(module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")());
  }
  EXPECT_THAT(Lines(), Contains("1 Update::ApplyPending: Journal cannot be written (112)"));
  EXPECT_THAT(Installed(), ElementsAre("a.txt=old a", "pending\\", "pending\\a.txt=new a"));
}

TEST_F(JournalOfModule, ThatWasNotFinishedIsNoJournal) {
  Install("a.txt", "old a");
  Install("update.work\\journal.new", "half a");
  Pend("a.txt", "new a");
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=new a", "pending\\"));
}

}  // namespace
