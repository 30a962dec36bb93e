// Standard output and error in UTF-8: a console gets the characters whatever its code page is, a
// file or pipe gets the bytes. Lines end with CR LF.
#pragma once

#include <string>
#include <string_view>

#include "support/windows_api.h"

enum class Colour { kPlain, kGreen, kYellow, kRed, kGrey };

class Output {
 public:
  // STD_OUTPUT_HANDLE or STD_ERROR_HANDLE. A program that has none may write all the same.
  explicit Output(DWORD standardHandle);

  // `text`: UTF-8, whole characters, lines ending with "\n". The colour shows on a console only.
  // False when it cannot be written: the disk is full, or nobody reads the pipe any more.
  bool Write(std::string_view text, Colour colour = Colour::kPlain);

  bool IsConsole() const { return m_isConsole; }

 private:
  bool WriteBytes(const std::string& text);
  bool WriteCharacters(const std::string& text, Colour colour);

  HANDLE m_handle;
  bool m_isConsole = false;
  WORD m_plain = 0;
};
