#include "tools/vorldiag/status/servicecheck.h"

#include "tools/vorldiag/machine/kernelobjects.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

constexpr DWORD kExpectedType = SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS;
constexpr DWORD kExpectedResetSeconds = 3600;
// The package lets the service start after it; the program's own -install does not.
constexpr wchar_t kManagementService[] = L"Winmgmt";
constexpr wchar_t kEventSourceKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

constexpr char kRegisterAnew[] =
    "Register it anew, from an elevated prompt in the right folder: vorlsrvc -uninstall, then "
    "vorlsrvc -install.";

// Somebody has removed the service while somebody else had it open.
bool IsMarkedForDeletion(const std::string& name) {
  const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\" + Wide(name);
  DWORD isDeleted = 0;
  DWORD size = sizeof(isDeleted);
  return RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"DeleteFlag", RRF_RT_REG_DWORD, nullptr,
                      &isDeleted, &size) == ERROR_SUCCESS &&
         isDeleted != 0;
}

std::string Hex(DWORD value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%lX", value);
  return text;
}

const char* StartWord(DWORD startType) {
  switch (startType) {
    case SERVICE_AUTO_START:
      return "automatic";
    case SERVICE_DEMAND_START:
      return "manual";
    case SERVICE_DISABLED:
      return "disabled";
    default:
      return "for drivers";
  }
}

const char* StateWord(DWORD state) {
  switch (state) {
    case SERVICE_STOPPED:
      return "STOPPED";
    case SERVICE_START_PENDING:
      return "START_PENDING";
    case SERVICE_STOP_PENDING:
      return "STOP_PENDING";
    case SERVICE_RUNNING:
      return "RUNNING";
    case SERVICE_PAUSED:
      return "PAUSED";
    default:
      return "OTHER";
  }
}

const char* ActionWord(int action) {
  switch (action) {
    case SC_ACTION_NONE:
      return "nothing";
    case SC_ACTION_RESTART:
      return "restart the service";
    case SC_ACTION_REBOOT:
      return "restart Windows";
    case SC_ACTION_RUN_COMMAND:
      return "run the command";
    default:
      return "other";
  }
}

void CheckCommand(const Situation& situation, Section& section) {
  const std::wstring& command = situation.registration->command;
  const std::wstring program = ProgramOf(command);
  const bool isQuoted = !command.empty() && command[0] == L'"';
  const std::wstring expected = situation.ownFolder + L"\\vorlsrvc.exe";
  const std::string value = Utf8(command);
  if (!Exists(program)) {
    section.Fail("command", "Command", value + " is not there", kRegisterAnew);
  } else if (!isQuoted && program.find(L' ') != std::wstring::npos) {
    section.Fail(
        "command", "Command", value + " has blanks and no quotes",
        std::string("Windows may run another program with this beginning as LocalSystem. ") +
            kRegisterAnew);
  } else if (!EqualsIgnoringCase(program, expected)) {
    section.Warn(
        "command", "Command", value + " is not beside this tool",
        "Diagnose with the vorldiag.exe of the registered folder. When this folder is the right "
        "one: vorlsrvc -uninstall, then vorlsrvc -install, in it and from an elevated "
        "prompt.");
  } else if (command.size() != program.size() + (isQuoted ? 2U : 0U)) {
    section.Warn("command", "Command", value + " has arguments",
                 std::string("The service takes none. ") + kRegisterAnew);
  } else {
    section.Ok("command", "Command", value);
  }
}

