// The staged sample update module in installations of the test's own. Its trace lines go to the
// recording trace library.
#include "samples/vorlupd/vorlupd.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/fakes/vlevtlog_fake.h"
#include "tests/support/start_process.h"
#include "tests/unit/vorlupd_operations.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

namespace {

using Tree = std::vector<std::string>;

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

  // Everything but the update module.
  static Tree TreeOfInstallation(const Installation& installation) {
    Tree tree = TreeOf(installation.Path());
    std::erase_if(tree, [](const std::string& entry) { return entry.starts_with("vorlupd.dll="); });
    return tree;
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

// Under Wine only links to folders show as such.
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

// An update with every kind of step, before and after it.
class CutOffUpdate : public UpdateModule {
 protected:
  static void Prepare(const Installation& installation) {
    WriteText(installation / "a.txt", "old a");
    WriteText(installation / "sub" / "b.txt", "old b");
    WriteText(installation / "pending" / "a.txt", "new a");
    WriteText(installation / "pending" / "fresh" / "c.txt", "new c");
    WriteText(installation / "pending" / "sub" / "b.txt", "new b");
  }
  static Tree Old() { return {"a.txt=old a", "sub\\", "sub\\b.txt=old b"}; }
  static Tree New() {
    return {"a.txt=new a", "fresh\\", "fresh\\c.txt=new c", "sub\\", "sub\\b.txt=new b"};
  }
  static Tree Pending() {
    return {"pending\\",        "pending\\a.txt=new a",
            "pending\\fresh\\", "pending\\fresh\\c.txt=new c",
            "pending\\sub\\",   "pending\\sub\\b.txt=new b"};
  }

  // Without the folders that belong to updating.
  static Tree Rest(const Installation& installation) {
    Tree tree = TreeOfInstallation(installation);
    std::erase_if(tree, [](const std::string& entry) {
      return entry.starts_with("pending\\") || entry.starts_with("update.work\\");
    });
    return tree;
  }
  static Tree WithPending(Tree tree, const Tree& pending) {
    tree.insert(tree.end(), pending.begin(), pending.end());
    std::sort(tree.begin(), tree.end());
    return tree;
  }

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

class Journal : public UpdateModule {
 protected:
  void WriteJournal(const std::wstring& text) const {
    std::string bytes = "\xFF\xFE";
    bytes.append(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
    WriteText(m_installation / "update.work" / "journal", bytes);
  }
};

TEST_F(Journal, OfACutOffUpdateIsFollowedBackwards) {
  Install("a.txt", "new a");
  Install("fresh\\c.txt", "new c");
  Install("later.txt", "old later");
  Install("update.work\\backup\\a.txt", "old a");
  Install("update.work\\backup\\later.txt", "old later");
  Install("update.work\\backup\\gone.txt", "old gone");
  Install("update.work\\staged\\later.txt", "new later");
  // Moved aside, and nothing put in its place yet.
  Install("update.work\\staged\\gone.txt", "new gone");
  WriteJournal(
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

TEST_F(Journal, ThatCannotBeUndoneYetIsTriedAgainAndHoldsBackOtherUpdates) {
  Install("a.txt", "new a");
  Install("b.txt", "new b");
  Install("update.work\\backup\\a.txt", "old a");
  Install("update.work\\backup\\b.txt", "old b");
  WriteJournal(L"vorlupd journal 1\r\nreplace a.txt\r\nreplace b.txt\r\nend\r\n");
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

TEST_F(Journal, OfWhichAStepCannotBeToldIsNotTakenForUndone) {
  Install("a.txt", "new a");
  Install("update.work\\backup\\a.txt", "old a");
  WriteJournal(L"vorlupd journal 1\r\nreplace a.txt\r\nend\r\n");
  {
    const Library module(m_installation / "vorlupd.dll");
    module.ReplaceImport("FindFirstFileW", &FindAllButStaged);
    EXPECT_FALSE(module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")());
  }
  EXPECT_THAT(Lines(), Contains("1 Update::Undo: Cannot be undone (5): a.txt"));
  EXPECT_TRUE(Run());
  EXPECT_THAT(Installed(), ElementsAre("a.txt=old a"));
}

TEST_F(Journal, ThatIsDamagedOrLeadsOutOfTheInstallationIsNotFollowed) {
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
    WriteJournal(journal);
    const Tree before = Installed();
    FakeTraceClear();
    EXPECT_FALSE(Run());
    EXPECT_THAT(Lines(), Contains(::testing::HasSubstr("Journal cannot be read: ")));
    EXPECT_THAT(Installed(), ElementsAreArray(before));
    EXPECT_THAT(TreeOf(outside.Path()), ElementsAre("a.txt=outside"));
  }
}

}  // namespace
