// What cannot be shown on an installation, or not on every machine.
#include "tools/vorldiag/status/filescheck.h"

#include <gmock/gmock.h>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/support/installation.h"
#include "tests/unit/vorldiag/finding_of.h"
#include "tests/unit/vorldiag/program_bytes.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class FreeSpace : public ::testing::Test {
 protected:
  FreeSpace() {
    situation.programFolder = L"C:\\program";
    situation.root.path = L"C:\\program";
    situation.configuration.path = L"D:\\conf";
  }

  // With so many bytes for the configuration, and enough for the rest.
  Finding With(ULONGLONG bytes) {
    const CallPatch<struct SpaceTag, decltype(GetDiskFreeSpaceExW)> patch(
        "KERNEL32.dll", "GetDiskFreeSpaceExW",
        [&](LPCWSTR folder, PULARGE_INTEGER available, PULARGE_INTEGER, PULARGE_INTEGER) -> BOOL {
          available->QuadPart = folder[0] == L'D' ? bytes : kPlenty;
          return TRUE;
        });
    return FindingOf(CheckFolders(situation), "free-space");
  }

  static constexpr ULONGLONG kMegabyte = 1024ULL * 1024;
  static constexpr ULONGLONG kPlenty = 50'000 * kMegabyte;
  Situation situation;
};

TEST_F(FreeSpace, IsThatOfTheFolderWithTheLeast) {
  EXPECT_EQ(With(200 * kMegabyte).verdict, Verdict::kOk);
  EXPECT_EQ(With(200 * kMegabyte).value, "200 MB for D:\\conf");
  EXPECT_EQ(With(kPlenty * 2).value, "50000 MB for C:\\program\\logs");
}

TEST_F(FreeSpace, OfLessThanAnInstallationNeedsIsAWarning) {
  EXPECT_EQ(With(100 * kMegabyte).verdict, Verdict::kOk);
  EXPECT_EQ(With(100 * kMegabyte - 1).verdict, Verdict::kWarning);
  EXPECT_EQ(With(kMegabyte).verdict, Verdict::kWarning);
}

TEST_F(FreeSpace, OfAFullDiskIsAnError) {
  const Finding finding = With(kMegabyte - 1);
  EXPECT_EQ(finding.verdict, Verdict::kError);
  EXPECT_THAT(finding.advice, StartsWith("The disk is full"));
}

TEST_F(FreeSpace, ThatNobodyTellsIsUnknown) {
  const CallPatch<struct NoSpaceTag, decltype(GetDiskFreeSpaceExW)> patch(
      "KERNEL32.dll", "GetDiskFreeSpaceExW",
      [](LPCWSTR, PULARGE_INTEGER, PULARGE_INTEGER, PULARGE_INTEGER) -> BOOL { return FALSE; });
  const Finding finding = FindingOf(CheckFolders(situation), "free-space");
  EXPECT_EQ(finding.verdict, Verdict::kWarning);
  EXPECT_EQ(finding.value, "unknown");
}

TEST(ConfigurationFolderOfTheStatus, SendsToWhatIsWrong) {
  Situation situation;
  situation.root.problem = "it does not exist: C:\\x";
  situation.configuration.problem = situation.root.problem;
  EXPECT_THAT(FindingOf(CheckFolders(situation), "config-folder").advice,
              StartsWith("Mend the installation folder above first"));

  situation.root.problem.clear();
  situation.configuration.problem = "C:\\x\\conf is no folder";
  EXPECT_THAT(FindingOf(CheckFolders(situation), "config-folder").advice,
              AllOf(StartsWith("Remove what is in the place of the folder"),
                    HasSubstr("register another one as ConfigDir")));

  situation.configuration.isRegistered = true;
  EXPECT_THAT(FindingOf(CheckFolders(situation), "config-folder").advice,
              StartsWith("Correct the registry value ConfigDir below HKLM\\SOFTWARE\\"));
}

TEST(UpdateOfTheStatus, IsNotSaidToBeNoneWhereNobodyMayLook) {
  Situation situation;
  situation.root.path = L"C:\\program";
  DWORD error = ERROR_ACCESS_DENIED;
  const CallPatch<struct FindTag, HANDLE WINAPI(LPCWSTR, LPWIN32_FIND_DATAW)> patch(
      "KERNEL32.dll", "FindFirstFileW", [&](LPCWSTR, LPWIN32_FIND_DATAW) {
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
      });
  EXPECT_EQ(FindingOf(CheckFolders(situation), "update").verdict, Verdict::kWarning);
  error = ERROR_PATH_NOT_FOUND;
  EXPECT_EQ(FindingOf(CheckFolders(situation), "update").value, "none waits");
}

