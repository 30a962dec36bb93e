#include "tests/support/text.h"

#include "support/windows_api.h"

std::string Utf8(const std::wstring& text) {
  const int length = static_cast<int>(text.size());
  const int size =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), size, nullptr, nullptr);
  return result;
}

std::wstring TestFolder() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(/*hModule=*/nullptr, path, MAX_PATH);
  const std::wstring text = path;
  return text.substr(0, text.rfind(L'\\'));
}
