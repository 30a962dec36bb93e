#pragma once

#include <string>
#include <utility>

#include "tests/support/journal.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

// A line as a test expects it, in a list of TraceLine and in a journal alike.
class ExpectedLine {
 public:
  explicit ExpectedLine(TraceLine line) : m_line(std::move(line)) {}

  operator const TraceLine&() const { return m_line; }
  operator std::string() const {
    std::string text = Traced(m_line.level, m_line.function, m_line.source, m_line.text);
    if (m_line.wide || m_line.format != "%s") {
      text += AsFormat(m_line.format);
    }
    return text;
  }

 private:
  TraceLine m_line;
};

// The lines of one operation, written in a test as the operation writes them:
//
//   constexpr ExpectedTrace start{"StartServiceByName", "service/vorlfun.cpp"};
//   EXPECT_THAT(recorder.Lines(), ElementsAre(start.Info("Entry"),
//                                             start.Error("NULL Parameter received")));
class ExpectedTrace {
 public:
  // `source`: the path of the file inside the repository.
  constexpr ExpectedTrace(const char* function, const char* source)
      : m_function(function), m_source(source) {}

  ExpectedLine Error(const std::string& text) const { return Plain(1, text); }
  ExpectedLine Info(const std::string& text) const { return Plain(2, text); }
  ExpectedLine Verbose(const std::string& text) const { return Plain(8, text); }

  // Lines whose format, narrow or wide, the library was given with its arguments.
  template <typename Char>
  ExpectedLine ErrorDirect(const Char* format, const std::string& text) const {
    return Direct(1, format, text);
  }
  template <typename Char>
  ExpectedLine InfoDirect(const Char* format, const std::string& text) const {
    return Direct(2, format, text);
  }
  template <typename Char>
  ExpectedLine VerboseDirect(const Char* format, const std::string& text) const {
    return Direct(8, format, text);
  }

 private:
  ExpectedLine Plain(int level, const std::string& text) const {
    return ExpectedLine({level, m_function, m_source, "%s", text});
  }
  ExpectedLine Direct(int level, const char* format, const std::string& text) const {
    return ExpectedLine({level, m_function, m_source, format, text});
  }
  ExpectedLine Direct(int level, const wchar_t* format, const std::string& text) const {
    return ExpectedLine({level, m_function, m_source, Utf8(format), text, /*wide=*/true});
  }

  const char* m_function;
  const char* m_source;
};
