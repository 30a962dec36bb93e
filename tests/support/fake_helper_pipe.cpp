#include "tests/support/fake_helper_pipe.h"

#include <cstring>

namespace {

constexpr char kPipeName[] = R"(\\.\pipe\briskuphelperpipe)";
constexpr char kKernel[] = "KERNEL32.dll";
constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kRequestSize = 12 + 525;

const HANDLE kPipe = reinterpret_cast<HANDLE>(ULONG_PTR{0x7770});

std::uint32_t Value32(const std::uint8_t* bytes) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes, sizeof(value));
  return value;
}

}  // namespace

FakeHelperPipe::FakeHelperPipe(Journal& journal)
    : m_journal(journal),
      m_createFile(kKernel, "CreateFileA",
                   [this](LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                          DWORD creation, DWORD flags, HANDLE templateFile) -> HANDLE {
                     if (std::strcmp(name, kPipeName) != 0) {
                       return m_createFile.CallOriginal(name, access, share, security, creation,
                                                        flags, templateFile);
                     }
                     if (m_refusal != 0) {
                       m_journal.Call("helper pipe: error " + std::to_string(m_refusal));
                       SetLastError(m_refusal);
                       return INVALID_HANDLE_VALUE;
                     }
                     m_received.clear();
                     return kPipe;
                   }),
      m_writeFile(kKernel, "WriteFile",
                  [this](HANDLE file, LPCVOID data, DWORD length, LPDWORD written,
                         LPOVERLAPPED overlapped) -> BOOL {
                    if (file != kPipe) {
                      return m_writeFile.CallOriginal(file, data, length, written, overlapped);
                    }
                    Receive(static_cast<const std::uint8_t*>(data), length);
                    *written = length;
                    return TRUE;
                  }),
      m_readFile(kKernel, "ReadFile",
                 [this](HANDLE file, LPVOID data, DWORD length, LPDWORD read,
                        LPOVERLAPPED overlapped) -> BOOL {
                   if (file != kPipe) {
                     return m_readFile.CallOriginal(file, data, length, read, overlapped);
                   }
                   const std::uint32_t reply = 1;
                   std::memcpy(data, &reply, sizeof(reply));
                   *read = sizeof(reply);
                   return TRUE;
                 }),
      m_closeHandle(kKernel, "CloseHandle", [this](HANDLE handle) -> BOOL {
        return handle == kPipe ? TRUE : m_closeHandle.CallOriginal(handle);
      }) {}

void FakeHelperPipe::Receive(const std::uint8_t* data, DWORD length) {
  m_received.insert(m_received.end(), data, data + length);
  if (m_received.size() != kRequestSize) {
    return;
  }
  const std::uint32_t checksum = Value32(&m_received[8]);
  std::uint32_t sum = 0;
  for (std::size_t i = kHeaderSize; i < kRequestSize; ++i) {
    const unsigned plain = m_received[i] ^ (checksum & 0xFFU);
    m_received[i] = static_cast<std::uint8_t>(((plain & 0x0FU) << 4U) | (plain >> 4U));
    sum += m_received[i];
  }
  wchar_t name[261] = {};
  std::memcpy(name, &m_received[kHeaderSize], 520);
  m_journal.Call("helper pipe: code " + std::to_string(Value32(m_received.data())) + ", action " +
                 std::to_string(Value32(&m_received[kHeaderSize + 520])) + ", flag " +
                 std::to_string(m_received[kHeaderSize + 524]) + ", " + Quoted(name) +
                 (sum == checksum ? "" : ", wrong checksum"));
}
