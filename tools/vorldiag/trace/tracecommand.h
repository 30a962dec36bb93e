// The command that shows the trace.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/vorldiag/text/output.h"
#include "tools/vorldiag/trace/runs.h"
#include "tools/vorldiag/trace/tracefiles.h"

// Which lines are wanted; empty or 0: all of them.
struct TraceFilter {
  int level = 0;         // this level and those that are more important
  std::string function;  // a part of the function's name, letters in any case
  unsigned long process = 0;
  std::string since;  // "2026-03-09 07:05", local time as the trace writes it
  std::string until;

  bool Takes(const TraceLine& line) const;
};

// One line, coloured by its level. False when it cannot be written.
bool PrintLine(const TraceLine& line, Output& output);

// Writes the lines that come, until the console says stop (Ctrl+C) or nobody takes them any more:
// false for the latter. As JSON: one document of one line for each.
bool FollowTrace(const std::wstring& folder, const TraceFilter& filter, bool isJson,
                 Output& output);

// The latest start or stop of the service, as an indented tree of calls.
struct Episode {
  const char* name = "start";
  const ProcessRun* run = nullptr;  // null when the trace has none
  std::vector<const TraceLine*> lines;
  StartFacts start;  // of a start
  StopFacts stop;    // of a stop
};

Episode LastStart(const std::vector<ProcessRun>& runs);
Episode LastStop(const std::vector<ProcessRun>& runs);

bool PrintEpisode(const Episode& episode, Output& output);

nlohmann::ordered_json LinesToJson(const std::vector<TraceLine>& lines, const TraceFilter& filter);
nlohmann::ordered_json EpisodeToJson(const Episode& episode);
