// What single processes of the program did, as their lines in the trace tell it.
#pragma once

#include <string>
#include <vector>

#include "tools/vorldiag/trace/traceline.h"

// One process of vorlsrvc.exe, from the first line of `main` on, with the lines of the libraries
// and modules in it.
struct ProcessRun {
  unsigned long processId = 0;
  bool isService = false;  // else a command
  std::string word;        // the command, such as "-start"
  std::vector<const TraceLine*> lines;

  // The first line of `function` with `text`; null when there is none.
  const TraceLine* Find(const char* function, const char* text) const;
};

// All runs, in the order of their beginning. They point into `lines`.
std::vector<ProcessRun> RunsOf(const std::vector<TraceLine>& lines);

// One step of a start: the line that shows that it was reached, and what it means when that line is
// missing.
struct StartStep {
  const char* text;
  const char* function;
  const char* whenMissing;
};

// In the order in which a start reaches them; the last means that the service is up.
const std::vector<StartStep>& StartSteps();

struct StartFacts {
  const TraceLine* begin = nullptr;
  const TraceLine* end = nullptr;  // of the last step that was reached
  std::size_t reached = 0;         // how many steps, from the first on without a gap
  bool IsComplete() const { return reached == StartSteps().size(); }
  long long Milliseconds() const { return end->moment - begin->moment; }
};

struct StopFacts {
  const TraceLine* begin = nullptr;  // null when the run shows no stop
  const TraceLine* end = nullptr;    // null when it is not over, or the process has broken off
  std::string reason;
};

StartFacts StartOf(const ProcessRun& run);
StopFacts StopOf(const ProcessRun& run);

// Lines of level error that are no part of ordinary runs.
std::vector<const TraceLine*> ErrorsOf(const ProcessRun& run);

// Whether such a line is normal.
bool IsNormalError(const TraceLine& line);
