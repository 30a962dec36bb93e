#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

struct FakeTraceLine;

// One ordered list of what happens: trace lines as they are written ("<function>: <text>") and the
// calls that a test's patches note. From any thread.
class Timeline {
 public:
  // Trace lines of the operations `leftOut` do not appear.
  explicit Timeline(std::set<std::string> leftOut = {});
  ~Timeline();
  Timeline(const Timeline&) = delete;
  Timeline& operator=(const Timeline&) = delete;

  void Note(std::string entry);

  // Forgets what has happened so far.
  void Clear();

  std::vector<std::string> Entries() const;

  // The entries that are calls, without the trace lines.
  std::vector<std::string> Calls() const;

 private:
  struct Entry {
    bool isCall;
    std::string text;
  };

  static void OnTraceLine(const FakeTraceLine* line, void* context);
  void Add(Entry entry);

  const std::set<std::string> m_leftOut;
  mutable std::mutex m_mutex;
  std::vector<Entry> m_entries;
};
