#include "samples/helper/pipeserver.h"

// The conversion of the access list below.
#include <sddl.h>

namespace {

constexpr DWORD kClientMilliseconds = 5000;
constexpr ULONGLONG kNoDeadline = ~0ULL;
constexpr DWORD kPipeBufferSize = 4096;

constexpr std::uint32_t kReplyAccepted = 1;
constexpr std::uint32_t kReplyRefused = 0;

// Full access for the system and for administrators, none for anybody else.
constexpr wchar_t kAccessList[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)";

DWORD MillisecondsUntil(ULONGLONG deadline) noexcept {
  if (deadline == kNoDeadline) {
    return INFINITE;
  }
  const ULONGLONG now = GetTickCount64();
  return now < deadline ? static_cast<DWORD>(deadline - now) : 0;
}

}  // namespace

bool PipeServer::Open(const char* pipeName) noexcept {
  PSECURITY_DESCRIPTOR received = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(kAccessList, SDDL_REVISION_1, &received,
                                                            nullptr)) {
    return false;
  }
  const LocalMemory descriptor(received);
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), descriptor.Get(), FALSE};

  m_ioEvent.Reset(CreateEventW(/*lpEventAttributes=*/nullptr, /*bManualReset=*/TRUE,
                               /*bInitialState=*/FALSE, /*lpName=*/nullptr));
  if (!m_ioEvent) {
    return false;
  }
  m_pipe.Reset(CreateNamedPipeA(
      pipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
      /*nMaxInstances=*/1, kPipeBufferSize, kPipeBufferSize, /*nDefaultTimeOut=*/0, &attributes));
  return static_cast<bool>(m_pipe);
}

PipeServer::Result PipeServer::ServeClient(HANDLE stop) {
  m_overlapped = {};
  m_overlapped.hEvent = m_ioEvent.Get();
  if (!ConnectNamedPipe(m_pipe.Get(), &m_overlapped)) {
    const DWORD error = GetLastError();
    if (error == ERROR_IO_PENDING) {
      DWORD nothing = 0;
      switch (Finish(stop, kNoDeadline, FALSE, nothing)) {
        case Transfer::kDone:
          break;
        case Transfer::kStopped:
          return {Outcome::kStopped, {}};
        case Transfer::kEnded:
          DisconnectNamedPipe(m_pipe.Get());
          return {Outcome::kRefused, {}, L"client hung up"};
      }
    } else if (error != ERROR_PIPE_CONNECTED && error != ERROR_NO_DATA) {
      return {Outcome::kFailed, {}};
    }
    // ERROR_NO_DATA: the client is gone already. Reading will say so, too.
  }
  Result result = Converse(stop);
  DisconnectNamedPipe(m_pipe.Get());
  return result;
}

PipeServer::Result PipeServer::Converse(HANDLE stop) {
  const ULONGLONG deadline = GetTickCount64() + kClientMilliseconds;
  const auto broken = [](Transfer transfer) -> Result {
    return transfer == Transfer::kStopped
               ? Result{Outcome::kStopped, {}}
               : Result{Outcome::kRefused, {}, L"client hung up or was silent for too long"};
  };

  Result result{Outcome::kNotified, {}};
  HelperPipeHeader header;
  Transfer transfer = Read(stop, deadline, &header, sizeof(header));
  if (transfer != Transfer::kDone) {
    return broken(transfer);
  }
  result.refusal = CheckHeader(header);
  if (result.refusal == nullptr) {
    RequestBytes body;
    transfer = Read(stop, deadline, body.data(), static_cast<DWORD>(body.size()));
    if (transfer != Transfer::kDone) {
      return broken(transfer);
    }
    result.refusal = Decode(header, body, result.notification);
  }
  if (result.refusal != nullptr) {
    result.outcome = Outcome::kRefused;
  }

  const std::uint32_t reply = result.refusal == nullptr ? kReplyAccepted : kReplyRefused;
  if (Write(stop, deadline, &reply, sizeof(reply)) == Transfer::kDone) {
    // Disconnecting throws away what the client has not read yet, so the client hangs up first,
    // when it has read the reply. Until then it may still send, such as the body after a header
    // that was refused.
    BYTE ignored[kPipeBufferSize];
    while (GetTickCount64() < deadline &&
           Read(stop, deadline, ignored, sizeof(ignored)) == Transfer::kDone) {
    }
  }
  return result;
}

PipeServer::Transfer PipeServer::Read(HANDLE stop, ULONGLONG deadline, void* buffer,
                                      DWORD size) noexcept {
  auto* bytes = static_cast<BYTE*>(buffer);
  while (size > 0) {
    m_overlapped = {};
    m_overlapped.hEvent = m_ioEvent.Get();
    DWORD transferred = 0;
    const BOOL started = ReadFile(m_pipe.Get(), bytes, size, nullptr, &m_overlapped);
    const Transfer transfer = Finish(stop, deadline, started, transferred);
    if (transfer != Transfer::kDone) {
      return transfer;
    }
    bytes += transferred;
    size -= transferred;
  }
  return Transfer::kDone;
}

PipeServer::Transfer PipeServer::Write(HANDLE stop, ULONGLONG deadline, const void* buffer,
                                       DWORD size) noexcept {
  m_overlapped = {};
  m_overlapped.hEvent = m_ioEvent.Get();
  DWORD transferred = 0;
  const BOOL started = WriteFile(m_pipe.Get(), buffer, size, nullptr, &m_overlapped);
  return Finish(stop, deadline, started, transferred);
}

// Waits for the operation that was begun with m_overlapped; `started`: what the call that began it
// returned. The operation is over when this returns, whatever the outcome.
PipeServer::Transfer PipeServer::Finish(HANDLE stop, ULONGLONG deadline, BOOL started,
                                        DWORD& transferred) noexcept {
  if (!started && GetLastError() != ERROR_IO_PENDING) {
    return Transfer::kEnded;
  }
  const HANDLE events[] = {stop, m_ioEvent.Get()};
  const DWORD waited = WaitForMultipleObjects(2, events, FALSE, MillisecondsUntil(deadline));
  if (waited != WAIT_OBJECT_0 + 1) {
    CancelIoEx(m_pipe.Get(), &m_overlapped);
  }
  const BOOL finished = GetOverlappedResult(m_pipe.Get(), &m_overlapped, &transferred, TRUE);
  if (waited == WAIT_OBJECT_0) {
    return Transfer::kStopped;
  }
  return finished ? Transfer::kDone : Transfer::kEnded;
}
