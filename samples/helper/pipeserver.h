// The helper's end of the pipe.
#pragma once

#include "samples/helper/notification.h"
#include "support/handle.h"

// The server's end of the helper pipe: one instance that serves one client after the other. Only
// administrators and the system may connect, and only from this computer.
class PipeServer {
 public:
  enum class Outcome {
    kNotified,  // a client was served; `notification` is filled
    kRefused,   // a client hung up, was silent for too long or sent something else
    kStopped,   // the stop event was signalled
    kFailed,    // the pipe itself is of no use any more; the last error says why
  };

  struct Result {
    Outcome outcome;
    Notification notification;
    Refusal refusal = nullptr;  // for kRefused
  };

  // Makes the pipe. False, with the last error set, when that fails or when another process serves
  // a pipe of that name already.
  bool Open(const char* pipeName) noexcept;

  // Waits for a client and serves it; its reply is 1, or 0 when its request is refused. A client
  // gets a few seconds for everything. `stop` is a manual-reset event of the caller's.
  Result ServeClient(HANDLE stop);

 private:
  enum class Transfer { kDone, kEnded, kStopped };

  Result Converse(HANDLE stop);
  Transfer Read(HANDLE stop, ULONGLONG deadline, void* buffer, DWORD size) noexcept;
  Transfer Write(HANDLE stop, ULONGLONG deadline, const void* buffer, DWORD size) noexcept;
  Transfer Finish(HANDLE stop, ULONGLONG deadline, BOOL started, DWORD& transferred) noexcept;

  FileHandle m_pipe;
  KernelHandle m_ioEvent;
  OVERLAPPED m_overlapped{};
};
