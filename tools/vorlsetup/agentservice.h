// The agent's service, as the package installs, stops and removes it: by the program's own
// commands, each with a time limit, and with what the package sets besides.
#pragma once

#include <string>

#include "tools/vorlsetup/setuplog.h"

struct ServiceState {
  bool isRegistered = false;
  bool isRunning = false;  // anything but stopped
  bool isDisabled = false;
  DWORD processId = 0;   // 0 when it is stopped
  std::wstring command;  // as registered
};

// What is registered under the agent's service name.
ServiceState ReadServiceState();

// Whether the registered command is the program in this folder, in any letter case, with or without
// quotes.
bool IsServiceOf(const std::wstring& programFolder, const ServiceState& state);

// Stops the service and waits for its process to end: by the program's command first. When that
// does not end, because somebody holds the helper's pipe for example, by the control itself.
// `isRemoved`: the administrator removes the product, which the server is told. True when nothing
// runs any more.
bool StopAgentService(const std::wstring& programFolder, bool isRemoved, const SetupLog& log);

// Registers the service by the program's command unless it is registered for this folder already,
// and sets what the package adds: the start after WMI, and the service's own rights.
bool RegisterAgentService(const std::wstring& programFolder, const SetupLog& log);

// Removes the service by the program's command, and the event-log source, which that leaves.
bool UnregisterAgentService(const std::wstring& programFolder, const SetupLog& log);

// Starts the service by the program's command and makes sure that it stays: a service that ends at
// once was not configured as it must be. One that is disabled is left so.
bool StartAgentService(const std::wstring& programFolder, const SetupLog& log);
