// The text of one trace line while it is put together.
#pragma once

#include <cstddef>
#include <string_view>

#include "companions/vlevtlog/readable_text.h"

// Which characters cannot stand for themselves. Control characters, line ends and characters that
// turn the direction of a text never can.
enum class Escaping {
  kText,              // nothing more
  kField,             // blanks, which separate the fields of a line
  kCmTraceText,       // the mark that ends the text
  kCmTraceAttribute,  // quotes and angle brackets
};

// A growing UTF-8 text. What the caller of the trace hands in is escaped while it is appended
// (\n, \r, \t, \x07, \u2028, \u202E), so that a line is one line whatever it says. Starts inside
// the object and needs memory for long lines only; where there is none, the line is cut. Never
// throws.
class LineText {
 public:
  // A message may take this many bytes; the rest is cut.
  static constexpr std::size_t kMessageLimit = std::size_t{256} * 1024;

  // The room is not cleared: that would cost more than filling it.
  // cppcheck-suppress uninitMemberVar
  LineText() noexcept = default;
  LineText(const LineText&) = delete;
  LineText& operator=(const LineText&) = delete;
  ~LineText();

  // Holds for what is appended from here on, except AppendLiteral.
  void SetEscaping(Escaping escaping) noexcept { m_escaping = escaping; }

  // Everything between these two counts against the limit. EndMessage appends a mark when the
  // message was cut.
  void BeginMessage() noexcept;
  void EndMessage() noexcept;

  // As it is: the text is part of the layout.
  void AppendLiteral(std::string_view text) noexcept;

  void AppendFill(char character, std::size_t count) noexcept;

  // Text in the code page of this system. A whole text at a time: it may have characters of
  // several bytes.
  void AppendNarrow(const char* text, std::size_t length) noexcept;
  void AppendNarrow(std::string_view text) noexcept { AppendNarrow(text.data(), text.size()); }

  // UTF-16; half of a pair becomes U+FFFD.
  void AppendWide(const wchar_t* text, std::size_t length) noexcept;

  // There is always room for the line end.
  void EndLine() noexcept;

  // How much of a text that the caller of the trace handed in can be appended; see ReadableMemory.
  template <typename Char>
  std::size_t ReadableLength(const Char* text, std::size_t limit) noexcept {
    return m_memory.LengthOf(text, limit);
  }

  std::string_view View() const noexcept { return {m_data, m_size}; }

 private:
  bool Reserve(std::size_t count) noexcept;
  bool IsPlain(char character) const noexcept;
  void AppendPlainRun(const char* text, std::size_t length) noexcept;
  void AppendCharacter(char32_t character) noexcept;
  void AppendEscape(char32_t character) noexcept;
  void AppendConverted(const char* text, std::size_t length) noexcept;

  static constexpr std::size_t kInnerSize = 1024;
  static constexpr std::size_t kUnlimited = static_cast<std::size_t>(-1);

  char m_inner[kInnerSize];
  char* m_data = m_inner;
  std::size_t m_size = 0;
  std::size_t m_capacity = kInnerSize;
  std::size_t m_limit = kUnlimited;
  bool m_isFull = false;
  Escaping m_escaping = Escaping::kText;
  ReadableMemory m_memory;
};
