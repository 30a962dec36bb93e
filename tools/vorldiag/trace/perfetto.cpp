#include "tools/vorldiag/trace/perfetto.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/vorldiag/text/utf8.h"
#include "tools/vorldiag/trace/calltree.h"

using Json = nlohmann::ordered_json;

namespace {

constexpr std::int64_t kMicroseconds = 1000;  // of a millisecond

Json EventOf(const TreeRow& row, std::int64_t origin) {
  const TraceLine& line = *row.line;
  Json event = {{"name", ValidUtf8(row.isCall ? line.function : line.text)},
                {"cat", line.module},
                {"ph", row.isCall ? "X" : "i"},
                {"ts", (line.moment - origin) * kMicroseconds},
                {"pid", line.processId},
                {"tid", line.threadId}};
  if (row.isCall) {
    event["dur"] = (row.end - line.moment) * kMicroseconds;
    event["args"] = {{"source", line.source}};
  } else {
    event["s"] = "t";
    event["args"] = {{"level", LevelWord(line.level)},
                     {"function", ValidUtf8(line.function)},
                     {"source", line.source}};
  }
  return event;
}

}  // namespace

std::string PerfettoText(const std::vector<TraceLine>& lines) {
  Json events = Json::array();
  std::map<unsigned long, std::vector<const TraceLine*>> ofProcess;
  std::int64_t origin = lines.empty() ? 0 : lines.front().moment;
  for (const TraceLine& line : lines) {
    origin = std::min(origin, line.moment);
    ofProcess[line.processId].push_back(&line);
  }
  for (const auto& [processId, ofOne] : ofProcess) {
    events.push_back({{"name", "process_name"},
                      {"ph", "M"},
                      {"pid", processId},
                      {"tid", 0},
                      {"args", {{"name", ofOne.front()->module}}}});
    for (const ThreadTree& tree : CallTrees(ofOne)) {
      for (const TreeRow& row : tree.rows) {
        events.push_back(EventOf(row, origin));
      }
    }
  }
  const Json document = {{"displayTimeUnit", "ms"}, {"traceEvents", events}};
  return document.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}
