#pragma once

#include <cstddef>
#include <cwchar>

#include "support/windows_api.h"

inline constexpr std::size_t kUnreadable = static_cast<std::size_t>(-1);

// The length of a text that the caller handed in, at most `limit`; kUnreadable when the pointer
// leads nowhere. A wrong pointer must cost a caller one text and not the process. These functions
// are the ones that have a handler for the fault in every compiler that builds this.
inline std::size_t ReadableLength(const char* text, std::size_t limit) noexcept {
  return IsBadStringPtrA(text, limit) ? kUnreadable : strnlen(text, limit);
}
inline std::size_t ReadableLength(const wchar_t* text, std::size_t limit) noexcept {
  return IsBadStringPtrW(text, limit) ? kUnreadable : wcsnlen(text, limit);
}
