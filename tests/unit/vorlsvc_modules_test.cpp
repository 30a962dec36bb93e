// How the service's core and update modules are found, loaded and called.
#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <vector>

#include "agent/vorlsvc.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/fakes/vorlupd_fake.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/support/library_calls.h"
#include "tests/support/text.h"
#include "tests/unit/operations.h"

using ::testing::ElementsAre;

namespace {

constexpr char kGetRoot[] = "GetClientAgentRootDir";
constexpr char kAskForUpdate[] = "_waccess vorlupd.dll 0";

std::wstring BaseName(const std::wstring& path) { return path.substr(path.rfind(L'\\') + 1); }

// Loads, unloads and questions for a file go to the journal, by the name of the module's file, and
// the calls of the support library do.
class ModuleLoading : public ::testing::Test {
 protected:
  struct LoadCall {
    std::wstring path;
    HANDLE file;
    DWORD flags;
  };

  ModuleLoading() {
    FakeMiscReset();
    libraries.emplace(journal);
  }
  ~ModuleLoading() override {
    if (!temporary.empty()) {
      DeleteFileW((temporary + L"\\vorlcore.dll").c_str());
      DeleteFileW((temporary + L"\\vorlupd.dll").c_str());
      RemoveDirectoryW(temporary.c_str());
    }
  }

  // Makes the stand-in installation `name` the agent's root folder.
  void UseRoot(const std::wstring& name) { SetRoot(TestFolder() + L"\\roots\\" + name); }
  void SetRoot(const std::wstring& folder) {
    root = folder;
    StringCchCopyW(FakeMisc()->rootDir, kFolderCapacity, folder.c_str());
  }

  // Makes a fresh folder the agent's root folder.
  void UseTemporaryRoot(const std::wstring& name) {
    temporary = TestFolder() + L"\\" + name + std::to_wstring(GetCurrentProcessId());
    ASSERT_TRUE(CreateDirectoryW(temporary.c_str(), nullptr));
    SetRoot(temporary);
  }

  void WriteTextFile(const std::wstring& path) {
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(file, "no module", 9, &written, nullptr));
    CloseHandle(file);
  }

  std::string PathText(const std::wstring& file) const {
    return "wszFilePath: " + Utf8(root + L"\\" + file);
  }

  // The lines that name the path of a module.
  std::string CorePath() const {
    return kLoadCore.VerboseDirect(L"wszFilePath: %s", PathText(L"vorlcore.dll"));
  }
  std::string UpdatePath() const {
    return kPatch.InfoDirect(L"wszFilePath: %s", PathText(L"vorlupd.dll"));
  }

  Journal journal;
  std::optional<LibraryCalls> libraries;
  std::wstring root;
  std::wstring temporary;
  std::vector<LoadCall> loads;

 private:
  struct LoadTag;
  struct FreeTag;
  struct AccessTag;

  CallPatch<AccessTag, int(const wchar_t*, int)> m_access{
      "msvcrt.dll", "_waccess", [this](const wchar_t* path, int mode) {
        journal.Call("_waccess " + Utf8(BaseName(path)) + " " + std::to_string(mode));
        return m_access.CallOriginal(path, mode);
      }};
  CallPatch<LoadTag, HMODULE(const wchar_t*, HANDLE, DWORD)> m_load{
      "KERNEL32.dll", "LoadLibraryExW", [this](const wchar_t* path, HANDLE file, DWORD flags) {
        journal.Call("LoadLibraryExW " + Utf8(BaseName(path)));
        loads.push_back({path, file, flags});
        return m_load.CallOriginal(path, file, flags);
      }};
  CallPatch<FreeTag, BOOL(HMODULE)> m_free{"KERNEL32.dll", "FreeLibrary", [this](HMODULE module) {
                                             wchar_t path[MAX_PATH] = {};
                                             GetModuleFileNameW(module, path, MAX_PATH);
                                             journal.Call("FreeLibrary " + Utf8(BaseName(path)));
                                             return m_free.CallOriginal(module);
                                           }};
};

using LoadVorlcoreDllTest = ModuleLoading;

TEST_F(LoadVorlcoreDllTest, LoadsTheCoreModuleOfTheRootFolder) {
  UseRoot(L"core_only");
  const HMODULE module = LoadVorlcoreDll();
  ASSERT_NE(module, nullptr);
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(module, path, MAX_PATH);
  EXPECT_EQ(_wcsicmp(path, (root + L"\\vorlcore.dll").c_str()), 0);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kLoadCore.Info("Entry."), kGetRoot, CorePath(),
                          "LoadLibraryExW vorlcore.dll", kLoadCore.Info("Exit.")));
  FreeLibrary(module);
}

TEST_F(LoadVorlcoreDllTest, SearchesTheModulesOwnFolderForItsDependencies) {
  UseRoot(L"core_only");
  FreeLibrary(LoadVorlcoreDll());
  ASSERT_EQ(loads.size(), 1U);
  EXPECT_EQ(loads[0].path, root + L"\\vorlcore.dll");
  EXPECT_EQ(loads[0].file, nullptr);
  EXPECT_EQ(loads[0].flags, 8U);
  EXPECT_EQ(FakeMisc()->rootDirCapacity, 520U);
  EXPECT_EQ(FakeMisc()->rootDirCalls, 1U);
}

