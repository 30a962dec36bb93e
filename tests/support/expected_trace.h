// Trace lines and journals as tests expect them, in the words of the code.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/journal.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

// A line as a test expects it, in a list of TraceLine and in a journal alike.
class ExpectedLine {
 public:
  // `module`: null for the program itself.
  explicit ExpectedLine(TraceLine line, const char* module = nullptr)
      : m_line(std::move(line)), m_module(module) {}

  operator const TraceLine&() const { return m_line; }
  operator std::string() const {
    std::string text = Traced(m_line.level, m_line.function, m_line.source, m_line.text);
    if (m_line.wide || m_line.format != "%s") {
      text += AsFormat(m_line.format);
    }
    if (m_module != nullptr) {
      text += OfModule(m_module);
    }
    return text;
  }

  friend bool operator==(const std::string& entry, const ExpectedLine& expected) {
    return entry == std::string(expected);
  }
  friend std::ostream& operator<<(std::ostream& out, const ExpectedLine& expected) {
    return out << std::string(expected);
  }

 private:
  TraceLine m_line;
  const char* m_module;
};

// The lines of one operation, written in a test as the operation writes them:
//
//   constexpr ExpectedTrace kStartByName{"StartServiceByName", "service/vorlfun.cpp"};
//   EXPECT_THAT(journal.Traces(), ElementsAre(kStartByName.Info("Entry"),
//                                             kStartByName.Error("NULL Parameter received")));
//
// tests/unit/operations.h has those of the program, vorlmisc_test.h and vorlupd_test.h those of the
// two modules, whose journals leave formats out.
class ExpectedTrace {
 public:
  // `source`: the path of the file inside the repository. `module`: null for the program itself.
  constexpr ExpectedTrace(const char* function, const char* source, const char* module = nullptr)
      : m_function(function), m_source(source), m_module(module) {}

  // The lines of the same operation that another file writes.
  constexpr ExpectedTrace From(const char* source) const { return {m_function, source, m_module}; }

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

  // The lines of this operation in a journal, and whether an entry of one is such a line.
  std::vector<std::string> In(const Journal& journal) const {
    std::vector<std::string> lines = journal.Traces();
    std::erase_if(lines, [this](const std::string& line) { return !Wrote(line); });
    return lines;
  }
  bool Wrote(const std::string& entry) const {
    return entry.starts_with("level ") &&
           entry.find(std::string(" ") + m_function + " (" + m_source + "): ") == 7;
  }

 private:
  ExpectedLine Plain(int level, const std::string& text) const {
    return ExpectedLine({level, m_function, m_source, "%s", text}, m_module);
  }
  ExpectedLine Direct(int level, const char* format, const std::string& text) const {
    return ExpectedLine({level, m_function, m_source, format, text}, m_module);
  }
  ExpectedLine Direct(int level, const wchar_t* format, const std::string& text) const {
    return ExpectedLine({level, m_function, m_source, Utf8(format), text, /*wide=*/true}, m_module);
  }

  const char* m_function;
  const char* m_source;
  const char* m_module;
};
