#include "support/textconv.h"

int AnsiToWide(const char* narrow, wchar_t* wide, int capacity) noexcept {
  int length =
      MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, narrow, /*cbMultiByte=*/-1, wide, capacity);
  if (length == 0 && GetLastError() == ERROR_INVALID_FLAGS) {
    length = MultiByteToWideChar(CP_ACP, /*dwFlags=*/0, narrow, /*cbMultiByte=*/-1, wide, capacity);
  }
  return length;
}

bool NarrowToWide(const char* narrow, wchar_t* wide, int capacity) noexcept {
  const bool converted = AnsiToWide(narrow, wide, capacity) != 0;
  if (!converted) {
    wide[0] = L'\0';
  }
  return converted;
}

bool WideToNarrow(const wchar_t* wide, char* narrow, int capacity) noexcept {
  const bool converted =
      WideCharToMultiByte(CP_ACP, /*dwFlags=*/0, wide, /*cchWideChar=*/-1, narrow, capacity,
                          /*lpDefaultChar=*/nullptr, /*lpUsedDefaultChar=*/nullptr) != 0;
  if (!converted) {
    narrow[0] = '\0';
  }
  return converted;
}
