// A format text with the place of the call that it came from, checked by the compiler against the
// arguments of that call.
#pragma once

#include <cstddef>
#include <type_traits>

namespace trace_format {

template <typename T, typename... Choices>
constexpr bool isOneOf = (std::is_same_v<std::remove_cv_t<T>, Choices> || ...);

// Whether the conversion `conversion`, with an "l" in front of it when `isLong`, takes a T.
template <typename T>
constexpr bool Takes(bool isLong, char conversion, bool isWideFormat) {
  constexpr bool isNarrowText = isOneOf<T, const char*, char*>;
  constexpr bool isWideText = isOneOf<T, const wchar_t*, wchar_t*>;
  switch (conversion) {
    case 'd':
    case 'u':
    case 'X':
      return isLong ? isOneOf<T, long, unsigned long>
                    : std::is_integral_v<T> && sizeof(T) == sizeof(int);
    case 's':
      return isWideFormat ? isWideText : isNarrowText;
    case 'S':
      return !isWideFormat && isWideText;
    default:
      return false;
  }
}

// Moves `text` after its next conversion and says whether that conversion takes a T.
template <typename T, typename Char>
constexpr bool NextTakes(const Char*& text) {
  while (*text != 0 && *text != '%') {
    ++text;
  }
  if (*text == 0) {
    return false;
  }
  ++text;
  const bool isLong = *text == 'l';
  if (isLong) {
    ++text;
  }
  const char conversion = static_cast<char>(*text);
  if (*text != 0) {
    ++text;
  }
  return Takes<T>(isLong, conversion, std::is_same_v<Char, wchar_t>);
}

template <typename... Args, typename Char>
constexpr bool Matches(const Char* text) {
  const bool allTaken = (NextTakes<Args>(text) && ...);
  while (*text != 0 && *text != '%') {
    ++text;
  }
  return allTaken && *text == 0;
}

// Deliberately not consteval: where a check calls it while compiling, the compiler stops and prints
// this name.
inline void FormatDoesNotMatchItsArguments() {}

}  // namespace trace_format

template <typename Char, typename... Args>
struct TraceMessage {
  // Converts at the call site, which the default arguments therefore name.
  // NOLINTNEXTLINE(google-explicit-constructor): the conversion is the purpose.
  consteval TraceMessage(const Char* formatText, const char* callFile = __builtin_FILE(),
                         int callLine = __builtin_LINE())
      : text(formatText), file(callFile), line(callLine) {
    // Without arguments a text is no format: a "%" in it stands for itself.
    if constexpr (sizeof...(Args) != 0) {
      if (!trace_format::Matches<Args...>(formatText)) {
        trace_format::FormatDoesNotMatchItsArguments();
      }
    }
  }

  const Char* text;
  const char* file;
  int line;
};