// A folder with what a test puts into it as the whole installation.
class InstalledFiles : public ::testing::Test {
 protected:
  InstalledFiles() {
    situation.programFolder = folder.Path().wstring();
    situation.root.path = situation.programFolder;
    situation.configuration.path = situation.programFolder + L"\\conf";
  }

  void Put(const std::string& name, const std::string& bytes) const {
    std::ofstream(folder.File(name), std::ios::binary) << bytes;
  }
  static std::string UpdateModule() {
    const ByteVector bytes = ReadBytes((StagedFolder() / "vorlupd.dll").string());
    return {bytes.begin(), bytes.end()};
  }
  Finding Program(const std::string& id) const { return FindingOf(CheckPrograms(situation), id); }
  Finding Place(const std::string& id) const { return FindingOf(CheckFolders(situation), id); }

  const TempFolder folder;
  Situation situation;
};

TEST_F(InstalledFiles, ThatAreMissingAreAnErrorWhereTheServiceNeedsThem) {
  for (const char* const needed : {"vorlsrvc", "vlevtlog", "vorlmisc", "vorlinfo", "vorlcore"}) {
    EXPECT_EQ(Program(needed).verdict, Verdict::kError) << needed;
    EXPECT_THAT(Program(needed).value, StartsWith("missing in ")) << needed;
  }
  for (const char* const other : {"vorlupd", "vorlhelper", "vorldiag"}) {
    EXPECT_EQ(Program(other).verdict, Verdict::kWarning) << other;
  }
  situation.root.path = (folder.Path() / "none").wstring();
  EXPECT_THAT(Program("vorlcore").value, StartsWith("missing in "));
  situation.root.path.clear();
  EXPECT_EQ(Program("vorlcore").verdict, Verdict::kWarning);
  EXPECT_EQ(Program("vorlcore").value, "not looked for");
  EXPECT_THAT(Program("vorlsrvc").value, StartsWith("missing in "));
}

TEST_F(InstalledFiles, ThatCannotBeReadAreNotCalledMissing) {
  const FileHandle holder(CreateFileA(folder.File("vorlupd.dll").c_str(), GENERIC_WRITE, 0, nullptr,
                                      CREATE_NEW, 0, nullptr));
  EXPECT_EQ(Program("vorlupd").verdict, Verdict::kError);
  EXPECT_THAT(Program("vorlupd").value, StartsWith("cannot be read: error 32"));
}

TEST_F(InstalledFiles, AreKnownAgainWithASignatureToo) {
  Put("vorlupd.dll", UpdateModule());
  EXPECT_EQ(Program("vorlupd").verdict, Verdict::kOk);
  EXPECT_THAT(Program("vorlupd").value, EndsWith(", as shipped"));
  Put("vorlupd.dll", Signed(UpdateModule()));
  EXPECT_EQ(Program("vorlupd").verdict, Verdict::kOk);
  EXPECT_THAT(Program("vorlupd").value, EndsWith(", as shipped but for its signature"));
  Put("vorlupd.dll", UpdateModule() + "x");
  EXPECT_EQ(Program("vorlupd").verdict, Verdict::kWarning);
  EXPECT_THAT(Program("vorlupd").value, EndsWith(", not the one shipped with this tool"));
}

TEST_F(InstalledFiles, OfOthersMustHaveTheEntriesThatTheServiceCalls) {
  Put("vorlcore.dll", UpdateModule());
  EXPECT_EQ(Program("vorlcore").verdict, Verdict::kError);
  EXPECT_THAT(Program("vorlcore").value,
              StartsWith("lacks the entries ClientAgentCoreStartUp, ClientAgentCoreCleanUp: "));
  Put("vlevtlog.dll", OwnProgram());
  EXPECT_EQ(Program("vlevtlog").verdict, Verdict::kError);
  EXPECT_THAT(Program("vlevtlog").value, StartsWith("lacks the entries 2, 3: no version, "));
  // A program has none, but may be anybody's.
  Put("vorlhelper.exe", OwnProgram());
  EXPECT_EQ(Program("vorlhelper").verdict, Verdict::kWarning);
  EXPECT_THAT(Program("vorlhelper").advice, StartsWith("An update or somebody has replaced it"));
  Put("vorlsrvc.exe", OwnProgram());
  EXPECT_EQ(Program("vorlsrvc").verdict, Verdict::kError);
  EXPECT_THAT(Program("vorlsrvc").value, StartsWith("it is another program: no version, "));
  Put("vorlsrvc.exe", UpdateModule());
  EXPECT_THAT(Program("vorlsrvc").value, StartsWith("it is another program (vorlupd.dll): "));
  Put("vorlsrvc.exe", "MZ");
  EXPECT_THAT(Program("vorlsrvc").value, StartsWith("it is no program or library: no version, 2 "));
}

