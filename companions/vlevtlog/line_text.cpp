#include "companions/vlevtlog/line_text.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "support/windows_api.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kCutMark = " [cut]";
constexpr std::string_view kCmTraceEndOfText = "]LOG]!>";
constexpr char32_t kReplacementCharacter = 0xFFFD;

constexpr std::size_t kEscapings = 4;
using PlainCharacters = std::array<bool, 256>;

constexpr PlainCharacters PlainExcept(std::string_view escaped) {
  PlainCharacters plain{};
  for (std::size_t code = ' '; code < 0x7F; ++code) {
    plain[code] = escaped.find(static_cast<char>(code)) == std::string_view::npos;
  }
  return plain;
}

// One set for each value of Escaping, in its order. Of the mark that ends a text the last character
// is looked for; what stands before it is looked at then.
constexpr std::array<PlainCharacters, kEscapings> kPlain = {PlainExcept(""), PlainExcept(" "),
                                                            PlainExcept(">"), PlainExcept("\"<>")};

constexpr bool IsLineOrControl(char32_t character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0) || character == 0x2028 ||
         character == 0x2029;
}

// All of Unicode's characters that turn the direction of a text (Bidi_Control): a viewer that obeys
// them shows a line in an order in which it was not written.
constexpr bool IsDirection(char32_t character) {
  return character == 0x061C || character == 0x200E || character == 0x200F ||
         (character >= 0x202A && character <= 0x202E) ||
         (character >= 0x2066 && character <= 0x2069);
}

