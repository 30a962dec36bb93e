#include "service/reportgate.h"

#include <iterator>

namespace {

// The handler only signals an event and reports the status.
constexpr DWORD kHandlerWaitMilliseconds = 5000;

// When the dispatcher has returned, little more than the last lines of the trace is still to come.
constexpr DWORD kLeaveWaitMilliseconds = 10000;

// Makes `event` once; without it nothing is waited for.
void MakeSignalled(HANDLE& event) {
  if (event == nullptr) {
    event = CreateEventW(/*lpEventAttributes=*/nullptr, /*bManualReset=*/TRUE,
                         /*bInitialState=*/TRUE, /*lpName=*/nullptr);
  } else {
    SetEvent(event);
  }
}

}  // namespace

void ReportGate::Open() noexcept {
  MakeSignalled(m_hServiceMainLeft);
  MakeSignalled(m_hHandlerLeft);
  m_isClosing = false;
  m_mayReport = true;
}

void ReportGate::Close() noexcept {
  // In this order: a handler that enters after the wait finds the gate closing.
  m_isClosing = true;
  WaitForHandler();
  m_mayReport = false;
}

void ReportGate::WaitForHandler() const noexcept {
  WaitForSingleObjectEx(m_hHandlerLeft, kHandlerWaitMilliseconds, /*bAlertable=*/FALSE);
}

bool ReportGate::WaitUntilLeft() const noexcept {
  const HANDLE left[] = {m_hServiceMainLeft, m_hHandlerLeft};
  const DWORD result = WaitForMultipleObjects(static_cast<DWORD>(std::size(left)), left,
                                              /*bWaitAll=*/TRUE, kLeaveWaitMilliseconds);
  return result != WAIT_TIMEOUT;
}
