// Updates that are cut off in the middle, and the journal by which they are followed up.
#include <gmock/gmock.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/unit/vorlupd_test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

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
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kUpdate.Info("Entry"),
                          kUndoInterrupted.Info("An earlier update was cut off and is undone"),
                          kUndo.Info("The update is undone"),
                          kApplyPending.Info("Nothing is pending"), kUpdate.Info("Exit")));
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
  EXPECT_THAT(m_journal.TakeTraces(), Contains(kUndo.Error("Cannot be undone (32): a.txt")));
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
  EXPECT_THAT(m_journal.TakeTraces(), Contains(kUndo.Error("Cannot be undone (5): a.txt")));
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
    m_journal.Clear();
    EXPECT_FALSE(Run());
    EXPECT_THAT(m_journal.TakeTraces(), Contains(::testing::HasSubstr("Journal cannot be read: ")));
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
    EXPECT_THAT(m_journal.TakeTraces(),
                Contains(::testing::HasSubstr("Not a folder of this installation: ")));
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
  EXPECT_THAT(m_journal.TakeTraces(),
              Contains(kApplyPending.Error("Journal cannot be written (112)")));
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
