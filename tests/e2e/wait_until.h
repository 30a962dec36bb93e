// Waits for what nothing announces.
#pragma once

#include "support/windows_api.h"

// Polls for what neither the service control manager (under Wine) nor the trace offers an event
// for. False when `condition` is not true within a minute.
template <typename Condition>
bool WaitUntil(Condition condition) {
  constexpr DWORD kPollMilliseconds = 5;
  constexpr ULONGLONG kPatienceMilliseconds = 60000;
  const ULONGLONG deadline = GetTickCount64() + kPatienceMilliseconds;
  while (!condition()) {
    if (GetTickCount64() >= deadline) {
      return false;
    }
    Sleep(kPollMilliseconds);
  }
  return true;
}