void CheckRegistration(const Situation& situation, Section& section) {
  const Registration& registration = *situation.registration;
  const std::string account = Utf8(registration.account);
  if (EqualsIgnoringCase(registration.account, L"LocalSystem")) {
    section.Ok("account", "Account", account);
  } else {
    section.Fail("account", "Account", account.empty() ? "(none)" : account,
                 "Set it back to LocalSystem: the agent lacks rights under another account.");
  }
  if (registration.type == kExpectedType) {
    section.Ok("type", "Type", Hex(registration.type));
  } else {
    section.Warn("type", "Type", Hex(registration.type) + ", not " + Hex(kExpectedType),
                 kRegisterAnew);
  }
  const std::string start = StartWord(registration.startType);
  if (registration.startType == SERVICE_AUTO_START) {
    section.Ok("start-type", "Start", start);
  } else {
    const std::string advice =
        "Set it back: sc config \"" + situation.names.service + "\" start= auto";
    if (registration.startType == SERVICE_DISABLED) {
      section.Fail("start-type", "Start", start, advice);
    } else {
      section.Warn("start-type", "Start", start, advice);
    }
  }
  std::string dependencies;
  bool isExpected = true;
  for (const std::wstring& name : registration.dependencies) {
    dependencies += (dependencies.empty() ? "" : ", ") + Utf8(name);
    isExpected = isExpected && EqualsIgnoringCase(name, kManagementService);
  }
  if (isExpected) {
    section.Ok("dependencies", "Dependencies", dependencies.empty() ? "none" : dependencies);
  } else {
    section.Warn(
        "dependencies", "Dependencies", dependencies,
        "It waits for these at the start of Windows; an installation waits for Winmgmt at most: "
        "sc config \"" +
            situation.names.service + "\" depend= Winmgmt");
  }
}

void CheckRecovery(const Situation& situation, Section& section) {
  Recovery recovery;
  const DWORD error = situation.service.Read(recovery);
  if (error != ERROR_SUCCESS) {
    section.Warn("recovery", "Recovery", "cannot be read: " + ErrorText(error),
                 "Run vorldiag from an elevated prompt, or look into the Services console: after a "
                 "crash somebody must start the service again.");
    return;
  }
  if (recovery.actions.empty()) {
    section.Warn("recovery", "Recovery", "none stored",
                 "After a crash nobody starts the service again. " + std::string(kRegisterAnew));
    return;
  }
  std::string value;
  for (const int action : recovery.actions) {
    value += (value.empty() ? "" : ", ") + std::string(ActionWord(action));
  }
  value += "; failures reset after " + std::to_string(recovery.resetSeconds) + " s";
  const auto& actions = recovery.actions;
  const bool isExpected = actions.size() == 3 && actions[0] == SC_ACTION_RUN_COMMAND &&
                          actions[1] == SC_ACTION_RUN_COMMAND && actions[2] == SC_ACTION_NONE &&
                          recovery.resetSeconds == kExpectedResetSeconds;
  if (isExpected) {
    section.Ok("recovery", "Recovery", value);
  } else {
    section.Warn("recovery", "Recovery", value,
                 "An installation runs the command twice within an hour, then nothing. " +
                     std::string(kRegisterAnew));
  }
  const std::string command = Utf8(recovery.command);
  if (recovery.command == situation.registration->command + L" -reset") {
    section.Ok("recovery-command", "Recovery command", command);
  } else {
    section.Fail("recovery-command", "Recovery command", command.empty() ? "(none)" : command,
                 "Windows runs this as LocalSystem when the service crashes, and it is not the "
                 "service's own. " +
                     std::string(kRegisterAnew));
  }
}

void CheckEventSource(const Situation& situation, Section& section) {
  wchar_t file[1024] = {};
  DWORD size = sizeof(file);
  const std::wstring key = kEventSourceKey + Wide(situation.names.service);
  const LSTATUS result =
      RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile",
                   RRF_RT_REG_EXPAND_SZ | RRF_RT_REG_SZ | RRF_NOEXPAND, nullptr, file, &size);
  if (result != ERROR_SUCCESS && result != ERROR_FILE_NOT_FOUND) {
    section.Warn("event-source", "Event source",
                 "cannot be read: " + ErrorText(static_cast<DWORD>(result)),
                 "Run vorldiag from an elevated prompt.");
  } else if (result != ERROR_SUCCESS) {
    section.Warn("event-source", "Event source", "not registered",
                 "Events of this source show without their text. " + std::string(kRegisterAnew));
  } else if (!EqualsIgnoringCase(ProgramOf(file), ProgramOf(situation.registration->command))) {
    section.Warn("event-source", "Event source", Utf8(file) + " is not the registered program",
                 kRegisterAnew);
  } else {
    section.Ok("event-source", "Event source", Utf8(file));
  }
}

