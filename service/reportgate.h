// Orders what the two threads of a service process do at the service's end: no report of the
// handler's may follow STOPPED, and the object must live until both have left its callbacks.
#pragma once

#include <atomic>

#include "support/windows_api.h"

// Belongs in static storage: its users leave it when the service's object may be gone, and it has
// nothing to destroy. Its events end with the process.
class ReportGate {
 public:
  constexpr ReportGate() noexcept = default;
  ReportGate(const ReportGate&) = delete;
  ReportGate& operator=(const ReportGate&) = delete;

  // For a new object: nobody is in its callbacks, and reports are welcome.
  void Open() noexcept;

  // From here on only STOPPED may be reported, except by a handler that had begun before. Returns
  // when that handler has left, after 5 s at the latest: one that hangs must not keep the service
  // from stopping. It may not report any more then.
  void Close() noexcept;

  // Returns when no handler is inside, at the latest after 5 s. Others may enter meanwhile.
  void WaitForHandler() const noexcept;

  // Whether a state other than STOPPED may be reported.
  bool MayReport() const noexcept { return m_mayReport; }

  // Waits until ServiceMain and Handler have left, 10 s at the most. True when they have, at once
  // when they were never entered.
  bool WaitUntilLeft() const noexcept;

  // One of the two callbacks, as long as it runs. Each is entered by one thread at a time.
  class Visit;

 private:
  // Signalled while the callback is not running.
  HANDLE m_hServiceMainLeft = nullptr;
  HANDLE m_hHandlerLeft = nullptr;
  std::atomic<bool> m_isClosing = false;
  // As the handler found the gate when it entered.
  std::atomic<bool> m_mayReport = true;
};

class ReportGate::Visit {
 public:
  static Visit OfServiceMain(ReportGate& gate) noexcept { return Visit(gate.m_hServiceMainLeft); }
  static Visit OfHandler(ReportGate& gate) noexcept { return Visit(gate); }
  ~Visit() { SetEvent(m_hLeft); }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

 private:
  explicit Visit(HANDLE left) noexcept : m_hLeft(left) { ResetEvent(left); }
  // In this order: either Close waits for this handler, or this handler does not report.
  explicit Visit(ReportGate& gate) noexcept : Visit(gate.m_hHandlerLeft) {
    gate.m_mayReport = !gate.m_isClosing;
  }

  HANDLE m_hLeft;
};