TEST_F(InstalledFiles, OfTheConfigurationAreThereOrMissing) {
  EXPECT_EQ(Place("config-folder").verdict, Verdict::kWarning);
  EXPECT_THAT(Place("config-folder").value, HasSubstr("\\conf does not exist"));
  EXPECT_EQ(Place("config-file").id, "");
  std::filesystem::create_directory(folder.Path() / "conf");
  EXPECT_EQ(Place("config-folder").verdict, Verdict::kOk);
  EXPECT_EQ(Place("config-file").verdict, Verdict::kWarning);
  EXPECT_THAT(Place("config-file").value, EndsWith("\\vorlconf.ini is missing"));
  Put("conf/vorlconf.ini", "");
  EXPECT_EQ(Place("config-file").verdict, Verdict::kOk);
  std::filesystem::remove(folder.Path() / "conf" / "vorlconf.ini");
  std::filesystem::create_directory(folder.Path() / "conf" / "vorlconf.ini");
  EXPECT_EQ(Place("config-file").verdict, Verdict::kError);
  situation.configuration.problem = "registry value ConfigDir cannot be read";
  situation.configuration.path.clear();
  EXPECT_EQ(Place("config-folder").verdict, Verdict::kError);
  EXPECT_EQ(Place("config-file").id, "");
}

TEST_F(InstalledFiles, OfTheTraceAreInAFolder) {
  EXPECT_THAT(Place("logs-folder").value, EndsWith("\\logs does not exist"));
  EXPECT_EQ(Place("logs-folder").verdict, Verdict::kWarning);
  Put("logs", "");
  EXPECT_EQ(Place("logs-folder").verdict, Verdict::kError);
  EXPECT_THAT(Place("logs-folder").value, EndsWith("\\logs is no folder"));
  std::filesystem::remove(folder.Path() / "logs");
  std::filesystem::create_directory(folder.Path() / "logs");
  EXPECT_EQ(Place("logs-folder").verdict, Verdict::kOk);
  const CallPatch<struct AttributesTag, DWORD WINAPI(const wchar_t*)> attributes(
      "KERNEL32.dll", "GetFileAttributesW", [](const wchar_t*) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_FILE_ATTRIBUTES;
      });
  EXPECT_EQ(Place("logs-folder").verdict, Verdict::kWarning);
  EXPECT_THAT(Place("logs-folder").value, EndsWith("\\logs cannot be looked at"));
}

TEST_F(InstalledFiles, OfAnUpdateWaitOrAreHalfInPlace) {
  EXPECT_EQ(Place("update").value, "none waits");
  std::filesystem::create_directory(folder.Path() / "pending");
  EXPECT_EQ(Place("update").value, "none waits");
  Put("pending/x", "");
  EXPECT_THAT(Place("update").value, StartsWith("files wait in "));
  std::filesystem::create_directory(folder.Path() / "update.work");
  EXPECT_THAT(Place("update").value, StartsWith("files wait in "));
  Put("update.work/journal", "");
  EXPECT_THAT(Place("update").value, StartsWith("not complete: "));
  situation.root.path.clear();
  EXPECT_EQ(Place("update").id, "");
}

TEST_F(InstalledFiles, LieWhereTheRegisteredCommandOrThisToolIs) {
  EXPECT_THAT(Place("program-folder").value, EndsWith(" (of this tool)"));
  situation.registration = Registration{};
  EXPECT_THAT(Place("program-folder").value, EndsWith(" (registered command)"));
  EXPECT_EQ(Place("root-folder").verdict, Verdict::kOk);
  situation.root.problem = "it does not exist: X";
  situation.root.origin = "registry value RootDir";
  EXPECT_EQ(Place("root-folder").verdict, Verdict::kError);
  EXPECT_EQ(Place("root-folder").value, "it does not exist: X (registry value RootDir)");
}

}  // namespace
