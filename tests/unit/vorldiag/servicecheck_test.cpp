// What the service manager of Wine does not keep, and what an installation cannot be brought into.
#include "tools/vorldiag/status/servicecheck.h"

#include <gmock/gmock.h>

#include <cstring>
#include <map>
#include <utility>

#include "tests/support/empty_machine_key.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorldiag/finding_of.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// An empty one when there is none.
Finding FindingOf(const Situation& situation, const std::string& id) {
  return FindingOf(CheckService(situation), id);
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

TEST_F(RecoveryActions, AreNamedInWords) {
  actions = {
      {SC_ACTION_RESTART, 0}, {SC_ACTION_REBOOT, 0}, {SC_ACTION_NONE, 0}, {SC_ACTION_NONE, 0}};
  const int ownRestart = 4;  // of newer Windows
  std::memcpy(&actions[3].Type, &ownRestart, sizeof(ownRestart));
  EXPECT_EQ(FindingOf(situation, "recovery").value,
            "restart the service, restart Windows, nothing, other; failures reset after 3600 s");
}

TEST_F(RecoveryActions, WithoutACommandAreAnError) {
  const CallPatch<struct NoCommand, BOOL WINAPI(SC_HANDLE, DWORD, BYTE*, DWORD, DWORD*)> none(
      "ADVAPI32.dll", "QueryServiceConfig2W",
      [this](SC_HANDLE, DWORD, BYTE* buffer, DWORD size, DWORD* needed) {
        const BOOL isGiven = Answer(buffer, size, needed);
        if (isGiven) {
          reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer)->lpCommand = nullptr;
        }
        return isGiven;
      });
  EXPECT_EQ(FindingOf(situation, "recovery-command").value, "(none)");
}

// Somebody has removed them between the question for their size and that for themselves.
TEST_F(RecoveryActions, ThatGoWhileTheyAreReadAreNotTakenForMissing) {
  const CallPatch<struct Gone, BOOL WINAPI(SC_HANDLE, DWORD, BYTE*, DWORD, DWORD*)> gone(
      "ADVAPI32.dll", "QueryServiceConfig2W",
      [this](SC_HANDLE, DWORD, BYTE* buffer, DWORD size, DWORD* needed) {
        if (size != 0) {
          SetLastError(ERROR_SERVICE_MARKED_FOR_DELETE);
          return FALSE;
        }
        return Answer(buffer, size, needed);
      });
  EXPECT_THAT(FindingOf(situation, "recovery").value, HasSubstr("cannot be read: error 1072"));
}

// A registered program beside the tool.
class RegisteredService : public ::testing::Test {
 protected:
  RegisteredService() {
    WriteBytes(folder.File("vorlsrvc.exe"), {});
    situation.ownFolder = folder.Path().wstring();
    situation.names.service = "Client Agent 1";
    situation.registration = Registration{};
    situation.registration->command = program;
    situation.registration->account = L"LocalSystem";
  }

  Finding Look(const std::string& id) const { return FindingOf(situation, id); }
  Finding Command(const std::wstring& command) {
    situation.registration->command = command;
    return Look("command");
  }
  Finding State(DWORD state, DWORD exitCode = NO_ERROR) {
    situation.state = SERVICE_STATUS_PROCESS{};
    situation.state->dwCurrentState = state;
    situation.state->dwWin32ExitCode = exitCode;
    return Look("state");
  }

  const TempFolder folder;
  const std::wstring program = (folder.Path() / "vorlsrvc.exe").wstring();
  Situation situation;
};

TEST_F(RegisteredService, HasTheProgramBesideTheToolAsItsCommand) {
  EXPECT_EQ(Command(program).verdict, Verdict::kOk);
  EXPECT_EQ(Command(L'"' + program + L'"').verdict, Verdict::kOk);
  for (const std::wstring& command : {program + L" -x", L'"' + program + L"\" -x"}) {
    EXPECT_EQ(Command(command).verdict, Verdict::kWarning);
  }
  EXPECT_THAT(Command(L'"' + program + L"\" -x").value, EndsWith(" has arguments"));
  EXPECT_THAT(Command(L"C:\\nowhere\\vorlsrvc.exe").value, EndsWith(" is not there"));
  situation.ownFolder = L"C:\\other";
  EXPECT_EQ(Command(program).verdict, Verdict::kWarning);
  EXPECT_THAT(Command(program).value, EndsWith(" is not beside this tool"));
}

