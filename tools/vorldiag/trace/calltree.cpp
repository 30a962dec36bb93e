#include "tools/vorldiag/trace/calltree.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace {

// "Entry", "Entry." and " Entry" are the same.
bool IsWord(const TraceLine& line, std::string_view word) {
  std::string_view text = line.text;
  if (!text.empty() && text.front() == ' ') {
    text.remove_prefix(1);
  }
  if (!text.empty() && text.back() == '.') {
    text.remove_suffix(1);
  }
  return text == word;
}

class Builder {
 public:
  explicit Builder(const std::vector<const TraceLine*>& lines) : m_lines(lines) {}

  std::vector<TreeRow> Build() {
    for (m_index = 0; m_index < m_lines.size(); ++m_index) {
      Take(*m_lines[m_index]);
      for (const std::size_t open : m_open) {
        m_rows[open].end = m_lines[m_index]->moment;
      }
    }
    return std::move(m_rows);
  }

 private:
  const TreeRow& Top() const { return m_rows[m_open.back()]; }

  void Take(const TraceLine& line) {
    if (IsWord(line, "Entry")) {
      TakeEntry(line);
      return;
    }
    const auto caller = std::find_if(m_open.rbegin(), m_open.rend(), [&](std::size_t row) {
      return m_rows[row].line->function == line.function;
    });
    if (caller != m_open.rend()) {
      m_open.erase(caller.base(), m_open.end());
      if (IsWord(line, "Exit")) {
        Close(line);
        return;
      }
    }
    m_rows.push_back({&line, m_open.size(), false, line.moment, false});
    m_last[line.function] = &line;
  }

  void TakeEntry(const TraceLine& line) {
    // No operation calls itself: a second "Entry" in a row stands in place of its "Exit".
    if (!m_open.empty() && Top().line->function == line.function) {
      Close(line);
      return;
    }
    while (!m_open.empty() && IsOver(*Top().line)) {
      m_open.pop_back();
    }
    m_rows.push_back({&line, m_open.size(), true, line.moment, false});
    m_open.push_back(m_rows.size() - 1);
    m_last[line.function] = &line;
  }

  void Close(const TraceLine& line) {
    m_rows[m_open.back()].end = line.moment;
    m_rows[m_open.back()].hasExit = true;
    m_open.pop_back();
  }

  // Whether the call that began with `entry` writes nothing any more and was not calling anybody
  // when it wrote last.
  bool IsOver(const TraceLine& entry) const {
    for (std::size_t i = m_index; i < m_lines.size(); ++i) {
      if (m_lines[i]->function == entry.function) {
        return IsWord(*m_lines[i], "Entry");
      }
    }
    constexpr std::string_view calling = "efore ";  // "Before", "before"
    return m_last.at(entry.function)->text.find(calling) == std::string::npos;
  }

  const std::vector<const TraceLine*>& m_lines;
  std::size_t m_index = 0;
  std::vector<TreeRow> m_rows;
  std::vector<std::size_t> m_open;  // the calls under way, outermost first
  std::map<std::string, const TraceLine*> m_last;
};

}  // namespace

std::vector<ThreadTree> CallTrees(const std::vector<const TraceLine*>& lines) {
  std::vector<ThreadTree> trees;
  std::map<unsigned long, std::vector<const TraceLine*>> ofThread;
  for (const TraceLine* line : lines) {
    if (ofThread.count(line->threadId) == 0) {
      trees.push_back({line->threadId, {}});
    }
    ofThread[line->threadId].push_back(line);
  }
  for (ThreadTree& tree : trees) {
    tree.rows = Builder(ofThread[tree.threadId]).Build();
  }
  return trees;
}
