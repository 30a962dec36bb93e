// What the service control manager knows of a service.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"

struct ServiceConfiguration {
  DWORD type;
  DWORD startType;
  DWORD errorControl;
  std::wstring commandPath;
  std::wstring account;
  std::wstring displayName;
  std::wstring loadOrderGroup;
  std::wstring dependencies;
};

class ServiceUnderTest {
 public:
  explicit ServiceUnderTest(std::string name) : m_name(std::move(name)) {}

  // Ends and deletes the service when it is there, and waits until it is gone.
  void Remove();

  bool IsInstalled() const;
  ServiceConfiguration Configuration() const;
  SERVICE_STATUS_PROCESS Status() const;
  DWORD State() const { return Status().dwCurrentState; }

  // Starts the service; 0 or the error.
  DWORD Start() const;

  // Sends a control; 0 or the error.
  DWORD Control(DWORD code) const;

  // Waits until the service is in `state`; false when it is not within a minute.
  bool WaitForState(DWORD state) const;

  // Sets the start type, to see later whether somebody has set it back.
  void SetStartType(DWORD startType) const;

  // A handle of the caller's own; null when there is no such service.
  ServiceHandle Open(DWORD access) const;

 private:
  std::string m_name;
};
