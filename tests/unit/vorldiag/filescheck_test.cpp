// What cannot be shown on an installation, or not on every machine.
#include "tools/vorldiag/status/filescheck.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

Finding Find(const Section& section, const std::string& id) {
  const auto found = std::find_if(section.findings.begin(), section.findings.end(),
                                  [&](const Finding& one) { return one.id == id; });
  return found == section.findings.end() ? Finding{} : *found;
}

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
    return Find(CheckFolders(situation), "free-space");
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
  const Finding finding = Find(CheckFolders(situation), "free-space");
  EXPECT_EQ(finding.verdict, Verdict::kWarning);
  EXPECT_EQ(finding.value, "unknown");
}

TEST(ConfigurationFolderOfTheStatus, SendsToWhatIsWrong) {
  Situation situation;
  situation.root.problem = "it does not exist: C:\\x";
  situation.configuration.problem = situation.root.problem;
  EXPECT_THAT(Find(CheckFolders(situation), "config-folder").advice,
              StartsWith("Mend the installation folder above first"));

  situation.root.problem.clear();
  situation.configuration.problem = "C:\\x\\conf is no folder";
  EXPECT_THAT(Find(CheckFolders(situation), "config-folder").advice,
              AllOf(StartsWith("Remove what is in the place of the folder"),
                    HasSubstr("register another one as ConfigDir")));

  situation.configuration.isRegistered = true;
  EXPECT_THAT(Find(CheckFolders(situation), "config-folder").advice,
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
  EXPECT_EQ(Find(CheckFolders(situation), "update").verdict, Verdict::kWarning);
  error = ERROR_PATH_NOT_FOUND;
  EXPECT_EQ(Find(CheckFolders(situation), "update").value, "none waits");
}

}  // namespace
