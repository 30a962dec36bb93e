#include "tools/vorldiag/status/objectscheck.h"

#include "tools/vorldiag/machine/kernelobjects.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

constexpr wchar_t kHelperPipe[] = L"\\\\.\\pipe\\briskuphelperpipe";

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) {
    joined += (joined.empty() ? "" : ", ") + text;
  }
  return joined;
}

std::string HoldersText(const ObjectFacts& facts) {
  std::string text = facts.owner.empty() ? "" : ", owner " + facts.owner;
  return facts.holders.empty() ? text : text + ", held by " + Joined(facts.holders);
}

std::string EndThem(const EventFacts& event) {
  const std::string names = Joined(event.holders);
  return names.empty() ? "Find out with a handle viewer who holds it, and end that program."
                       : "End the program that holds it: " + names + ".";
}

void CheckEvent(const char* id, const char* title, const std::string& name,
                const Situation& situation, Section& section) {
  const EventFacts event = LookAtEvent(name);
  if (event.error == ERROR_FILE_NOT_FOUND) {
    if (situation.state && situation.state->dwCurrentState == SERVICE_RUNNING) {
      section.Warn(id, title, name + " is not there although the service runs",
                   "It is just starting or stopping, or its closure watcher failed: look at the "
                   "last start below.");
    } else {
      section.Ok(id, title, name + " is not there, as it should be while the service is stopped");
    }
    return;
  }
  if (event.error == ERROR_INVALID_HANDLE) {
    section.Fail(id, title, name + " is something else than an event",
                 "The service stops at once after each start: find the program that has made an "
                 "object of this name, and end it.");
    return;
  }
  if (event.error != ERROR_SUCCESS) {
    section.Warn(id, title, name + " cannot be opened: " + ErrorText(event.error),
                 "Run vorldiag from an elevated prompt; when that is of no use, another program "
                 "has made it for itself and the service cannot work.");
    return;
  }
  const std::string value = name +
                            (!event.isStateKnown ? ", state unknown"
                             : event.isSignalled ? ", signalled"
                                                 : ", not signalled") +
                            HoldersText(event);
  if (!event.isStateKnown) {
    section.Warn(id, title, value,
                 "Windows does not tell. Run vorldiag from an elevated prompt; when that does not "
                 "help and the service stops at once after each start, restart Windows.");
  } else if (!event.isManualReset) {
    section.Fail(id, title, value + ", of the wrong kind (it resets itself)",
                 "Another program has made it before the service could. " + EndThem(event));
  } else if (event.isSignalled && situation.IsStopped()) {
    section.Fail(
        id, title, value,
        "Another program keeps it signalled: the service stops at once after each start. " +
            EndThem(event));
  } else if (event.isSignalled) {
    section.Warn(id, title, value,
                 "The service is about to stop; when it does not, it waits for the core's "
                 "clean-up.");
  } else if (situation.IsStopped()) {
    section.Warn(id, title, value,
                 "Another program has it open although the service is stopped; it can signal it at "
                 "any time. " +
                     EndThem(event));
  } else {
    section.Ok(id, title, value);
  }
}

void CheckPipe(const Situation& situation, Section& section) {
  const char* const id = "helper-pipe";
  const char* const title = "Helper's pipe";
  const std::string name = Utf8(kHelperPipe);
  const DWORD error = LookAtPipe(kHelperPipe);
  if (error == ERROR_FILE_NOT_FOUND) {
    section.Ok(id, title, name + " is not there: no helper serves it");
    return;
  }
  if (error == ERROR_SEM_TIMEOUT) {
    section.Warn(id, title, name + " is busy",
                 "Look again; when it stays busy, the helper hangs and commands wait for it: "
                 "restart the helper.");
    return;
  }
  if (error != ERROR_SUCCESS) {
    section.Warn(id, title, name + ": " + ErrorText(error),
                 "Run vorldiag from an elevated prompt.");
    return;
  }
  const auto helpers = ProcessesOf(situation.programFolder + L"\\vorlhelper.exe");
  if (!helpers) {
    section.Warn(id, title, name + " is there; whether the helper serves it is unknown",
                 "Run vorldiag from an elevated prompt.");
  } else if (helpers->empty()) {
    section.Warn(id, title, name + " is there, but no vorlhelper.exe of this installation runs",
                 "Another program serves it and hears of every stop and removal: unless it is a "
                 "helper of your own, find it with a handle viewer and end it.");
  } else {
    section.Ok(id, title, name + " is there, the helper runs: " + Joined(*helpers));
  }
}

void CheckLock(const Situation& situation, Section& section) {
  const std::wstring traceLock = situation.Logs() + L"\\vorltrace.lock";
  section.Ok("trace-lock", "Trace's lock",
             Utf8(traceLock) + (Exists(traceLock) ? "" : " is not there"));
}

}  // namespace

Section CheckObjects(const Situation& situation) {
  Section section{"objects", "Shared objects", {}};
  CheckEvent("close-event", "Close event", situation.names.closeEvent, situation, section);
  CheckEvent("exit-event", "Exit event", situation.names.exitEvent, situation, section);
  CheckPipe(situation, section);
  CheckLock(situation, section);
  return section;
}
