// Ends the helper when its console says so.
#pragma once

#include "support/handle.h"

// An event that the console's controls set: Ctrl+C, Ctrl+Break, and the end of the window or the
// session. One in a program at a time.
class ConsoleStop {
 public:
  ConsoleStop() noexcept;
  ~ConsoleStop();
  ConsoleStop(const ConsoleStop&) = delete;
  ConsoleStop& operator=(const ConsoleStop&) = delete;

  // Manual-reset; null, with the last error set, when the controls cannot be heard.
  HANDLE Event() const noexcept { return m_event.Get(); }

 private:
  KernelHandle m_event;
};