TEST_F(LoadVorlcoreDllTest, FailsWithoutARootFolder) {
  FakeMisc()->rootDirResult = 0;
  EXPECT_EQ(LoadVorlcoreDll(), nullptr);
  EXPECT_THAT(journal.Entries(), ElementsAre(kLoadCore.Info("Entry."), kGetRoot,
                                             kLoadCore.Error("GetClientAgentRootDir Fail...")));
}

TEST_F(LoadVorlcoreDllTest, OnlyTheLowByteOfTheFoldersResultCounts) {
  UseRoot(L"core_only");
  FakeMisc()->rootDirResult = 2;
  const HMODULE module = LoadVorlcoreDll();
  EXPECT_NE(module, nullptr);
  FreeLibrary(module);
}

TEST_F(LoadVorlcoreDllTest, FailsWhenTheModuleIsMissing) {
  UseRoot(L"without_update");
  EXPECT_EQ(LoadVorlcoreDll(), nullptr);
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kLoadCore.Info("Entry."), kGetRoot, CorePath(), "LoadLibraryExW vorlcore.dll",
                  kLoadCore.ErrorDirect("Load Library Fail... with error (%lu)",
                                        "Load Library Fail... with error (126)")));
}

TEST_F(LoadVorlcoreDllTest, FailsWhenTheFileIsNoModule) {
  UseTemporaryRoot(L"no module ");
  WriteTextFile(root + L"\\vorlcore.dll");
  EXPECT_EQ(LoadVorlcoreDll(), nullptr);
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kLoadCore.Info("Entry."), kGetRoot, CorePath(), "LoadLibraryExW vorlcore.dll",
                  kLoadCore.ErrorDirect("Load Library Fail... with error (%lu)",
                                        "Load Library Fail... with error (193)")));
}

TEST_F(LoadVorlcoreDllTest, AFolderMayHaveAnyCharactersInItsName) {
  const std::wstring core = TestFolder() + L"\\roots\\core_only\\vorlcore.dll";
  UseTemporaryRoot(L"100% \u00e4\u4e2d ");
  ASSERT_TRUE(CopyFileW(core.c_str(), (root + L"\\vorlcore.dll").c_str(), FALSE));
  const HMODULE module = LoadVorlcoreDll();
  EXPECT_NE(module, nullptr);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kLoadCore.Info("Entry."),
                          kLoadCore.VerboseDirect(L"wszFilePath: %s", PathText(L"vorlcore.dll")),
                          kLoadCore.Info("Exit.")));
  FreeLibrary(module);
}

TEST_F(LoadVorlcoreDllTest, AFolderOf259CharactersLeavesRoomForTheModulesName) {
  SetRoot(L"C:\\" + std::wstring(256, L'x'));
  EXPECT_EQ(LoadVorlcoreDll(), nullptr);
  ASSERT_EQ(loads.size(), 1U);
  EXPECT_EQ(loads[0].path, root + L"\\vorlcore.dll");
}

// As many characters as a folder may have.
TEST_F(LoadVorlcoreDllTest, AFolderThatFillsTheCapacityLeavesRoomForTheModulesName) {
  SetRoot(L"C:\\" + std::wstring(516, L'x'));
  EXPECT_EQ(LoadVorlcoreDll(), nullptr);
  ASSERT_EQ(loads.size(), 1U);
  EXPECT_EQ(loads[0].path, root + L"\\vorlcore.dll");
}

// The update module of the root folder, held by the test so that its record outlives the product's
// use of it. Its calls go to the journal.
class HeldUpdateModule {
 public:
  HeldUpdateModule(const std::wstring& root, Journal& journal)
      : m_path(root + L"\\vorlupd.dll"), m_module(LoadLibraryW(m_path.c_str())) {
    const auto record = reinterpret_cast<FakeUpdateFn*>(
        reinterpret_cast<void*>(GetProcAddress(m_module, "FakeUpdate")));
    m_record = record();
    m_record->context = &journal;
    m_record->onCall = [](void* context) {
      static_cast<Journal*>(context)->Call("UpdateBeforeClientService");
    };
  }

  FakeUpdateRecord* operator->() const { return m_record; }

  // Lets go; true when nobody else holds the module.
  bool ReleaseLast() {
    FreeLibrary(m_module);
    return GetModuleHandleW(m_path.c_str()) == nullptr;
  }

 private:
  std::wstring m_path;
  HMODULE m_module;
  FakeUpdateRecord* m_record = nullptr;
};

using DoPendingPatchTasksTest = ModuleLoading;

TEST_F(DoPendingPatchTasksTest, CallsTheUpdateModuleAndUnloadsIt) {
  UseRoot(L"complete");
  HeldUpdateModule update(root, journal);
  EXPECT_TRUE(DoPendingPatchTasks());
  EXPECT_EQ(update->calls, 1U);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kPatch.Info("Entry."), kGetRoot, UpdatePath(), kAskForUpdate,
                          "LoadLibraryExW vorlupd.dll", "UpdateBeforeClientService",
                          "FreeLibrary vorlupd.dll", kPatch.Info("Exit.")));
  EXPECT_TRUE(update.ReleaseLast());
}

