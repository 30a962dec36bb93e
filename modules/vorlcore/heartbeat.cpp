#include "modules/vorlcore/heartbeat.h"

#include <process.h>

#include "support/trace.h"

bool Heartbeat::Start(DWORD intervalMilliseconds) noexcept {
  constexpr Trace trace{"Heartbeat::Start"};
  m_dwInterval = intervalMilliseconds;
  m_stopEvent.Reset(CreateEventW(/*lpEventAttributes=*/nullptr, /*bManualReset=*/TRUE,
                                 /*bInitialState=*/FALSE, /*lpName=*/nullptr));
  if (!m_stopEvent) {
    trace.Error("CreateEvent Failed %u", GetLastError());
    return false;
  }
  m_thread.Reset(
      reinterpret_cast<HANDLE>(_beginthreadex(/*security=*/nullptr, /*stack_size=*/0, ThreadMain,
                                              this, /*initflag=*/0, /*thrdaddr=*/nullptr)));
  if (!m_thread) {
    trace.Error("_beginthreadex Failed %u", GetLastError());
    m_stopEvent.Reset();
    return false;
  }
  return true;
}

void Heartbeat::Stop() noexcept {
  SetEvent(m_stopEvent.Get());
  // Without a limit: the module must not be unloaded under a running thread.
  WaitForSingleObject(m_thread.Get(), INFINITE);
  m_thread.Reset();
  m_stopEvent.Reset();
}

unsigned __stdcall Heartbeat::ThreadMain(void* heartbeat) noexcept {
  static_cast<const Heartbeat*>(heartbeat)->Beat();
  return 0;
}

void Heartbeat::Beat() const noexcept {
  constexpr Trace trace{"Heartbeat::Beat"};
  trace.Info("Entry");
  unsigned beats = 0;
  while (WaitForSingleObject(m_stopEvent.Get(), m_dwInterval) == WAIT_TIMEOUT) {
    ++beats;
    trace.Info("Heartbeat %u", beats);
  }
  trace.Info("Exit");
}
