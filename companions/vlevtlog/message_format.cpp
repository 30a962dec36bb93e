#include "companions/vlevtlog/message_format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "companions/vlevtlog/format_reader.h"
#include "companions/vlevtlog/line_text.h"

namespace {

constexpr std::string_view kNullText = "(null)";
constexpr std::string_view kUnreadableText = "(unreadable)";
// Reading one more than fits shows that a text must be cut.
constexpr std::size_t kReadLimit = LineText::kMessageLimit + 1;
constexpr int kFloatPrecisionLimit = 64;
constexpr int kPointerDigits = 2 * sizeof(void*);

void AppendText(LineText& line, const char* text, std::size_t length) noexcept {
  line.AppendNarrow(text, length);
}
void AppendText(LineText& line, const wchar_t* text, std::size_t length) noexcept {
  line.AppendWide(text, length);
}

void Pad(LineText& line, const Conversion& conversion, std::size_t length, bool isBefore) noexcept {
  const auto width = static_cast<std::size_t>(conversion.width);
  if (isBefore != conversion.isLeft && length < width) {
    line.AppendFill(' ', width - length);
  }
}

template <typename Char>
void AppendPadded(LineText& line, const Conversion& conversion, const Char* text,
                  std::size_t length) noexcept {
  Pad(line, conversion, length, true);
  AppendText(line, text, length);
  Pad(line, conversion, length, false);
}

template <typename Char>
void AppendString(LineText& line, const Conversion& conversion, const Char* text) noexcept {
  if (text == nullptr) {
    AppendPadded(line, conversion, kNullText.data(), kNullText.size());
    return;
  }
  const std::size_t limit =
      conversion.precision == kNotGiven
          ? kReadLimit
          : std::min(kReadLimit, static_cast<std::size_t>(conversion.precision));
  const std::size_t length = line.ReadableLength(text, limit);
  if (length == kUnreadable) {
    AppendPadded(line, conversion, kUnreadableText.data(), kUnreadableText.size());
    return;
  }
  AppendPadded(line, conversion, text, length);
}

// A number's digits with everything around them.
void AppendDigits(LineText& line, const Conversion& conversion, std::string_view prefix,
                  std::string_view digits) noexcept {
  std::size_t zeros = 0;
  const auto width = static_cast<std::size_t>(conversion.width);
  if (conversion.precision != kNotGiven) {
    const auto precision = static_cast<std::size_t>(conversion.precision);
    zeros = precision > digits.size() ? precision - digits.size() : 0;
  } else if (conversion.hasZeros && !conversion.isLeft) {
    const std::size_t length = prefix.size() + digits.size();
    zeros = width > length ? width - length : 0;
  }
  const std::size_t length = prefix.size() + zeros + digits.size();
  Pad(line, conversion, length, true);
  line.AppendLiteral(prefix);
  line.AppendFill('0', zeros);
  line.AppendLiteral(digits);
  Pad(line, conversion, length, false);
}

std::string_view SignOf(const Conversion& conversion, bool isNegative) noexcept {
  if (isNegative) {
    return "-";
  }
  if (conversion.hasPlus) {
    return "+";
  }
  return conversion.hasBlank ? " " : "";
}

void AppendInteger(LineText& line, const Conversion& conversion, std::string_view sign,
                   std::uint64_t value) noexcept {
  char digits[24];
  int base = 10;
  std::string_view prefix = sign;
  switch (conversion.type) {
    case 'o':
      base = 8;
      prefix = conversion.isAlternate && value != 0 ? "0" : "";
      break;
    case 'x':
      base = 16;
      prefix = conversion.isAlternate && value != 0 ? "0x" : "";
      break;
    case 'X':
      base = 16;
      prefix = conversion.isAlternate && value != 0 ? "0X" : "";
      break;
    default:
      break;
  }
  char* const end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
  if (conversion.type == 'X') {
    std::transform(digits, end, digits, [](char digit) {
      return digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit;
    });
  }
  const bool isNothing = value == 0 && conversion.precision == 0;
  AppendDigits(line, conversion, prefix,
               {digits, isNothing ? 0 : static_cast<std::size_t>(end - digits)});
}

std::int64_t TakeSigned(Arguments& arguments, ArgumentSize size) noexcept {
  switch (size) {
    case ArgumentSize::kByte:
      return static_cast<signed char>(va_arg(arguments.list, int));
    case ArgumentSize::kShort:
      return static_cast<short>(va_arg(arguments.list, int));
    case ArgumentSize::kLong:
      return va_arg(arguments.list, long);
    case ArgumentSize::k64:
      return va_arg(arguments.list, long long);
    default:
      return va_arg(arguments.list, int);
  }
}

std::uint64_t TakeUnsigned(Arguments& arguments, ArgumentSize size) noexcept {
  switch (size) {
    case ArgumentSize::kByte:
      return static_cast<unsigned char>(va_arg(arguments.list, unsigned));
    case ArgumentSize::kShort:
      return static_cast<unsigned short>(va_arg(arguments.list, unsigned));
    case ArgumentSize::kLong:
      return va_arg(arguments.list, unsigned long);
    case ArgumentSize::k64:
      return va_arg(arguments.list, unsigned long long);
    default:
      return va_arg(arguments.list, unsigned);
  }
}

// `precision`: kNotGiven for the conversion's own.
int PrintFloat(char (&text)[512], const Conversion& conversion, int precision,
               double value) noexcept {
  const bool isAlternate = conversion.isAlternate;
  switch (conversion.type) {
    case 'f':
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*f" : "%.*f", precision, value);
    case 'F':
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*F" : "%.*F", precision, value);
    case 'e':
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*e" : "%.*e", precision, value);
    case 'E':
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*E" : "%.*E", precision, value);
    case 'g':
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*g" : "%.*g", precision, value);
    case 'G':
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*G" : "%.*G", precision, value);
    case 'a':
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*a" : "%.*a", precision, value);
    default:
      return std::snprintf(text, sizeof text, isAlternate ? "%#.*A" : "%.*A", precision, value);
  }
}

void AppendFloat(LineText& line, Conversion conversion, double value) noexcept {
  char text[512];
  const int length = PrintFloat(
      text, conversion, std::min(conversion.precision, kFloatPrecisionLimit), std::fabs(value));
  std::string_view digits(text, static_cast<std::size_t>(std::clamp(length, 0, 511)));
  conversion.precision = kNotGiven;
  conversion.hasZeros = conversion.hasZeros && std::isfinite(value);
  // The sign or prefix, which stands in front of zeros that fill a width.
  char prefix[3];
  std::size_t prefixLength = 0;
  for (const char sign : SignOf(conversion, std::signbit(value))) {
    prefix[prefixLength++] = sign;
  }
  if (digits.size() > 2 && (digits[1] == 'x' || digits[1] == 'X')) {
    prefix[prefixLength++] = digits[0];
    prefix[prefixLength++] = digits[1];
    digits.remove_prefix(2);
  }
  AppendDigits(line, conversion, {prefix, prefixLength}, digits);
}

bool IsWideArgument(const Conversion& conversion, bool isWideFormat) noexcept {
  switch (conversion.size) {
    case ArgumentSize::kShort:
      return false;
    case ArgumentSize::kLong:
    case ArgumentSize::kWide:
      return true;
    default:
      return (conversion.type == 's' || conversion.type == 'c') == isWideFormat;
  }
}

// Appends one argument; false for a conversion that is none.
bool AppendArgument(LineText& line, const Conversion& conversion, bool isWideFormat,
                    Arguments& arguments) noexcept {
  switch (conversion.type) {
    case 'd':
    case 'i': {
      const std::int64_t value = TakeSigned(arguments, conversion.size);
      const auto bits = static_cast<std::uint64_t>(value);
      AppendInteger(line, conversion, SignOf(conversion, value < 0), value < 0 ? 0 - bits : bits);
      return true;
    }
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      AppendInteger(line, conversion, "", TakeUnsigned(arguments, conversion.size));
      return true;
    case 'p': {
      Conversion hexadecimal = conversion;
      hexadecimal.type = 'X';
      hexadecimal.precision = kPointerDigits;
      AppendInteger(line, hexadecimal, "", TakeUnsigned(arguments, ArgumentSize::k64));
      return true;
    }
    case 'c':
    case 'C': {
      const int value = va_arg(arguments.list, int);
      if (IsWideArgument(conversion, isWideFormat)) {
        const auto unit = static_cast<wchar_t>(value);
        AppendPadded(line, conversion, &unit, 1);
      } else {
        const char byte = static_cast<char>(value);
        AppendPadded(line, conversion, &byte, 1);
      }
      return true;
    }
    case 's':
    case 'S':
      if (IsWideArgument(conversion, isWideFormat)) {
        AppendString(line, conversion, va_arg(arguments.list, const wchar_t*));
      } else {
        AppendString(line, conversion, va_arg(arguments.list, const char*));
      }
      return true;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      AppendFloat(line, conversion, va_arg(arguments.list, double));
      return true;
    case 'n':
      static_cast<void>(va_arg(arguments.list, void*));
      return true;
    default:
      return false;
  }
}

template <typename Char>
void AppendAll(LineText& line, const Char* format, Arguments& arguments) noexcept {
  const std::size_t length = format != nullptr ? line.ReadableLength(format, kReadLimit) : 0;
  if (format == nullptr || length == kUnreadable) {
    line.AppendLiteral(format == nullptr ? kNullText : kUnreadableText);
    return;
  }
  FormatReader<Char> reader(format, length);
  while (!reader.IsAtEnd()) {
    const Char* const text = reader.At();
    reader.SkipTo('%');
    AppendText(line, text, static_cast<std::size_t>(reader.At() - text));
    const Char* const conversionText = reader.At();
    const std::size_t left = reader.Left();
    if (!reader.Take('%')) {
      return;
    }
    if (reader.Take('%')) {
      line.AppendLiteral("%");
      continue;
    }
    if (!AppendArgument(line, reader.TakeConversion(arguments), sizeof(Char) > 1, arguments)) {
      // It is unknown what argument it takes, and so it is for all that follow.
      AppendText(line, conversionText, left);
      return;
    }
  }
}

}  // namespace

void AppendFormatted(LineText& line, const char* format, va_list list) noexcept {
  Arguments arguments(list);
  AppendAll(line, format, arguments);
}

void AppendFormatted(LineText& line, const wchar_t* format, va_list list) noexcept {
  Arguments arguments(list);
  AppendAll(line, format, arguments);
}
