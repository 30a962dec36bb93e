// Looks at the named objects that the service shares with others, without changing them. Nothing is
// waited for, because a wait would reset an event of the wrong kind.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/windows_api.h"

struct ObjectFacts {
  DWORD error = ERROR_SUCCESS;  // ERROR_FILE_NOT_FOUND: there is none
  std::string owner;            // account; empty when unknown
  bool isOwnerTrusted = true;
  std::vector<std::string> holders;  // "name.exe (1234)" of every process that could be asked
};

struct EventFacts : ObjectFacts {
  bool isStateKnown = false;
  bool isSignalled = false;
  bool isManualReset = true;
};

EventFacts LookAtEvent(const std::string& name);

// Whether somebody serves a pipe: ERROR_SUCCESS, ERROR_FILE_NOT_FOUND when nobody does,
// ERROR_SEM_TIMEOUT when the server has been busy with somebody else for a second. Does not
// connect, because a server takes whoever connects for a client; so the process that serves it
// stays unknown.
DWORD LookAtPipe(const wchar_t* name);

// "name.exe (1234)" of every process that runs this program. Nothing when that is unknown: the list
// of processes could not be had, or one of the same file name does not show its path.
std::optional<std::vector<std::string>> ProcessesOf(const std::wstring& program);

// "name.exe (1234)", or "process 1234".
std::string ProcessText(DWORD processId);
