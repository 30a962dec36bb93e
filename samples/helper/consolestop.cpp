#include "samples/helper/consolestop.h"

namespace {

HANDLE g_stop = nullptr;

// Runs on a thread that Windows makes for it.
BOOL WINAPI OnControl(DWORD /*control*/) {
  SetEvent(g_stop);
  return TRUE;
}

}  // namespace

ConsoleStop::ConsoleStop() noexcept
    : m_event(CreateEventW(/*lpEventAttributes=*/nullptr, /*bManualReset=*/TRUE,
                           /*bInitialState=*/FALSE, /*lpName=*/nullptr)) {
  g_stop = m_event.Get();
  if (m_event && !SetConsoleCtrlHandler(OnControl, TRUE)) {
    m_event.Reset();
  }
}

ConsoleStop::~ConsoleStop() {
  if (m_event) {
    SetConsoleCtrlHandler(OnControl, FALSE);
  }
}
