// Where the time of starts and stops went.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/vorldiag/trace/runs.h"

// The time between two lines.
struct Stretch {
  std::int64_t begin = 0;  // milliseconds since the first line
  std::int64_t end = 0;
  std::string step;  // what it ended with: "\"Exit\" of main"
  std::int64_t Milliseconds() const { return end - begin; }
};

struct Timeline {
  std::vector<Stretch> stretches;  // in order, without gaps
  std::int64_t Milliseconds() const { return stretches.empty() ? 0 : stretches.back().end; }
};

// From step to step, as far as the start came.
Timeline TimelineOf(const StartFacts& start, const ProcessRun& run);

// From line to line. Empty when the run shows no stop.
Timeline TimelineOf(const StopFacts& stop, const ProcessRun& run);

// The longest stretches, longest first; those that took no time are left out.
std::vector<Stretch> Slowest(const Timeline& timeline, std::size_t count);
