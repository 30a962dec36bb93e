#include "tools/vorldiag/report/snapshot.h"

#include <gmock/gmock.h>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorldiag/finding_of.h"

using ::testing::MatchesRegex;

namespace {

class SnapshotTest : public ::testing::Test {
 protected:
  SnapshotTest() {
    situation.openError = ERROR_SERVICE_DOES_NOT_EXIST;
    situation.programFolder = folder.Path().wstring();
  }

  static Finding Stored(const Snapshot& snapshot) {
    return FindingOf(snapshot.identity.sections.back(), "stored");
  }

  const TempFolder folder;
  Situation situation;
};

TEST_F(SnapshotTest, HasTheConfigurationsIdentifierAndSettings) {
  situation.configuration.path = situation.programFolder;
  std::ofstream(folder.File("vorlconf.ini"))
      << "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\nclientuniqueid=F6DDB1CAA36D124F6BF28F7F9EFB4B22\n"
         "[TRACE]\nFiles=7\n";
  LetRest(folder.File("vorlconf.ini"));
  const Snapshot snapshot = TakeSnapshot(situation, {});
  EXPECT_EQ(Stored(snapshot).value, "F6DDB1CAA36D124F6BF28F7F9EFB4B22, not compared");
  EXPECT_EQ(snapshot.settings.problem, "");
  for (const Setting& setting : snapshot.settings.settings) {
    EXPECT_EQ(setting.value, setting.key == "Files" ? "7" : "") << setting.key;
  }
  EXPECT_THAT(snapshot.moment, MatchesRegex("....-..-.. ..:..:.."));
  EXPECT_EQ(snapshot.status.command, "status");
}

TEST_F(SnapshotTest, WithoutAConfigurationFolderSaysWhy) {
  situation.configuration.problem = "registry value ConfigDir cannot be read";
  const Snapshot snapshot = TakeSnapshot(situation, {});
  EXPECT_EQ(Stored(snapshot).value, "(unknown) registry value ConfigDir cannot be read");
  EXPECT_EQ(snapshot.settings.problem, "registry value ConfigDir cannot be read");
  EXPECT_EQ(FindingOf(snapshot.status.sections[5], "stored").value, "not looked for");
}

TEST_F(SnapshotTest, OfAComputerWithoutANameHasNone) {
  const CallPatch<struct NameTag, BOOL WINAPI(COMPUTER_NAME_FORMAT, wchar_t*, DWORD*)> name(
      "KERNEL32.dll", "GetComputerNameExW",
      [](COMPUTER_NAME_FORMAT, wchar_t*, DWORD*) { return FALSE; });
  EXPECT_EQ(TakeSnapshot(situation, {}).computer, "");
}

}  // namespace
