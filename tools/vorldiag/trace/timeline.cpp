#include "tools/vorldiag/trace/timeline.h"

#include <algorithm>

namespace {

void AddStretch(const TraceLine& line, std::int64_t origin, Timeline& timeline) {
  // The lines of two threads may stand in another order than their times.
  const std::int64_t begin = timeline.Milliseconds();
  timeline.stretches.push_back(
      {begin, std::max(begin, line.moment - origin), "\"" + line.text + "\" of " + line.function});
}

}  // namespace

Timeline TimelineOf(const StartFacts& start, const ProcessRun& run) {
  Timeline timeline;
  for (std::size_t i = 1; i < start.reached; ++i) {
    const StartStep& step = StartSteps()[i];
    // It is there: the step was reached.
    AddStretch(*run.Find(step.function, step.text), start.begin->moment, timeline);
  }
  return timeline;
}

Timeline TimelineOf(const StopFacts& stop, const ProcessRun& run) {
  Timeline timeline;
  if (stop.begin == nullptr) {
    return timeline;
  }
  auto line = std::find(run.lines.begin(), run.lines.end(), stop.begin);
  while (line != run.lines.end() && *line != stop.end && ++line != run.lines.end()) {
    AddStretch(**line, stop.begin->moment, timeline);
  }
  return timeline;
}

std::vector<Stretch> Slowest(const Timeline& timeline, std::size_t count) {
  std::vector<Stretch> stretches = timeline.stretches;
  std::stable_sort(stretches.begin(), stretches.end(), [](const Stretch& a, const Stretch& b) {
    return a.Milliseconds() > b.Milliseconds();
  });
  while (!stretches.empty() && (stretches.size() > count || stretches.back().Milliseconds() == 0)) {
    stretches.pop_back();
  }
  return stretches;
}
