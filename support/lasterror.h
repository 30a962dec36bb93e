// Keeps the thread's last error over calls that change it.
#pragma once

#include "support/windows_api.h"

// Gives the calling thread its last error back at the end of the scope, so that writing the trace
// or closing a handle never changes the error that a caller is about to report.
class LastErrorKeeper {
 public:
  LastErrorKeeper() noexcept : m_dwLastError(GetLastError()) {}
  ~LastErrorKeeper() { SetLastError(m_dwLastError); }
  LastErrorKeeper(const LastErrorKeeper&) = delete;
  LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

 private:
  DWORD m_dwLastError;
};