// Windows takes the first program that it finds from left to right.
TEST_F(RegisteredService, WithBlanksAndNoQuotesIsAnError) {
  const std::filesystem::path place = folder.Path() / "a b";
  std::filesystem::create_directory(place);
  WriteBytes((place / "vorlsrvc.exe").string(), {});
  situation.ownFolder = place.wstring();
  const std::wstring inIt = (place / "vorlsrvc.exe").wstring();
  EXPECT_EQ(Command(inIt).verdict, Verdict::kError);
  EXPECT_THAT(Command(inIt).value, EndsWith(" has blanks and no quotes"));
  EXPECT_EQ(Command(L'"' + inIt + L'"').verdict, Verdict::kOk);
  EXPECT_EQ(Command(L"").verdict, Verdict::kError);
}

TEST_F(RegisteredService, RunsAsTheSystem) {
  situation.registration->account = L"localsystem";
  EXPECT_EQ(Look("account").verdict, Verdict::kOk);
  situation.registration->account = L"NT AUTHORITY\\LocalService";
  EXPECT_EQ(Look("account").verdict, Verdict::kError);
  EXPECT_EQ(Look("account").value, "NT AUTHORITY\\LocalService");
  situation.registration->account = L"";
  EXPECT_EQ(Look("account").value, "(none)");
}

TEST_F(RegisteredService, HasItsTypeAndStart) {
  situation.registration->type = SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS;
  EXPECT_EQ(Look("type").verdict, Verdict::kOk);
  situation.registration->type = SERVICE_WIN32_SHARE_PROCESS;
  EXPECT_EQ(Look("type").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("type").value, "0x20, not 0x110");
  const std::map<DWORD, std::pair<const char*, Verdict>> starts = {
      {SERVICE_AUTO_START, {"automatic", Verdict::kOk}},
      {SERVICE_DEMAND_START, {"manual", Verdict::kWarning}},
      {SERVICE_DISABLED, {"disabled", Verdict::kError}},
      {SERVICE_BOOT_START, {"for drivers", Verdict::kWarning}}};
  for (const auto& [start, expected] : starts) {
    situation.registration->startType = start;
    EXPECT_EQ(Look("start-type").value, expected.first);
    EXPECT_EQ(Look("start-type").verdict, expected.second);
  }
}

TEST_F(RegisteredService, InAnyStateSaysWhichAndWhatToDo) {
  EXPECT_EQ(Look("state").value, "cannot be read");
  EXPECT_EQ(State(SERVICE_RUNNING).verdict, Verdict::kOk);
  EXPECT_EQ(State(SERVICE_STOPPED).value, "STOPPED, ended in an orderly way");
  EXPECT_EQ(State(SERVICE_STOPPED).verdict, Verdict::kWarning);
  EXPECT_EQ(State(SERVICE_STOPPED, ERROR_SERVICE_NEVER_STARTED).value,
            "STOPPED, not started since it was registered");
  EXPECT_EQ(State(SERVICE_STOPPED, ERROR_PROCESS_ABORTED).verdict, Verdict::kError);
  EXPECT_THAT(State(SERVICE_STOPPED, ERROR_PROCESS_ABORTED).value,
              StartsWith("STOPPED, error 1067"));
  const std::map<DWORD, std::string> passing = {{SERVICE_START_PENDING, "START_PENDING"},
                                                {SERVICE_STOP_PENDING, "STOP_PENDING"},
                                                {SERVICE_PAUSED, "PAUSED"},
                                                {SERVICE_CONTINUE_PENDING, "OTHER"}};
  for (const auto& [state, word] : passing) {
    EXPECT_EQ(State(state).value, word);
    EXPECT_EQ(State(state).verdict, Verdict::kWarning);
  }
}

