// The work of this core module: a sign of life in the trace.
#pragma once

#include "support/handle.h"

// A thread that writes one trace line per interval until it is stopped.
class Heartbeat {
 public:
  // `intervalMilliseconds` may be INFINITE: no line at all. False when the thread cannot be
  // started.
  bool Start(DWORD intervalMilliseconds) noexcept;

  // Returns when the thread has ended. Call it once after each successful Start.
  void Stop() noexcept;

 private:
  static unsigned __stdcall ThreadMain(void* heartbeat) noexcept;
  void Beat() const noexcept;

  DWORD m_dwInterval = 0;
  KernelHandle m_stopEvent;
  KernelHandle m_thread;
};
