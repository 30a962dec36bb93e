// Standard output and error in UTF-8: a console gets the characters whatever its code page is, a
// file or pipe gets the bytes. Lines end with CR LF.
#pragma once

#include <string>
#include <string_view>

#include "support/windows_api.h"

enum class Colour { kPlain, kGreen, kYellow, kRed, kGrey };

class Output {
 public:
  // STD_OUTPUT_HANDLE or STD_ERROR_HANDLE. A program that has none, or a closed one, may write all
  // the same.
  explicit Output(DWORD standardHandle);

  // `text`: UTF-8, whole characters, lines ending with "\n". The colour shows on a console only.
  // False when it cannot be written: the disk is full, or nobody reads the pipe any more.
  bool Write(std::string_view text, Colour colour = Colour::kPlain);

  // Whether it is known that nobody takes what is written: the reader of the pipe has gone.
  bool IsAbandoned() const;

  // Why text could not be written, the first time; ERROR_SUCCESS when all of it was.
  DWORD Error() const { return m_error; }

  bool IsConsole() const { return m_isConsole; }

 private:
  bool WriteBytes(const std::string& text);
  bool WriteCharacters(const std::string& text, Colour colour);

  HANDLE m_handle;
  DWORD m_error = ERROR_SUCCESS;
  bool m_isConsole = false;
  WORD m_plain = 0;
};
