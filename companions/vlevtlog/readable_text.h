// Reads texts that a caller handed in, which may be no texts at all.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t kUnreadable = static_cast<std::size_t>(-1);

// Knows which memory may be read, for the time of one call of the trace. A wrong pointer must cost
// the caller one text and not the process. Nor may the look at it touch a guard page: that works
// once only, and belongs to a stack, whose thread would end the process later without it. So
// Windows is asked before a page is touched, except for the thread's own stack and the program's
// own image, where most texts lie.
class ReadableMemory {
 public:
  // In characters, at most `limit`; kUnreadable when memory that cannot be read comes before both
  // the limit and the terminator.
  std::size_t LengthOf(const char* text, std::size_t limit) noexcept;
  std::size_t LengthOf(const wchar_t* text, std::size_t limit) noexcept;

 private:
  template <typename Char>
  std::size_t Length(const Char* text, std::size_t limit) noexcept;
  std::uintptr_t EndFrom(std::uintptr_t address) noexcept;

  // What Windows said last: most texts of a call lie near each other.
  std::uintptr_t m_start = 0;
  std::uintptr_t m_end = 0;
};
