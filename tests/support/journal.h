// Trace lines and calls in one list.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/fakes/vlevtlog_fake.h"

// One ordered list of what an operation does: its trace lines and the calls that the fakes of this
// folder stand in for. One may live at a time; it begins an empty trace record.
//
// The trace library is a hostile one as long as a journal lives: each of its calls leaves rubbish
// in the thread's last error.
class Journal {
 public:
  // Whether a line shows the format that it travelled as where that is not "%s". A library says its
  // texts in formats of its own, which are nobody else's affair.
  enum class Formats { kShown, kLeftOut };

  explicit Journal(Formats formats = Formats::kShown);
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Appends one call. Leaves the last error as it is.
  void Call(const std::string& text);

  // Everything so far, in order: calls as they were appended, trace lines as Traced writes them.
  std::vector<std::string> Entries() const;

  // The trace lines only, the calls only.
  std::vector<std::string> Traces() const;
  std::vector<std::string> Calls() const;

  void Clear();

  // The trace lines so far, and then Clear.
  std::vector<std::string> TakeTraces();

  // Puts what happens beside calls and trace lines, such as output and changed variables, in its
  // place in the list. `observe` gives the text of what has happened since it was last asked, or
  // nothing; it is asked ahead of each entry and a last time by the call that ends the watch, with
  // an empty function. One at a time.
  void Watch(std::function<std::string()> observe);

 private:
  struct Entry {
    bool isTrace;
    std::string text;
  };
  enum class Kind { kAll, kTraces, kCalls };

  static void OnTrace(const FakeTraceLine* line, void* context);
  void Add(bool isTrace, const std::string& text);
  void Observe();
  std::vector<std::string> Select(Kind kind) const;

  const Formats m_formats;
  mutable std::mutex m_mutex;
  std::vector<Entry> m_entries;
  std::function<std::string()> m_observe;
};

// How a journal shows a trace line that names the module "vorlsrvc.exe" and travelled as the
// argument of "%s"; any other line looks different.
std::string Traced(int level, const std::string& function, const std::string& source,
                   const std::string& text);

// What follows that where the line travelled as a format of its own.
std::string AsFormat(const std::string& format);

// What follows that where the line names another module.
std::string OfModule(const std::string& module);

// How a journal shows a line of the recording trace library.
std::string JournalText(const FakeTraceLine& line,
                        Journal::Formats formats = Journal::Formats::kShown);

// How a list shows what was printed on the console.
std::string Printed(const std::string& text);

// What a call left in the last error when it succeeded or closed a handle, and what every trace
// call leaves there: no product code may report it.
constexpr unsigned long kRubbishError = 59999;

// Pieces of a call's text: hexadecimal with "0x", UTF-8 of wide text in double quotes or "null".
std::string Hex(unsigned long long value);
std::string Quoted(const char* text);
std::string Quoted(const wchar_t* text);
