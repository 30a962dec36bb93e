// The lines that the recording trace library has taken.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/fakes/vlevtlog_fake.h"

// One trace line as tests compare it. The source's line number and the thread are left out.
struct TraceLine {
  int level;
  std::string function;
  std::string source;  // path of the file inside the repository
  std::string format;  // as it reached the library
  std::string text;
  bool wide = false;

  bool operator==(const TraceLine&) const = default;
};

std::ostream& operator<<(std::ostream& out, const TraceLine& line);

// Begins an empty record at its construction. Expect whole, ordered lists of lines:
//
//   TraceRecorder recorder;
//   EXPECT_FALSE(StartServiceByName(nullptr));
//   EXPECT_THAT(recorder.Lines(), ElementsAre(
//       Line(2, "StartServiceByName", "service/vorlfun.cpp", "Entry"),
//       Line(1, "StartServiceByName", "service/vorlfun.cpp", "NULL Parameter received")));
class TraceRecorder {
 public:
  TraceRecorder() { FakeTraceClear(); }
  ~TraceRecorder() { FakeTraceSetCallback(nullptr, nullptr); }
  TraceRecorder(const TraceRecorder&) = delete;
  TraceRecorder& operator=(const TraceRecorder&) = delete;

  // All lines so far; checks on the way that each names the module "vorlsrvc.exe" and a line number
  // above 0.
  std::vector<TraceLine> Lines() const;

  // The lines of one function only, in order.
  std::vector<TraceLine> LinesOf(const std::string& function) const;
};

// A line that was handed over as the argument of "%s".
TraceLine Line(int level, const std::string& function, const std::string& source,
               const std::string& text);

// A line whose format was handed to the library with its arguments.
TraceLine DirectLine(int level, const std::string& function, const std::string& source,
                     const std::string& format, const std::string& text);

// The same through LogTraceW.
TraceLine WideLine(int level, const std::string& function, const std::string& source,
                   const std::string& format, const std::string& text);