constexpr bool IsHighSurrogate(wchar_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
constexpr bool IsLowSurrogate(wchar_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

}  // namespace

LineText::~LineText() {
  if (m_data != m_inner) {
    std::free(m_data);
  }
}

void LineText::BeginMessage() noexcept { m_limit = m_size + kMessageLimit; }

void LineText::EndMessage() noexcept {
  const bool wasCut = m_isFull;
  m_isFull = false;
  m_limit = kUnlimited;
  if (wasCut) {
    AppendLiteral(kCutMark);
  }
}

void LineText::AppendLiteral(std::string_view text) noexcept {
  AppendPlainRun(text.data(), text.size());
}

void LineText::AppendFill(char character, std::size_t count) noexcept {
  if (count == 0) {
    return;
  }
  char run[64];
  std::memset(run, character, sizeof run);
  while (count > 0 && !m_isFull) {
    const std::size_t length = std::min(count, sizeof run);
    AppendPlainRun(run, length);
    count -= length;
  }
}

void LineText::AppendNarrow(const char* text, std::size_t length) noexcept {
  const PlainCharacters& plain = kPlain[static_cast<std::size_t>(m_escaping)];
  const char* const end = text + length;
  while (text != end && !m_isFull) {
    const char* const run = text;
    while (text != end && plain[static_cast<unsigned char>(*text)]) {
      ++text;
    }
    AppendPlainRun(run, static_cast<std::size_t>(text - run));
    if (text == end) {
      return;
    }
    const auto code = static_cast<unsigned char>(*text);
    if (code >= 0x80) {
      AppendConverted(text, static_cast<std::size_t>(end - text));
      return;
    }
    AppendCharacter(code);
    ++text;
  }
}

void LineText::AppendWide(const wchar_t* text, std::size_t length) noexcept {
  for (std::size_t i = 0; i < length && !m_isFull; ++i) {
    const wchar_t unit = text[i];
    if (IsHighSurrogate(unit) && i + 1 < length && IsLowSurrogate(text[i + 1])) {
      const auto high = static_cast<char32_t>(unit - 0xD800);
      const auto low = static_cast<char32_t>(text[i + 1] - 0xDC00);
      AppendCharacter(0x10000 + (high << 10) + low);
      ++i;
    } else if (IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
      AppendCharacter(kReplacementCharacter);
    } else {
      AppendCharacter(unit);
    }
  }
}

void LineText::EndLine() noexcept {
  // Reserve has kept room for it.
  std::memcpy(m_data + m_size, kLineEnd.data(), kLineEnd.size());
  m_size += kLineEnd.size();
}

bool LineText::Reserve(std::size_t count) noexcept {
  if (m_isFull || count > m_limit - m_size) {
    m_isFull = true;
    return false;
  }
  const std::size_t needed = m_size + count + kLineEnd.size();
  if (needed <= m_capacity) {
    return true;
  }
  const std::size_t capacity = std::max(needed, m_capacity * 2);
  char* const old = m_data != m_inner ? m_data : nullptr;
  char* const grown = static_cast<char*>(std::realloc(old, capacity));
  if (grown == nullptr) {
    m_isFull = true;
    return false;
  }
  if (old == nullptr) {
    std::memcpy(grown, m_inner, m_size);
  }
  m_data = grown;
  m_capacity = capacity;
  return true;
}

bool LineText::IsPlain(char character) const noexcept {
  return kPlain[static_cast<std::size_t>(m_escaping)][static_cast<unsigned char>(character)];
}

void LineText::AppendPlainRun(const char* text, std::size_t length) noexcept {
  if (m_isFull) {
    return;
  }
  const std::size_t taken = std::min(length, m_limit - m_size);
  if (taken > 0 && Reserve(taken)) {
    std::memcpy(m_data + m_size, text, taken);
    m_size += taken;
  }
  m_isFull = m_isFull || taken < length;
}

void LineText::AppendCharacter(char32_t character) noexcept {
  if (character < 0x80 && IsPlain(static_cast<char>(character))) {
    const char plain = static_cast<char>(character);
    AppendPlainRun(&plain, 1);
    return;
  }
  if (m_escaping == Escaping::kCmTraceText && character == U'>' &&
      !View().ends_with(kCmTraceEndOfText.substr(0, kCmTraceEndOfText.size() - 1))) {
    AppendLiteral(">");
    return;
  }
  if (character < 0x80 || IsLineOrControl(character) || IsDirection(character)) {
    AppendEscape(character);
    return;
  }
  char bytes[4];
  std::size_t count = 0;
  const auto tail = [&](unsigned shift) {
    bytes[count++] = static_cast<char>(0x80 | ((character >> shift) & 0x3F));
  };
  if (character < 0x800) {
    bytes[count++] = static_cast<char>(0xC0 | (character >> 6));
    tail(0);
  } else if (character < 0x10000) {
    bytes[count++] = static_cast<char>(0xE0 | (character >> 12));
    tail(6);
    tail(0);
  } else {
    bytes[count++] = static_cast<char>(0xF0 | (character >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
  if (Reserve(count)) {
    AppendPlainRun(bytes, count);
  }
}

void LineText::AppendEscape(char32_t character) noexcept {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const auto digit = [&](unsigned shift) { return kDigits[(character >> shift) & 0xF]; };
  char text[6] = {'\\'};
  std::size_t length = 0;
  switch (character) {
    case U'\n':
      text[1] = 'n';
      length = 2;
      break;
    case U'\r':
      text[1] = 'r';
      length = 2;
      break;
    case U'\t':
      text[1] = 't';
      length = 2;
      break;
    default:
      if (character < 0x80) {
        text[1] = 'x';
        text[2] = digit(4);
        text[3] = digit(0);
        length = 4;
      } else {
        text[1] = 'u';
        text[2] = digit(12);
        text[3] = digit(8);
        text[4] = digit(4);
        text[5] = digit(0);
        length = 6;
      }
      break;
  }
  if (Reserve(length)) {
    AppendPlainRun(text, length);
  }
}

void LineText::AppendConverted(const char* text, std::size_t length) noexcept {
  const int narrowLength = static_cast<int>(std::min(length, kMessageLimit));
  // A character of any code page takes no more units than it had bytes.
  const auto wideSize = static_cast<std::size_t>(narrowLength);
  wchar_t inner[256];
  wchar_t* const wide = wideSize <= sizeof inner / sizeof inner[0]
                            ? inner
                            : static_cast<wchar_t*>(std::malloc(wideSize * sizeof(wchar_t)));
  if (wide == nullptr) {
    m_isFull = true;
    return;
  }
  const int wideLength =
      MultiByteToWideChar(CP_ACP, 0, text, narrowLength, wide, static_cast<int>(wideSize));
  if (wideLength > 0) {
    AppendWide(wide, static_cast<std::size_t>(wideLength));
  } else {
    m_isFull = true;
  }
  if (wide != inner) {
    std::free(wide);
  }
}
