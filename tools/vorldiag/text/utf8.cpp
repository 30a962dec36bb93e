#include "tools/vorldiag/text/utf8.h"

#include "support/windows_api.h"

namespace {

std::wstring ToWide(UINT codePage, std::string_view text) {
  const int length = static_cast<int>(text.size());
  std::wstring wide(
      static_cast<std::size_t>(MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0)),
      L'\0');
  if (wide.empty()) {
    return wide;  // with no room the function would give the size again
  }
  wide.resize(static_cast<std::size_t>(MultiByteToWideChar(
      codePage, 0, text.data(), length, wide.data(), static_cast<int>(wide.size()))));
  return wide;
}

}  // namespace

std::string Utf8(std::wstring_view wide) {
  const int length = static_cast<int>(wide.size());
  std::string utf8(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, wide.data(), length,
                                                                nullptr, 0, nullptr, nullptr)),
                   '\0');
  if (utf8.empty()) {
    return utf8;
  }
  utf8.resize(static_cast<std::size_t>(
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(),
                          static_cast<int>(utf8.size()), nullptr, nullptr)));
  return utf8;
}

std::wstring Wide(std::string_view utf8) { return ToWide(CP_UTF8, utf8); }

std::string Utf8FromAnsi(std::string_view ansi) { return Utf8(ToWide(CP_ACP, ansi)); }

std::string ValidUtf8(std::string_view text) { return Utf8(Wide(text)); }

std::string ErrorText(unsigned long error) {
  wchar_t text[512] = {};
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                error, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  while (length > 0 && text[length - 1] <= L' ') {
    --length;
  }
  const std::string number = "error " + std::to_string(error);
  return length == 0 ? number : number + " (" + Utf8({text, length}) + ")";
}

bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right) {
  return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                              static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}
