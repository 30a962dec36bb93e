// What the service manager of Wine does not keep, so that it cannot be shown on an installation.
#include "tools/vorldiag/status/servicecheck.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>

#include "tests/support/import_patch.h"

using ::testing::HasSubstr;

namespace {

// An empty one when there is none.
Finding FindingOf(const Situation& situation, const std::string& id) {
  const Section section = CheckService(situation);
  const auto found = std::find_if(section.findings.begin(), section.findings.end(),
                                  [&](const Finding& one) { return one.id == id; });
  return found == section.findings.end() ? Finding{} : *found;
}

class Dependencies : public ::testing::Test {
 protected:
  Finding Check(std::vector<std::wstring> dependencies) {
    situation.registration = Registration{};
    situation.registration->dependencies = std::move(dependencies);
    return FindingOf(situation, "dependencies");
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

// A service manager that has kept failure actions, or fails with `error`.
class RecoveryActions : public ::testing::Test {
 protected:
  RecoveryActions() {
    situation.registration = Registration{};
    situation.registration->command = L"C:\\Agent\\vorlsrvc.exe";
  }

  BOOL Answer(BYTE* buffer, DWORD size, DWORD* needed) {
    *needed = sizeof(SERVICE_FAILURE_ACTIONSW);
    if (error != ERROR_SUCCESS || size < *needed) {
      *needed = error == ERROR_SUCCESS ? *needed : 0;
      SetLastError(error == ERROR_SUCCESS ? DWORD{ERROR_INSUFFICIENT_BUFFER} : error);
      return FALSE;
    }
    const SERVICE_FAILURE_ACTIONSW stored{resetSeconds, nullptr, command.data(),
                                          static_cast<DWORD>(actions.size()), actions.data()};
    std::memcpy(buffer, &stored, sizeof(stored));
    return TRUE;
  }

  Situation situation;
  std::vector<SC_ACTION> actions{
      {SC_ACTION_RUN_COMMAND, 0}, {SC_ACTION_RUN_COMMAND, 0}, {SC_ACTION_NONE, 0}};
  std::wstring command = L"C:\\Agent\\vorlsrvc.exe -reset";
  DWORD resetSeconds = 3600;
  DWORD error = ERROR_SUCCESS;
  CallPatch<struct QueryConfig2, BOOL WINAPI(SC_HANDLE, DWORD, BYTE*, DWORD, DWORD*)> query{
      "ADVAPI32.dll", "QueryServiceConfig2W",
      [this](SC_HANDLE, DWORD level, BYTE* buffer, DWORD size, DWORD* needed) {
        EXPECT_EQ(level, DWORD{SERVICE_CONFIG_FAILURE_ACTIONS});
        return Answer(buffer, size, needed);
      }};
};

TEST_F(RecoveryActions, OfAnInstallationAreRight) {
  const Finding finding = FindingOf(situation, "recovery");
  EXPECT_EQ(finding.verdict, Verdict::kOk);
  EXPECT_EQ(finding.value,
            "run the command, run the command, nothing; failures reset after 3600 s");
  EXPECT_EQ(FindingOf(situation, "recovery-command").verdict, Verdict::kOk);
}

TEST_F(RecoveryActions, ThatAreOthersAreNamed) {
  const std::vector<SC_ACTION> right = actions;
  const std::vector<std::vector<SC_ACTION>> others = {
      {right[0], right[1]},
      {right[0], right[1], right[2], right[2]},
      {{SC_ACTION_RESTART, 0}, right[1], right[2]},
      {right[0], {SC_ACTION_RESTART, 0}, right[2]},
      {right[0], right[1], {SC_ACTION_RUN_COMMAND, 0}}};
  for (const std::vector<SC_ACTION>& other : others) {
    actions = other;
    const Finding finding = FindingOf(situation, "recovery");
    EXPECT_EQ(finding.verdict, Verdict::kWarning) << finding.value;
    EXPECT_THAT(finding.advice, HasSubstr("vorlsrvc -uninstall"));
  }
  actions = right;
  resetSeconds = 3601;
  EXPECT_EQ(FindingOf(situation, "recovery").verdict, Verdict::kWarning);
}

TEST_F(RecoveryActions, ThatRunAnotherCommandAreAnError) {
  for (const wchar_t* const other :
       {L"", L"C:\\Agent\\vorlsrvc.exe", L"C:\\Agent\\other.exe -reset"}) {
    command = other;
    EXPECT_EQ(FindingOf(situation, "recovery-command").verdict, Verdict::kError);
  }
}

TEST_F(RecoveryActions, ThatAreMissingAreAWarning) {
  actions.clear();
  const Finding finding = FindingOf(situation, "recovery");
  EXPECT_EQ(finding.verdict, Verdict::kWarning);
  EXPECT_EQ(finding.value, "none stored");
  EXPECT_EQ(FindingOf(situation, "recovery-command").id, "");
}

TEST_F(RecoveryActions, ThatCannotBeReadAreNotTakenForMissing) {
  error = ERROR_ACCESS_DENIED;
  const Finding finding = FindingOf(situation, "recovery");
  EXPECT_EQ(finding.verdict, Verdict::kWarning);
  EXPECT_THAT(finding.value, HasSubstr("cannot be read: error 5"));
}

}  // namespace