TEST_F(DoPendingPatchTasksTest, SearchesTheModulesOwnFolderForItsDependencies) {
  UseRoot(L"complete");
  EXPECT_TRUE(DoPendingPatchTasks());
  ASSERT_EQ(loads.size(), 1U);
  EXPECT_EQ(loads[0].path, root + L"\\vorlupd.dll");
  EXPECT_EQ(loads[0].file, nullptr);
  EXPECT_EQ(loads[0].flags, 8U);
  EXPECT_EQ(FakeMisc()->rootDirCapacity, 520U);
}

TEST_F(DoPendingPatchTasksTest, FailsWithoutARootFolder) {
  FakeMisc()->rootDirResult = 0;
  EXPECT_FALSE(DoPendingPatchTasks());
  EXPECT_THAT(journal.Entries(), ElementsAre(kPatch.Info("Entry."), kGetRoot,
                                             kPatch.Error("GetAdmnConRootDir Fail...")));
}

TEST_F(DoPendingPatchTasksTest, NoUpdateModuleInTheRootFolderIsAnErrorLineAndNothingIsLoaded) {
  UseRoot(L"core_only");
  EXPECT_FALSE(DoPendingPatchTasks());
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kPatch.Info("Entry."), kGetRoot, UpdatePath(), kAskForUpdate,
                          kPatch.ErrorDirect(L"File not exist (%s)",
                                             "File not exist (" + Utf8(root) + "\\vorlupd.dll)")));
}

TEST_F(DoPendingPatchTasksTest, AsksOnlyWhetherTheFileExists) {
  UseRoot(L"complete");
  std::wstring path;
  int mode = -1;
  const CallPatch<struct AskedTag, int(const wchar_t*, int)> access(
      "msvcrt.dll", "_waccess", [&](const wchar_t* askedPath, int askedMode) {
        path = askedPath;
        mode = askedMode;
        return -1;
      });
  EXPECT_FALSE(DoPendingPatchTasks());
  EXPECT_EQ(path, root + L"\\vorlupd.dll");
  EXPECT_EQ(mode, 0);
  EXPECT_THAT(journal.Calls(), ElementsAre(kGetRoot));
}

TEST_F(DoPendingPatchTasksTest, FailsWhenTheFileIsNoModule) {
  UseTemporaryRoot(L"no update module ");
  WriteTextFile(root + L"\\vorlupd.dll");
  EXPECT_FALSE(DoPendingPatchTasks());
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kPatch.Info("Entry."), kGetRoot, UpdatePath(), kAskForUpdate,
                          "LoadLibraryExW vorlupd.dll",
                          kPatch.ErrorDirect("Load Library Fail... with error (%lu)",
                                             "Load Library Fail... with error (193)")));
}

TEST_F(DoPendingPatchTasksTest, AnUpdateModuleWithoutTheExportIsLoadedAndUnloadedAgain) {
  UseRoot(L"without_update");
  EXPECT_FALSE(DoPendingPatchTasks());
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kPatch.Info("Entry."), kGetRoot, UpdatePath(), kAskForUpdate,
                          "LoadLibraryExW vorlupd.dll",
                          kPatch.ErrorDirect("GetProcAddress Fail... with error (%lu)",
                                             "GetProcAddress Fail... with error (127)"),
                          "FreeLibrary vorlupd.dll"));
  EXPECT_EQ(GetModuleHandleW((root + L"\\vorlupd.dll").c_str()), nullptr);
}

class UpdateResult : public ModuleLoading, public ::testing::WithParamInterface<ULONGLONG> {};

TEST_P(UpdateResult, OfALowByteOfZeroIsAFailure) {
  UseRoot(L"complete");
  HeldUpdateModule update(root, journal);
  update->result = GetParam();
  EXPECT_FALSE(DoPendingPatchTasks());
  EXPECT_EQ(update->calls, 1U);
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kPatch.Info("Entry."), kGetRoot, UpdatePath(), kAskForUpdate,
                  "LoadLibraryExW vorlupd.dll", "UpdateBeforeClientService",
                  kPatch.Error("pfn_UpdateBeforeServerService Fail."), "FreeLibrary vorlupd.dll"));
  EXPECT_TRUE(update.ReleaseLast());
}

INSTANTIATE_TEST_SUITE_P(DoPendingPatchTasks, UpdateResult,
                         ::testing::Values(0, 0x100, 0xDEADBEEFCAFEB000));

TEST_F(DoPendingPatchTasksTest, AnyLowByteButZeroIsSuccess) {
  UseRoot(L"complete");
  HeldUpdateModule update(root, journal);
  for (const ULONGLONG result : {ULONGLONG{2}, ULONGLONG{0x80}, ULONGLONG{0xDEADBEEFCAFEB0FF}}) {
    update->result = result;
    EXPECT_TRUE(DoPendingPatchTasks()) << result;
  }
  EXPECT_TRUE(update.ReleaseLast());
}

}  // namespace
