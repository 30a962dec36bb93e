#pragma once

#include "support/windows_api.h"

// Gives the calling thread its last error back at the end of the scope.
class LastError {
 public:
  LastError() noexcept : m_error(GetLastError()) {}
  ~LastError() { SetLastError(m_error); }
  LastError(const LastError&) = delete;
  LastError& operator=(const LastError&) = delete;

 private:
  DWORD m_error;
};
