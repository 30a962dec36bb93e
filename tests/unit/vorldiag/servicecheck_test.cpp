// What the service manager of Wine does not keep, so that it cannot be shown on an installation.
#include "tools/vorldiag/status/servicecheck.h"

#include <gmock/gmock.h>

#include <algorithm>

using ::testing::HasSubstr;

namespace {

class Dependencies : public ::testing::Test {
 protected:
  Finding Check(std::vector<std::wstring> dependencies) {
    situation.registration = Registration{};
    situation.registration->dependencies = std::move(dependencies);
    const Section section = CheckService(situation);
    const auto found = std::find_if(section.findings.begin(), section.findings.end(),
                                    [](const Finding& one) { return one.id == "dependencies"; });
    return found == section.findings.end() ? Finding{} : *found;
  }

  Situation situation;
};

TEST_F(Dependencies, OnNothingOrOnWindowsManagementAreThoseOfAnInstallation) {
  EXPECT_EQ(Check({}).verdict, Verdict::kOk);
  EXPECT_EQ(Check({}).value, "none");
  EXPECT_EQ(Check({L"WinMgmt"}).verdict, Verdict::kOk);
  EXPECT_EQ(Check({L"WinMgmt"}).value, "WinMgmt");
}

TEST_F(Dependencies, OnOthersAreNamed) {
  const Finding finding = Check({L"Winmgmt", L"Spooler"});
  EXPECT_EQ(finding.verdict, Verdict::kWarning);
  EXPECT_EQ(finding.value, "Winmgmt, Spooler");
  EXPECT_THAT(finding.advice, HasSubstr("depend= Winmgmt"));
}

}  // namespace
