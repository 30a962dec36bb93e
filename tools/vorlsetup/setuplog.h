// What the actions of the installer package write into its log.
#pragma once

#include <string>

#include "support/windows_api.h"

// msi.h reads the types of windows.h.
#include <msi.h>

// What an action of the package tells: Info goes into the installer's log (msiexec /l*v), Error
// also to the administrator who watches, and into the Application log when the installation fails.
class SetupLog {
 public:
  // `installation`: what the installer gave the action. With 0 nothing is told.
  explicit SetupLog(MSIHANDLE installation) noexcept : m_installation(installation) {}

  void Info(const std::wstring& text) const;
  void Error(const std::wstring& text) const;

  // An error with the number that Windows gave for it.
  void Error(const std::wstring& text, DWORD error) const;

 private:
  void Tell(int kind, const std::wstring& text) const;

  MSIHANDLE m_installation;
};
