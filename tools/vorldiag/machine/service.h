// What the service control manager knows of the service.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"

struct Registration {
  std::wstring command;
  std::wstring account;
  std::wstring displayName;
  std::vector<std::wstring> dependencies;
  DWORD type = 0;
  DWORD startType = 0;
  DWORD errorControl = 0;
};

struct Recovery {
  std::vector<int> actions;  // SC_ACTION_TYPE, or what only newer Windows have
  std::wstring command;
  DWORD resetSeconds = 0;
};

// Reads one service. Everything but Open may only be called when it has been opened; what cannot be
// read is an error number.
class ServiceReader {
 public:
  // ERROR_SUCCESS, or why it cannot be read; ERROR_SERVICE_DOES_NOT_EXIST: not registered.
  DWORD Open(const std::string& name);

  DWORD Read(Registration& registration) const;
  DWORD Read(Recovery& recovery) const;
  DWORD Read(SERVICE_STATUS_PROCESS& status) const;
  SC_HANDLE Handle() const { return m_service.Get(); }

 private:
  ServiceHandle m_manager;
  ServiceHandle m_service;
};

// The program of a command line as Windows finds it: what is in quotes, else up to the end of
// ".exe", else up to the first blank.
std::wstring ProgramOf(const std::wstring& command);
