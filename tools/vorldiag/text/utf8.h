// Text inside this program is UTF-8, whatever the system's code page is. These are its borders to
// Windows.
#pragma once

#include <string>
#include <string_view>

std::string Utf8(std::wstring_view wide);
std::wstring Wide(std::string_view utf8);

// From the system's ANSI code page.
std::string Utf8FromAnsi(std::string_view ansi);

// Text that may be UTF-8 or damaged: what is no UTF-8 is replaced, so that it can go into JSON.
std::string ValidUtf8(std::string_view text);

// "error 5 (Access is denied.)", in the system's language.
std::string ErrorText(unsigned long error);

// Whether both are equal but for the letters' case.
bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right);
