// The trace as a timeline.
#pragma once

#include <string>
#include <vector>

#include "tools/vorldiag/trace/traceline.h"

// The calls and lines in the trace-event format (JSON) that the usual viewers of timelines open:
// calls as complete events, lines as instants, in microseconds since the first line.
std::string PerfettoText(const std::vector<TraceLine>& lines);
