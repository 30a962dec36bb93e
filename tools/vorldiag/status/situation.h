// What all checks of the status start from.
#pragma once

#include <optional>
#include <string>

#include "tools/vorldiag/machine/installation.h"
#include "tools/vorldiag/machine/service.h"

struct Situation {
  std::wstring ownFolder;  // of this tool
  Names names;

  ServiceReader service;
  DWORD openError = ERROR_SUCCESS;  // why the service cannot be opened
  DWORD readError = ERROR_SUCCESS;  // why its registration cannot be read
  std::optional<Registration> registration;
  std::optional<SERVICE_STATUS_PROCESS> state;

  std::wstring programFolder;  // of the registered program, else this tool's
  FolderFact root;
  FolderFact configuration;

  std::wstring Logs() const { return programFolder + L"\\logs"; }
  std::wstring ConfigurationFile() const { return configuration.path + L"\\vorlconf.ini"; }
  bool IsStopped() const { return !state || state->dwCurrentState == SERVICE_STOPPED; }
};

// Looks at the machine.
Situation FindSituation();
