// Reads the format of a message: what stands as it is, and the conversions. For message_format
// only.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>

// What stands in front of the letter: none, hh, h, l, w, ll or I64, I32.
enum class ArgumentSize { kDefault, kByte, kShort, kLong, kWide, k64, k32 };

// What stands for a precision that the format does not state.
constexpr int kNotGiven = -1;

// One conversion of a format: what stands between a percent sign and its letter, and the letter.
struct Conversion {
  bool isLeft = false;
  bool hasPlus = false;
  bool hasBlank = false;
  bool isAlternate = false;
  bool hasZeros = false;
  int width = 0;
  int precision = kNotGiven;
  ArgumentSize size = ArgumentSize::kDefault;
  char type = 0;
};

// The arguments of a call. A va_list cannot be handed on by reference everywhere, a structure can.
struct Arguments {
  explicit Arguments(va_list from) noexcept { va_copy(list, from); }
  ~Arguments() { va_end(list); }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;
  va_list list;
};

// Goes through a format of `length` characters.
template <typename Char>
class FormatReader {
 public:
  FormatReader(const Char* format, std::size_t length) noexcept
      : m_at(format), m_end(format + length) {}

  bool IsAtEnd() const noexcept { return m_at == m_end; }
  const Char* At() const noexcept { return m_at; }
  std::size_t Left() const noexcept { return static_cast<std::size_t>(m_end - m_at); }
  void SkipTo(char character) noexcept {
    while (m_at != m_end && *m_at != static_cast<Char>(character)) {
      ++m_at;
    }
  }
  bool Take(char character) noexcept {
    if (m_at != m_end && *m_at == static_cast<Char>(character)) {
      ++m_at;
      return true;
    }
    return false;
  }

  // Reads what follows a percent sign.
  Conversion TakeConversion(Arguments& arguments) noexcept {
    Conversion conversion;
    TakeFlags(conversion);
    conversion.width = TakeNumber(arguments);
    if (conversion.width < 0) {
      conversion.isLeft = true;
      conversion.width = -conversion.width;
    }
    if (Take('.')) {
      conversion.precision = std::max(TakeNumber(arguments), kNotGiven);
    }
    conversion.size = TakeSize();
    if (m_at != m_end) {
      conversion.type = *m_at > 0 && *m_at < 0x80 ? static_cast<char>(*m_at) : '\0';
      ++m_at;
    }
    return conversion;
  }

 private:
  static constexpr int kNumberLimit = 1'000'000;

  void TakeFlags(Conversion& conversion) noexcept {
    for (;;) {
      if (Take('-')) {
        conversion.isLeft = true;
      } else if (Take('+')) {
        conversion.hasPlus = true;
      } else if (Take(' ')) {
        conversion.hasBlank = true;
      } else if (Take('#')) {
        conversion.isAlternate = true;
      } else if (Take('0')) {
        conversion.hasZeros = true;
      } else {
        return;
      }
    }
  }

  int TakeNumber(Arguments& arguments) noexcept {
    if (Take('*')) {
      return std::clamp(va_arg(arguments.list, int), -kNumberLimit, kNumberLimit);
    }
    int number = 0;
    while (m_at != m_end && *m_at >= '0' && *m_at <= '9') {
      number = std::min(number * 10 + static_cast<int>(*m_at - '0'), kNumberLimit);
      ++m_at;
    }
    return number;
  }

  bool TakeDigits(char first, char second) noexcept {
    if (Left() >= 2 && m_at[0] == static_cast<Char>(first) &&
        m_at[1] == static_cast<Char>(second)) {
      m_at += 2;
      return true;
    }
    return false;
  }

  ArgumentSize TakeSize() noexcept {
    if (Take('h')) {
      return Take('h') ? ArgumentSize::kByte : ArgumentSize::kShort;
    }
    if (Take('l')) {
      return Take('l') ? ArgumentSize::k64 : ArgumentSize::kLong;
    }
    if (Take('I')) {
      return TakeDigits('3', '2') ? ArgumentSize::k32 : (TakeDigits('6', '4'), ArgumentSize::k64);
    }
    if (Take('z') || Take('t') || Take('j')) {
      return ArgumentSize::k64;
    }
    return Take('w') ? ArgumentSize::kWide : ArgumentSize::kDefault;
  }

  const Char* m_at;
  const Char* m_end;
};