TEST_F(RegisteredService, SaysHowLongItsProcessHasRun) {
  State(SERVICE_RUNNING);
  EXPECT_EQ(Look("process").id, "");
  situation.state->dwProcessId = GetCurrentProcessId();
  // In units of 100 ns.
  constexpr std::uint64_t second = 10'000'000;
  constexpr std::uint64_t begin = std::uint64_t{0x1D00000} << 32;
  std::uint64_t now = begin + ((1 * 24 + 2) * 3600 + 3 * 60 + 4) * second;
  bool isKnown = true;
  const auto toFileTime = [](std::uint64_t time) {
    return FILETIME{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
  };
  const CallPatch<struct TimesTag, BOOL WINAPI(HANDLE, FILETIME*, FILETIME*, FILETIME*, FILETIME*)>
      times("KERNEL32.dll", "GetProcessTimes",
            [&](HANDLE, FILETIME* created, FILETIME*, FILETIME*, FILETIME*) {
              *created = toFileTime(begin);
              return isKnown;
            });
  const CallPatch<struct NowTag, void WINAPI(FILETIME*)> clock(
      "KERNEL32.dll", "GetSystemTimeAsFileTime", [&](FILETIME* time) { *time = toFileTime(now); });
  EXPECT_THAT(Look("process").value, EndsWith(", up for 1 d 02:03:04"));
  // Somebody has put the clock back.
  now = begin - second;
  EXPECT_THAT(Look("process").value, EndsWith(", up for 0 d 00:00:00"));
  isKnown = false;
  EXPECT_THAT(Look("process").value, EndsWith(", up since an unknown time"));
  situation.state->dwProcessId = 0xFFFF0001;
  EXPECT_EQ(Look("process").value, "process 4294901761, up since an unknown time");
}

TEST_F(RegisteredService, HasItsProgramAsTheSourceOfItsEvents) {
  const EmptyMachineKey registry;
  EXPECT_EQ(Look("event-source").value, "not registered");
  RegistryKey key;
  RegCreateKeyExW(HKEY_LOCAL_MACHINE,
                  L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Client Agent 1", 0,
                  nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, key.Receive(), nullptr);
  const auto set = [&](const std::wstring& file) {
    RegSetValueExW(key.Get(), L"EventMessageFile", 0, REG_EXPAND_SZ,
                   reinterpret_cast<const BYTE*>(file.c_str()),
                   static_cast<DWORD>((file.size() + 1) * sizeof(wchar_t)));
    return Look("event-source");
  };
  EXPECT_EQ(set(program).verdict, Verdict::kOk);
  EXPECT_EQ(set(L"C:\\other\\vorlsrvc.exe").verdict, Verdict::kWarning);
  EXPECT_EQ(set(L"C:\\other\\vorlsrvc.exe").value,
            "C:\\other\\vorlsrvc.exe is not the registered program");
  // Longer than any path: it cannot be read, which is not that there is none.
  EXPECT_THAT(set(std::wstring(2000, L'x')).value, StartsWith("cannot be read: error 234"));
}

TEST_F(RegisteredService, ThatCannotBeReadIsNotCalledMissing) {
  situation.openError = ERROR_SERVICE_DOES_NOT_EXIST;
  EXPECT_EQ(Look("registration").value, "Client Agent 1 is not registered");
  situation.openError = ERROR_ACCESS_DENIED;
  EXPECT_THAT(Look("registration").value, StartsWith("Client Agent 1 cannot be read: error 5"));
  situation.openError = ERROR_SUCCESS;
  situation.registration.reset();
  situation.readError = ERROR_INVALID_HANDLE;
  EXPECT_THAT(Look("registration").value, StartsWith("Client Agent 1 cannot be read: error 6"));
  EXPECT_EQ(Look("state").id, "");
}

TEST_F(RegisteredService, UnderAnAssumedNameSaysWhy) {
  EXPECT_EQ(Look("names").id, "");
  situation.names.problem = "vorlinfo.dll is missing";
  EXPECT_EQ(Look("names").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("names").value, "assumed, vorlinfo.dll is missing");
}

TEST_F(RegisteredService, IsMarkedForDeletionByItsFlag) {
  const EmptyMachineKey registry;
  RegistryKey key;
  RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\Client Agent 1", 0,
                  nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, key.Receive(), nullptr);
  for (const DWORD flag : {0UL, 1UL}) {
    RegSetValueExW(key.Get(), L"DeleteFlag", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&flag),
                   sizeof(flag));
    EXPECT_EQ(Look("registration").verdict, flag == 0 ? Verdict::kOk : Verdict::kError);
  }
}

}  // namespace
