// Named objects that the service shares with others, looked at without changing them: nothing is
// waited for, since a wait takes an event of the wrong kind away.
#pragma once

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

// A mutex.
ObjectFacts LookAtLock(const std::string& name);

struct PipeFacts {
  DWORD error = ERROR_SUCCESS;  // ERROR_FILE_NOT_FOUND: nobody serves it
  std::string server;           // "name.exe (1234)"; empty when it could not be asked
};

// Connects for a moment, without letting the server act in the caller's name.
PipeFacts LookAtPipe(const wchar_t* name);

// "name.exe (1234)", or "process 1234".
std::string ProcessText(DWORD processId);
