#include "tools/vorldiag/text/output.h"

#include <algorithm>
#include <string>

#include "tools/vorldiag/text/utf8.h"

namespace {

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
}

bool Output::Write(std::string_view text, Colour colour) {
  if (m_handle == nullptr || m_handle == INVALID_HANDLE_VALUE) {
    return true;
  }
  const std::string lines = WithCrLf(text);
  if (m_isConsole) {
    return WriteCharacters(lines, colour);
  }
  return WriteBytes(lines);
}

bool Output::WriteBytes(const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    DWORD written = 0;
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
    SetConsoleTextAttribute(m_handle, m_plain);
  }
  return isWritten;
}
