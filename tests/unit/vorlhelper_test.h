// What a client of the helper's pipe sends and gets.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"

// A request as the service's commands send it, written down independently of them.
class Request {
 public:
  Request(const std::wstring& serviceName, DWORD actionCode, BYTE flag) {
    std::memcpy(m_body.data(), serviceName.data(), serviceName.size() * sizeof(wchar_t));
    std::memcpy(m_body.data() + 520, &actionCode, 4);
    m_body[524] = flag;
  }

  Request& WithCode(DWORD code) {
    m_code = code;
    return *this;
  }
  Request& WithLength(DWORD length) {
    m_length = length;
    return *this;
  }
  Request& WithChecksumOffBy(DWORD difference) {
    m_checksumError = difference;
    return *this;
  }

  std::vector<BYTE> Header() const {
    const DWORD fields[] = {m_code, m_length, Checksum()};
    std::vector<BYTE> bytes(12);
    std::memcpy(bytes.data(), fields, 12);
    return bytes;
  }
  std::vector<BYTE> Body() const {
    const BYTE mask = static_cast<BYTE>(Checksum());
    std::vector<BYTE> bytes;
    for (const BYTE byte : m_body) {
      bytes.push_back(static_cast<BYTE>(((byte << 4) | (byte >> 4)) ^ mask));
    }
    return bytes;
  }

 private:
  DWORD Checksum() const {
    DWORD sum = m_checksumError;
    for (const BYTE byte : m_body) {
      sum += byte;
    }
    return sum;
  }

  DWORD m_code = 15;
  DWORD m_length = 525;
  DWORD m_checksumError = 0;
  std::array<BYTE, 525> m_body{};
};

// A client's end of the pipe.
class Client {
 public:
  explicit Client(const std::string& pipeName) {
    while (true) {
      m_pipe.Reset(CreateFileA(pipeName.c_str(), GENERIC_READ | GENERIC_WRITE | READ_CONTROL, 0,
                               nullptr, OPEN_EXISTING, 0, nullptr));
      if (m_pipe || GetLastError() != ERROR_PIPE_BUSY ||
          !WaitNamedPipeA(pipeName.c_str(), 20'000)) {
        break;
      }
    }
    EXPECT_TRUE(m_pipe) << "error " << GetLastError();
  }

  void Send(const std::vector<BYTE>& bytes) const {
    DWORD written = 0;
    EXPECT_TRUE(
        WriteFile(m_pipe.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
  }

  // The reply, or -1 when there is none.
  long long Reply() const {
    DWORD reply = 0;
    DWORD read = 0;
    return ReadFile(m_pipe.Get(), &reply, 4, &read, nullptr) && read == 4
               ? static_cast<long long>(reply)
               : -1;
  }

  // Sends the whole request; its reply.
  long long Ask(const Request& request) const {
    Send(request.Header());
    Send(request.Body());
    return Reply();
  }

  HANDLE Get() const { return m_pipe.Get(); }

 private:
  FileHandle m_pipe;
};

inline std::string NewPipeName() {
  static unsigned counter = 0;
  return "\\\\.\\pipe\\vorlhelper_test_" + std::to_string(GetCurrentProcessId()) + "_" +
         std::to_string(++counter);
}
