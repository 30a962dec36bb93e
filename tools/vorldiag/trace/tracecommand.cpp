#include "tools/vorldiag/trace/tracecommand.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "tools/vorldiag/report/json.h"
#include "tools/vorldiag/text/utf8.h"
#include "tools/vorldiag/trace/calltree.h"
#include "tools/vorldiag/trace/follower.h"

using Json = nlohmann::ordered_json;

namespace {

constexpr char kNoStart[] = "The trace shows no start of the service.";
constexpr char kNoStop[] = "The trace shows no stop of the service.";

bool ContainsIgnoringCase(const std::string& text, const std::string& part) {
  return std::search(text.begin(), text.end(), part.begin(), part.end(),
                     [](unsigned char left, unsigned char right) {
                       return std::tolower(left) == std::tolower(right);
                     }) != text.end();
}

Colour ColourOf(const TraceLine& line) {
  switch (line.level) {
    case 1:
      return IsNormalError(line) ? Colour::kPlain : Colour::kRed;
    case 2:
      return Colour::kPlain;
    default:
      return Colour::kGrey;
  }
}

std::string Right(const std::string& text, std::size_t width) {
  return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

std::string Milliseconds(std::int64_t span) { return std::to_string(span) + " ms"; }

bool PrintRow(const TreeRow& row, std::int64_t begin, Output& output) {
  constexpr std::size_t width = 8;
  const TraceLine& line = *row.line;
  const std::string indent = Right("+" + std::to_string(line.moment - begin), width) + "  " +
                             std::string(2 * row.depth, ' ');
  if (!row.isCall) {
    return output.Write(indent + line.text + "\n", ColourOf(line));
  }
  return output.Write(indent + line.function + "  " + Milliseconds(row.end - line.moment) +
                      (row.hasExit ? "" : ", without Exit") + "\n");
}

// What to say of a start or stop in one or two sentences.
std::string Summary(const Episode& episode) {
  const std::string head = episode.run->lines.front()->time + ", process " +
                           std::to_string(episode.run->processId) + ": ";
  if (episode.name == std::string("stop")) {
    return head + episode.stop.reason + ", " +
           (episode.stop.end == nullptr
                ? "not over"
                : "took " + Milliseconds(episode.stop.end->moment - episode.stop.begin->moment));
  }
  const StartFacts& start = episode.start;
  if (start.IsComplete()) {
    return head + "up after " + Milliseconds(start.Milliseconds());
  }
  const StartStep& missing = StartSteps()[start.reached];
  return head + "step " + std::to_string(start.reached + 1) + " of " +
         std::to_string(StartSteps().size()) + " is missing: \"" + missing.text + "\" of " +
         missing.function + ". " + missing.whenMissing;
}

// Signalled by Ctrl+C and whatever else ends a console program.
HANDLE StopEvent() {
  static const KernelHandle stop(CreateEventW(/*lpEventAttributes=*/nullptr, /*bManualReset=*/TRUE,
                                              /*bInitialState=*/FALSE, /*lpName=*/nullptr));
  return stop.Get();
}

// Runs on a thread that Windows makes for it.
BOOL WINAPI OnControl(DWORD /*control*/) { return SetEvent(StopEvent()); }

Json LineToJson(const TraceLine& line) {
  return {{"time", line.time},
          {"level", LevelWord(line.level)},
          {"process", line.processId},
          {"thread", line.threadId},
          {"module", ValidUtf8(line.module)},
          {"function", ValidUtf8(line.function)},
          {"source", ValidUtf8(line.source)},
          {"text", ValidUtf8(line.text)}};
}

bool WriteJsonLine(const TraceLine& line, Output& output) {
  Json json = JsonHead("trace");
  json["lines"] = Json::array({LineToJson(line)});
  return output.Write(json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

}  // namespace

bool TraceFilter::Takes(const TraceLine& line) const {
  return (level == 0 || line.level <= level) && (process == 0 || line.processId == process) &&
         ContainsIgnoringCase(line.function, function) &&
         (since.empty() || line.time.compare(0, since.size(), since) >= 0) &&
         (until.empty() || line.time.compare(0, until.size(), until) <= 0);
}

bool PrintLine(const TraceLine& line, Output& output) {
  return output.Write(line.time + " " + LevelWord(line.level) + " " +
                          std::to_string(line.processId) + " " + std::to_string(line.threadId) +
                          " " + line.module + " " + line.function + " " + line.source + " " +
                          line.text + "\n",
                      ColourOf(line));
}

bool FollowTrace(const std::wstring& folder, const TraceFilter& filter, bool isJson,
                 Output& output) {
  TraceFollower follower(folder);
  FolderWatch watch(folder);
  StopEvent();
  SetConsoleCtrlHandler(OnControl, TRUE);
  Output(STD_ERROR_HANDLE).Write("Following " + Utf8(folder) + ", until Ctrl+C.\n");
  const auto writeNew = [&] {
    for (const TraceLine& line : follower.Poll()) {
      if (filter.Takes(line) && !(isJson ? WriteJsonLine(line, output) : PrintLine(line, output))) {
        return false;
      }
    }
    return true;
  };
  while (watch.Wait(StopEvent())) {
    if (!writeNew() || output.IsAbandoned()) {
      return false;
    }
  }
  return writeNew();
}

Episode LastStart(const std::vector<ProcessRun>& runs) {
  Episode episode;
  for (const ProcessRun& run : runs) {
    episode.run = run.isService ? &run : episode.run;
  }
  if (episode.run == nullptr) {
    return episode;
  }
  episode.start = StartOf(*episode.run);
  for (const TraceLine* line : episode.run->lines) {
    episode.lines.push_back(line);
    if (episode.start.IsComplete() && line == episode.start.end) {
      break;
    }
  }
  return episode;
}

Episode LastStop(const std::vector<ProcessRun>& runs) {
  Episode episode;
  episode.name = "stop";
  for (const ProcessRun& run : runs) {
    if (run.isService && StopOf(run).begin != nullptr) {
      episode.run = &run;
    }
  }
  if (episode.run == nullptr) {
    return episode;
  }
  episode.stop = StopOf(*episode.run);
  const auto& lines = episode.run->lines;
  episode.lines.assign(std::find(lines.begin(), lines.end(), episode.stop.begin), lines.end());
  return episode;
}

bool PrintEpisode(const Episode& episode, Output& output) {
  if (episode.run == nullptr) {
    return output.Write(std::string(episode.name == std::string("stop") ? kNoStop : kNoStart) +
                        "\n");
  }
  bool isWritten = output.Write(Summary(episode) + "\n");
  const std::int64_t begin = episode.lines.front()->moment;
  for (const ThreadTree& tree : CallTrees(episode.lines)) {
    isWritten = output.Write("\nThread " + std::to_string(tree.threadId) + "\n") && isWritten;
    for (const TreeRow& row : tree.rows) {
      isWritten = PrintRow(row, begin, output) && isWritten;
    }
  }
  return isWritten;
}

Json LinesToJson(const std::vector<TraceLine>& lines, const TraceFilter& filter) {
  Json json = JsonHead("trace");
  json["lines"] = Json::array();
  for (const TraceLine& line : lines) {
    if (filter.Takes(line)) {
      json["lines"].push_back(LineToJson(line));
    }
  }
  return json;
}

Json EpisodeToJson(const Episode& episode) {
  Json json = JsonHead("trace");
  json["episode"] = episode.name;
  json["found"] = episode.run != nullptr;
  if (episode.run == nullptr) {
    return json;
  }
  json["summary"] = ValidUtf8(Summary(episode));
  json["process"] = episode.run->processId;
  json["threads"] = Json::array();
  const std::int64_t begin = episode.lines.front()->moment;
  for (const ThreadTree& tree : CallTrees(episode.lines)) {
    Json rows = Json::array();
    for (const TreeRow& row : tree.rows) {
      Json entry = {{"at", row.line->moment - begin},
                    {"depth", row.depth},
                    {"function", ValidUtf8(row.line->function)}};
      if (row.isCall) {
        entry["milliseconds"] = row.end - row.line->moment;
        entry["exit"] = row.hasExit;
      } else {
        entry["level"] = LevelWord(row.line->level);
        entry["text"] = ValidUtf8(row.line->text);
      }
      rows.push_back(entry);
    }
    json["threads"].push_back({{"thread", tree.threadId}, {"rows", rows}});
  }
  return json;
}
