#include "tools/vorldiag/text/output.h"

#include <winternl.h>

#include <algorithm>
#include <string>

#include "support/lasterror.h"
#include "support/procaddress.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

// What NtQueryInformationFile gives of a pipe (FilePipeLocalInformation).
constexpr ULONG kFilePipeLocalInformation = 24;
constexpr ULONG kPipeIsClosing = 4;  // FILE_PIPE_CLOSING_STATE: the other end is closed
struct PipeLocalInformation {
  ULONG type;
  ULONG configuration;
  ULONG maximumInstances;
  ULONG currentInstances;
  ULONG inboundQuota;
  ULONG readDataAvailable;
  ULONG outboundQuota;
  ULONG writeQuotaAvailable;
  ULONG state;
  ULONG end;
};

using NtQueryInformationFileFunction = NTSTATUS NTAPI(HANDLE, IO_STATUS_BLOCK*, void*, ULONG,
                                                      ULONG);

std::string WithCrLf(std::string_view text) {
  std::string result;
  result.reserve(text.size() + 64);
  for (const char character : text) {
    if (character == '\n') {
      result += '\r';
    }
    result += character;
  }
  return result;
}

WORD AttributesOf(Colour colour, WORD plain) {
  constexpr WORD allForeground =
      FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE | FOREGROUND_INTENSITY;
  const WORD background = plain & static_cast<WORD>(~allForeground);
  switch (colour) {
    case Colour::kGreen:
      return background | FOREGROUND_GREEN | FOREGROUND_INTENSITY;
    case Colour::kYellow:
      return background | FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_INTENSITY;
    case Colour::kRed:
      return background | FOREGROUND_RED | FOREGROUND_INTENSITY;
    case Colour::kGrey:
      return background | FOREGROUND_INTENSITY;
    case Colour::kPlain:
      break;
  }
  return plain;
}

}  // namespace

Output::Output(DWORD standardHandle) : m_handle(GetStdHandle(standardHandle)) {
  DWORD mode = 0;
  CONSOLE_SCREEN_BUFFER_INFO info{};
  m_isConsole = m_handle != nullptr && GetConsoleMode(m_handle, &mode) != 0;
  if (m_isConsole && GetConsoleScreenBufferInfo(m_handle, &info)) {
    m_plain = info.wAttributes;
  }
  // One that was closed before the program was started is as good as none.
  SetLastError(ERROR_SUCCESS);
  if (!m_isConsole && GetFileType(m_handle) == FILE_TYPE_UNKNOWN &&
      GetLastError() == ERROR_INVALID_HANDLE) {
    m_handle = nullptr;
  }
}

bool Output::Write(std::string_view text, Colour colour) {
  if (m_handle == nullptr || m_handle == INVALID_HANDLE_VALUE) {
    return true;
  }
  const std::string lines = WithCrLf(text);
  const bool isWritten = m_isConsole ? WriteCharacters(lines, colour) : WriteBytes(lines);
  if (!isWritten && m_error == ERROR_SUCCESS) {
    const DWORD error = GetLastError();
    // A pipe that takes nothing at the moment gives no error.
    m_error = error == ERROR_SUCCESS ? DWORD{ERROR_WRITE_FAULT} : error;
  }
  return isWritten;
}

// A write of nothing would not do: a reader takes it for the end.
bool Output::IsAbandoned() const {
  if (m_error == ERROR_BROKEN_PIPE || m_error == ERROR_NO_DATA ||
      m_error == ERROR_PIPE_NOT_CONNECTED) {
    return true;
  }
  auto* const query = ProcAddress<NtQueryInformationFileFunction>(GetModuleHandleW(L"ntdll.dll"),
                                                                  "NtQueryInformationFile");
  IO_STATUS_BLOCK status{};
  PipeLocalInformation pipe{};
  return !m_isConsole && query != nullptr &&
         query(m_handle, &status, &pipe, sizeof(pipe), kFilePipeLocalInformation) == 0 &&
         pipe.state == kPipeIsClosing;
}

bool Output::WriteBytes(const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    DWORD written = 0;
    SetLastError(ERROR_SUCCESS);
    if (!WriteFile(m_handle, text.data() + done, static_cast<DWORD>(text.size() - done), &written,
                   nullptr) ||
        written == 0) {
      return false;
    }
    done += written;
  }
  return true;
}

bool Output::WriteCharacters(const std::string& text, Colour colour) {
  // Old consoles take no more at once.
  constexpr std::size_t most = 8000;
  if (colour != Colour::kPlain) {
    SetConsoleTextAttribute(m_handle, AttributesOf(colour, m_plain));
  }
  const std::wstring characters = Wide(text);
  bool isWritten = true;
  for (std::size_t begin = 0; isWritten && begin < characters.size();) {
    DWORD written = 0;
    const std::size_t count = std::min(most, characters.size() - begin);
    isWritten = WriteConsoleW(m_handle, characters.data() + begin, static_cast<DWORD>(count),
                              &written, nullptr) != 0 &&
                written != 0;
    begin += written;
  }
  if (colour != Colour::kPlain) {
    const LastErrorKeeper keeper;
    SetConsoleTextAttribute(m_handle, m_plain);
  }
  return isWritten;
}
