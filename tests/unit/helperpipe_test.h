// The helper's end of the pipe, real and played, for the tests of the client.
#pragma once

#include "service/helperpipe.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <numeric>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint32_t kReply = 0xA1B2C3D4;

// Every test process serves a pipe of its own, so that several can run at once.
inline std::string OwnPipeName() {
  return R"(\\.\pipe\briskuphelperpipe_test_)" + std::to_string(GetCurrentProcessId());
}

inline std::wstring OwnPipeNameWide() {
  const std::string name = OwnPipeName();
  return {name.begin(), name.end()};
}

inline std::uint32_t Value32(const Bytes& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

// The server's end of a pipe. A client that does not do its part ends the service, so that neither
// waits for the other.
class ServerEnd {
 public:
  // `clientReads` is signalled when the client waits for its reply: it has sent what it ever will.
  ServerEnd(HANDLE pipe, HANDLE clientReads) : m_pipe(pipe), m_clientReads(clientReads) {}

  // Waits for a client, which may be there, or gone again, already; its data can still be read.
  // False when `over` is signalled instead: no client comes any more.
  bool Connect(HANDLE over) {
    OVERLAPPED overlapped = Start();
    if (!ConnectNamedPipe(m_pipe, &overlapped) && GetLastError() == ERROR_IO_PENDING) {
      const HANDLE events[] = {overlapped.hEvent, over};
      WaitForMultipleObjects(2, events, /*bWaitAll=*/FALSE, INFINITE);
      CancelIoEx(m_pipe, &overlapped);
      DWORD none = 0;
      return GetOverlappedResult(m_pipe, &overlapped, &none, /*bWait=*/TRUE) != FALSE;
    }
    return true;
  }

  // At most `size` bytes, one message at the most; 0 when there will be no more.
  DWORD Read(void* data, DWORD size) {
    OVERLAPPED overlapped = Start();
    const BOOL done = ReadFile(m_pipe, data, size, nullptr, &overlapped);
    if (!done && GetLastError() != ERROR_IO_PENDING) {
      return 0;
    }
    const HANDLE events[] = {overlapped.hEvent, m_clientReads};
    WaitForMultipleObjects(2, events, /*bWaitAll=*/FALSE, INFINITE);
    CancelIoEx(m_pipe, &overlapped);
    DWORD count = 0;
    return GetOverlappedResult(m_pipe, &overlapped, &count, /*bWait=*/TRUE) ? count : 0;
  }

  // As many bytes as come, up to `size`.
  Bytes ReadExactly(std::size_t size, std::size_t pieceSize = 65536) {
    Bytes bytes;
    while (bytes.size() < size) {
      Bytes piece(std::min(pieceSize, size - bytes.size()));
      const DWORD read = Read(piece.data(), static_cast<DWORD>(piece.size()));
      if (read == 0) {
        break;
      }
      bytes.insert(bytes.end(), piece.begin(), piece.begin() + read);
    }
    return bytes;
  }

  // The pipe has room for it.
  void Reply(const void* data, DWORD size) {
    OVERLAPPED overlapped = Start();
    if (!WriteFile(m_pipe, data, size, nullptr, &overlapped) &&
        GetLastError() == ERROR_IO_PENDING) {
      DWORD written = 0;
      GetOverlappedResult(m_pipe, &overlapped, &written, /*bWait=*/TRUE);
    }
  }

  // To be called behind the reply. Fails the test when the client does not close.
  void WaitUntilTheClientHasClosed() {
    std::uint8_t byte = 0;
    OVERLAPPED overlapped = Start();
    if (ReadFile(m_pipe, &byte, sizeof(byte), nullptr, &overlapped) ||
        GetLastError() != ERROR_IO_PENDING) {
      return;
    }
    // Long enough for any machine; only a client that never closes lets it pass.
    constexpr DWORD kPatience = 30000;
    if (WaitForSingleObject(m_event.Get(), kPatience) != WAIT_OBJECT_0) {
      ADD_FAILURE() << "the client does not close";
    }
    CancelIoEx(m_pipe, &overlapped);
    DWORD count = 0;
    GetOverlappedResult(m_pipe, &overlapped, &count, /*bWait=*/TRUE);
  }

 private:
  OVERLAPPED Start() const {
    OVERLAPPED overlapped{};
    overlapped.hEvent = m_event.Get();
    return overlapped;
  }

  HANDLE m_pipe;
  HANDLE m_clientReads;
  const KernelHandle m_event{CreateEventW(nullptr, /*bManualReset=*/TRUE, FALSE, nullptr)};
};

// What a receiver does with a body.
inline Bytes Unscrambled(Bytes body, std::uint32_t checksum) {
  for (std::uint8_t& byte : body) {
    const unsigned mixed = byte ^ (checksum & 0xFFU);
    byte = static_cast<std::uint8_t>((mixed % 16) * 16 + mixed / 16);
  }
  return body;
}

// A real pipe with one instance and a thread that serves one connection after another, each by the
// next of `services`. A service without a client at the time of Join fails the test.
class PipeServer {
 public:
  using Service = std::function<void(ServerEnd& client)>;

  PipeServer(HANDLE clientReads, std::vector<Service> services, DWORD mode = PIPE_TYPE_BYTE)
      : m_pipe(CreateNamedPipeW(OwnPipeNameWide().c_str(),
                                PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, mode,
                                /*nMaxInstances=*/1, /*nOutBufferSize=*/4096,
                                /*nInBufferSize=*/4096, /*nDefaultTimeOut=*/0, nullptr)) {
    m_thread = std::thread([this, clientReads, services = std::move(services)] {
      for (const Service& service : services) {
        ServerEnd client(m_pipe.Get(), clientReads);
        if (!client.Connect(m_over.Get())) {
          ADD_FAILURE() << "no client has come";
          return;
        }
        service(client);
        DisconnectNamedPipe(m_pipe.Get());
      }
    });
  }
  ~PipeServer() { Join(); }
  PipeServer(const PipeServer&) = delete;
  PipeServer& operator=(const PipeServer&) = delete;

  // To be called when no client is to come any more.
  void Join() {
    if (m_thread.joinable()) {
      SetEvent(m_over.Get());
      m_thread.join();
    }
  }

 private:
  FileHandle m_pipe;
  const KernelHandle m_over{CreateEventW(nullptr, /*bManualReset=*/TRUE, FALSE, nullptr)};
  std::thread m_thread;
};

// Takes what comes until the client closes, or waits for a reply in vain.
inline const PipeServer::Service kTakeAll = [](ServerEnd& client) { client.ReadExactly(4096); };

// The calls of the client, led to the test's own pipe. The server's calls go by unseen.
class HelperPipe : public ::testing::Test {
 protected:
  // A service that takes a whole request, answers `reply` and waits for the client to close.
  PipeServer::Service TakeAndReply(Bytes reply, std::size_t size = 12 + 525,
                                   std::size_t pieceSize = 65536) {
    return [this, reply, size, pieceSize](ServerEnd& client) {
      m_received = client.ReadExactly(size, pieceSize);
      client.Reply(reply.data(), static_cast<DWORD>(reply.size()));
      client.WaitUntilTheClientHasClosed();
    };
  }
  PipeServer::Service TakeAndReply() { return TakeAndReply({0xD4, 0xC3, 0xB2, 0xA1}); }

  Bytes ReceivedBody() const {
    return m_received.size() < 12 ? Bytes() : Bytes(m_received.begin() + 12, m_received.end());
  }

  // Signalled when the client waits for its reply.
  const KernelHandle m_clientReads{CreateEventW(nullptr, /*bManualReset=*/TRUE, FALSE, nullptr)};

  const std::string m_open =
      "CreateFileA(\"\\\\.\\pipe\\briskuphelperpipe\", 0xC0000000, 0x0, null, 3, 0x0, null) = ";
  const std::string m_wait = "WaitNamedPipeA(\"\\\\.\\pipe\\briskuphelperpipe\", 20000) = ";

  Bytes m_received;
  Journal m_journal;

  // The next errors of CreateFileA; 0 lets the call through, as an empty list does.
  std::deque<DWORD> m_openErrors;
  // Called at WaitNamedPipeA; the error, or 0 for success.
  std::function<DWORD()> m_onWait = [this] {
    return m_waitPatch.CallOriginal(OwnPipeName().c_str(), 20000) ? DWORD{0} : GetLastError();
  };
  // The errors of the client's writes; 0 and an empty list as above.
  std::deque<DWORD> m_writeErrors;
  // How many bytes the client's next writes send at the most, with success; none as above.
  std::deque<DWORD> m_writeLimits;
  // Replaces the client's read when set.
  std::function<BOOL(void* data, DWORD* read)> m_onRead;

 private:
  bool IsClient(HANDLE handle) const { return handle == m_client; }

  static DWORD Next(std::deque<DWORD>& errors) {
    const DWORD error = errors.empty() ? 0 : errors.front();
    if (!errors.empty()) {
      errors.pop_front();
    }
    return error;
  }

  std::atomic<HANDLE> m_client = INVALID_HANDLE_VALUE;

  CallPatch<struct CreateTag, decltype(CreateFileA)> m_createPatch{
      "KERNEL32.dll", "CreateFileA",
      [this](LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD creation,
             DWORD flags, HANDLE templateFile) -> HANDLE {
        const std::string text = "CreateFileA(" + Quoted(name) + ", " + Hex(access) + ", " +
                                 Hex(share) + ", " + (security == nullptr ? "null" : "some") +
                                 ", " + std::to_string(creation) + ", " + Hex(flags) + ", " +
                                 (templateFile == nullptr ? "null" : "some") + ") = ";
        DWORD error = Next(m_openErrors);
        HANDLE handle = INVALID_HANDLE_VALUE;
        if (error == 0) {
          handle = m_createPatch.CallOriginal(OwnPipeName().c_str(), access, share, security,
                                              creation, flags, templateFile);
          error = GetLastError();
        }
        m_journal.Call(
            text + (handle == INVALID_HANDLE_VALUE ? "error " + std::to_string(error) : "pipe"));
        m_client = handle;
        SetLastError(error);
        return handle;
      }};
  CallPatch<struct WaitTag, decltype(WaitNamedPipeA)> m_waitPatch{
      "KERNEL32.dll", "WaitNamedPipeA", [this](LPCSTR name, DWORD milliseconds) -> BOOL {
        const DWORD error = m_onWait();
        m_journal.Call("WaitNamedPipeA(" + Quoted(name) + ", " + std::to_string(milliseconds) +
                       ") = " + (error == 0 ? "1" : "error " + std::to_string(error)));
        SetLastError(error);
        return error == 0 ? TRUE : FALSE;
      }};
  CallPatch<struct WriteTag, decltype(WriteFile)> m_writePatch{
      "KERNEL32.dll", "WriteFile",
      [this](HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
             LPOVERLAPPED overlapped) -> BOOL {
        if (!IsClient(file)) {
          return m_writePatch.CallOriginal(file, data, size, written, overlapped);
        }
        m_journal.Call("WriteFile(" + std::to_string(size) + (overlapped ? ", overlapped)" : ")"));
        if (const DWORD error = Next(m_writeErrors); error != 0) {
          SetLastError(error);
          return FALSE;
        }
        if (!m_writeLimits.empty()) {
          size = std::min(size, m_writeLimits.front());
          m_writeLimits.pop_front();
        }
        return m_writePatch.CallOriginal(file, data, size, written, overlapped);
      }};
  CallPatch<struct ReadTag, decltype(ReadFile)> m_readPatch{
      "KERNEL32.dll", "ReadFile",
      [this](HANDLE file, LPVOID data, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) -> BOOL {
        if (!IsClient(file)) {
          return m_readPatch.CallOriginal(file, data, size, read, overlapped);
        }
        m_journal.Call("ReadFile(" + std::to_string(size) + (overlapped ? ", overlapped)" : ")"));
        SetEvent(m_clientReads.Get());
        return m_onRead ? m_onRead(data, read)
                        : m_readPatch.CallOriginal(file, data, size, read, overlapped);
      }};
  CallPatch<struct CloseTag, decltype(CloseHandle)> m_closePatch{
      "KERNEL32.dll", "CloseHandle", [this](HANDLE handle) -> BOOL {
        if (IsClient(handle)) {
          m_client = INVALID_HANDLE_VALUE;
          m_journal.Call("CloseHandle");
        }
        return m_closePatch.CallOriginal(handle);
      }};
};