std::string UptimeText(DWORD processId) {
  const KernelHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  FILETIME created{};
  FILETIME now{};
  FILETIME ignored{};
  if (!process || !GetProcessTimes(process.Get(), &created, &ignored, &ignored, &ignored)) {
    return "up since an unknown time";
  }
  GetSystemTimeAsFileTime(&now);
  const auto number = [](const FILETIME& time) {
    return (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  };
  constexpr unsigned long long perSecond = 10'000'000;
  const unsigned long long seconds =
      number(now) > number(created) ? (number(now) - number(created)) / perSecond : 0;
  char text[64];
  std::snprintf(text, sizeof(text), "up for %llu d %02llu:%02llu:%02llu", seconds / 86400,
                seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
  return text;
}

void CheckState(const Situation& situation, Section& section) {
  if (!situation.state) {
    section.Fail("state", "State", "cannot be read", "Run vorldiag from an elevated prompt.");
    return;
  }
  const SERVICE_STATUS_PROCESS& state = *situation.state;
  const std::string word = StateWord(state.dwCurrentState);
  switch (state.dwCurrentState) {
    case SERVICE_RUNNING:
      section.Ok("state", "State", word);
      break;
    case SERVICE_STOPPED:
      if (state.dwWin32ExitCode == NO_ERROR ||
          state.dwWin32ExitCode == ERROR_SERVICE_NEVER_STARTED) {
        section.Warn(
            "state", "State",
            word + (state.dwWin32ExitCode == NO_ERROR ? ", ended in an orderly way"
                                                      : ", not started since it was registered"),
            "Start it: vorlsrvc -start. When it stops again, the lines below say why.");
      } else {
        section.Fail("state", "State", word + ", " + ErrorText(state.dwWin32ExitCode),
                     "It failed to start or crashed: mend the errors below, then vorlsrvc -start.");
      }
      break;
    default:
      section.Warn("state", "State", word,
                   "Wait a moment and look again; when it stays so, the last start or stop below "
                   "shows the step that hangs.");
  }
  if (state.dwProcessId != 0) {
    section.Ok("process", "Process",
               ProcessText(state.dwProcessId) + ", " + UptimeText(state.dwProcessId));
  }
}

}  // namespace

Section CheckService(const Situation& situation) {
  Section section{"service", "Service", {}};
  const std::string& name = situation.names.service;
  if (!situation.names.problem.empty()) {
    section.Warn("names", "Names", "assumed, " + situation.names.problem,
                 "Install vorlinfo.dll again, or mend its rights; the names below are those of "
                 "this version.");
  }
  if (situation.openError == ERROR_SERVICE_DOES_NOT_EXIST) {
    section.Fail("registration", "Registration", name + " is not registered",
                 "From an elevated prompt in the installation folder: vorlsrvc -install");
    return section;
  }
  if (situation.openError != ERROR_SUCCESS || !situation.registration) {
    section.Fail("registration", "Registration",
                 name + " cannot be read: " +
                     ErrorText(situation.openError != ERROR_SUCCESS ? situation.openError
                                                                    : situation.readError),
                 "Run vorldiag from an elevated prompt.");
    return section;
  }
  if (IsMarkedForDeletion(name)) {
    section.Fail(
        "registration", "Registration", name + " is marked for deletion",
        "It goes when every program has let it go: close the Services console, Task Manager "
        "and the like, or restart Windows. Then from an elevated prompt in the installation "
        "folder: vorlsrvc -install");
  } else {
    section.Ok("registration", "Registration", name);
  }
  CheckCommand(situation, section);
  CheckRegistration(situation, section);
  CheckRecovery(situation, section);
  CheckEventSource(situation, section);
  CheckState(situation, section);
  return section;
}
