#include "tools/vorldiag/report/page.h"

#include <algorithm>
#include <cstdint>

#include "tools/vorldiag/documents/explanations.h"
#include "tools/vorldiag/report/html.h"
#include "tools/vorldiag/trace/runs.h"
#include "tools/vorldiag/trace/timeline.h"

namespace {

constexpr std::size_t kRuns = 5;
constexpr std::size_t kSlowSteps = 3;
constexpr std::size_t kErrorKinds = 30;

std::string Badge(const std::string& cssClass, const std::string& word) {
  return HtmlTag("span", "badge " + cssClass, HtmlText(word));
}

std::string Row(const std::string& badge, const std::string& what, const std::string& how,
                const std::string& advice) {
  return HtmlTag(
      "div", "row",
      badge + HtmlTag("div", "what", HtmlText(what)) +
          HtmlTag(
              "div", "how",
              HtmlText(how) + (advice.empty() ? "" : HtmlTag("div", "advice", HtmlText(advice)))));
}

std::string SectionsHtml(const Report& report) {
  std::string html;
  for (const Section& section : report.sections) {
    html += HtmlTag("h3", "", HtmlText(section.title));
    for (const Finding& finding : section.findings) {
      const std::string word = VerdictWord(finding.verdict);
      html += Row(Badge(word, word), finding.title, finding.value, finding.advice);
    }
  }
  return html;
}

// What is not as it should be, the errors first.
std::string AttentionHtml(const Report& report) {
  std::string html;
  for (const Verdict verdict : {Verdict::kError, Verdict::kWarning}) {
    for (const Section& section : report.sections) {
      for (const Finding& finding : section.findings) {
        if (finding.verdict == verdict) {
          html += Row(Badge(VerdictWord(verdict), VerdictWord(verdict)),
                      section.title + ": " + finding.title, finding.value, finding.advice);
        }
      }
    }
  }
  return html.empty() ? HtmlTag("p", "", "Nothing.") : html;
}

std::string Heading(const Snapshot& snapshot) {
  return HtmlTag("h1", "", "Client Agent on " + HtmlText(snapshot.computer)) +
         HtmlTag("p", "note", HtmlText(snapshot.moment) + ", vorldiag " + HtmlText(VORL_VERSION)) +
         HtmlTag("p", std::string("sum ") + VerdictWord(snapshot.status.Worst()),
                 HtmlText(snapshot.status.Sum()));
}

// A bar whose whole width is `scale` milliseconds.
std::string Drawing(const Timeline& timeline, std::int64_t scale, const std::string& label) {
  constexpr double width = 1000;
  const std::vector<Stretch> slowest = Slowest(timeline, 1);
  std::string bars;
  bool isOdd = false;
  for (const Stretch& stretch : timeline.stretches) {
    if (stretch.Milliseconds() == 0) {
      continue;
    }
    // From here on there is a slowest one, and the scale is no less.
    isOdd = !isOdd;
    const bool isSlowest = slowest[0].begin == stretch.begin;
    const double place = width / static_cast<double>(scale);
    char bar[200];
    std::snprintf(bar, sizeof(bar),
                  "<rect x=\"%.2f\" y=\"0\" width=\"%.2f\" height=\"26\" fill=\"%s\">",
                  static_cast<double>(stretch.begin) * place,
                  static_cast<double>(stretch.Milliseconds()) * place,
                  isSlowest ? "#d9730d"
                  : isOdd   ? "#2f6fab"
                            : "#79a8d3");
    bars +=
        bar +
        HtmlTag("title", "",
                HtmlText(std::to_string(stretch.Milliseconds()) + " ms until " + stretch.step)) +
        "</rect>\n";
  }
  return "<svg class=\"line\" viewBox=\"0 0 1000 26\" preserveAspectRatio=\"none\" role=\"img\" "
         "aria-label=\"" +
         HtmlText(label) + "\">\n" + bars + "</svg>\n" +
         HtmlTag("div", "scale",
                 HtmlTag("span", "", "0 ms") + HtmlTag("span", "", std::to_string(scale) + " ms"));
}

std::string TimelineHtml(const Timeline& timeline, std::int64_t scale, const std::string& title,
                         const std::string& explanation) {
  std::string html = HtmlTag("h3", "", HtmlText(title));
  if (!explanation.empty()) {
    html += HtmlTag("p", "", Badge("error", "error") + HtmlText(explanation));
  }
  html += Drawing(timeline, scale, title);
  std::string steps;
  for (const Stretch& stretch : Slowest(timeline, kSlowSteps)) {
    steps += HtmlTag("li", "",
                     HtmlText(std::to_string(stretch.Milliseconds()) + " ms until ") +
                         HtmlTag("code", "", HtmlText(stretch.step)));
  }
  html += steps.empty() ? "" : HtmlTag("ol", "slow", steps);
  return HtmlTag("div", "run", html);
}

struct Start {
  const ProcessRun* run;
  StartFacts facts;
  Timeline timeline;
};

struct Stop {
  const ProcessRun* run;
  StopFacts facts;
  Timeline timeline;
};

std::string HeadOf(const char* kind, const std::string& time, const ProcessRun& run) {
  return std::string(kind) + " of " + time + ", process " + std::to_string(run.processId) + ": ";
}

std::string StartsHtml(const std::vector<Start>& starts) {
  std::int64_t scale = 0;
  for (const Start& start : starts) {
    scale = std::max(scale, start.timeline.Milliseconds());
  }
  std::string html;
  for (const Start& start : starts) {
    const std::string head = HeadOf("Start", start.facts.begin->time, *start.run);
    if (start.facts.IsComplete()) {
      html +=
          TimelineHtml(start.timeline, scale,
                       head + "up after " + std::to_string(start.facts.Milliseconds()) + " ms", "");
    } else {
      const StartStep& missing = StartSteps()[start.facts.reached];
      html +=
          TimelineHtml(start.timeline, scale, head + "not completed",
                       "Step " + std::to_string(start.facts.reached + 1) + " of " +
                           std::to_string(StartSteps().size()) + " is missing: \"" + missing.text +
                           "\" of " + missing.function + ". " + missing.whenMissing);
    }
  }
  return html.empty() ? HtmlTag("p", "", "The trace shows no start of the service.") : html;
}

std::string StopsHtml(const std::vector<Stop>& stops) {
  std::int64_t scale = 0;
  for (const Stop& stop : stops) {
    scale = std::max(scale, stop.timeline.Milliseconds());
  }
  std::string html;
  for (const Stop& stop : stops) {
    const std::string head = HeadOf("Stop", stop.facts.begin->time, *stop.run);
    html += TimelineHtml(
        stop.timeline, scale,
        head + stop.facts.reason +
            (stop.facts.end == nullptr
                 ? ", not over"
                 : ", took " + std::to_string(stop.facts.end->moment - stop.facts.begin->moment) +
                       " ms"),
        "");
  }
  return html.empty() ? HtmlTag("p", "", "The trace shows no stop of the service.") : html;
}

std::string TimelinesHtml(const std::vector<ProcessRun>& runs) {
  std::vector<Start> starts;
  std::vector<Stop> stops;
  for (auto run = runs.rbegin(); run != runs.rend(); ++run) {
    if (!run->isService) {
      continue;
    }
    if (starts.size() < kRuns) {
      const StartFacts facts = StartOf(*run);
      starts.push_back({&*run, facts, TimelineOf(facts, *run)});
    }
    const StopFacts facts = StopOf(*run);
    if (stops.size() < kRuns && facts.begin != nullptr) {
      stops.push_back({&*run, facts, TimelineOf(facts, *run)});
    }
  }
  return HtmlTag("p", "note",
                 "Latest first. All starts are drawn on one scale, all stops on another; each "
                 "colour is a step, orange the slowest.") +
         StartsHtml(starts) + StopsHtml(stops);
}

// Equal lines together, the latest first.
struct ErrorKind {
  const TraceLine* latest;
  std::size_t count;
};

std::string ErrorsHtml(const std::vector<TraceLine>& lines) {
  std::vector<ErrorKind> kinds;
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    if (line->level != 1 || IsNormalError(*line)) {
      continue;
    }
    const auto known = std::find_if(kinds.begin(), kinds.end(), [&](const ErrorKind& kind) {
      return kind.latest->text == line->text && kind.latest->function == line->function;
    });
    if (known != kinds.end()) {
      ++known->count;
    } else {
      kinds.push_back({&*line, 1});
    }
  }
  std::string html;
  for (std::size_t i = 0; i < std::min(kinds.size(), kErrorKinds); ++i) {
    const TraceLine& line = *kinds[i].latest;
    const Explanation* const found = AllExplanations().Find(line);
    html += Row(Badge("error", Counted(kinds[i].count, "time")), line.function,
                line.text + " (" + line.module + ", " + line.time + ")",
                found == nullptr
                    ? "Not among the lines that the documents explain."
                    : found->meaning + (found->advice.empty() ? "" : ". To do: ") + found->advice);
  }
  if (kinds.size() > kErrorKinds) {
    html +=
        HtmlTag("p", "note",
                Counted(kinds.size() - kErrorKinds, "older kind") + " of error lines left out.");
  }
  return html.empty() ? HtmlTag("p", "", "None that are not usual.") : html;
}

std::string SettingsHtml(const Settings& settings) {
  std::string html;
  if (!settings.problem.empty()) {
    html += HtmlTag("p", "", Badge("error", "error") + HtmlText(settings.problem));
  }
  const auto orEmpty = [](const std::string& text) { return text.empty() ? "(empty)" : text; };
  for (const bool isDefault : {false, true}) {
    for (const Setting& setting : settings.settings) {
      if (setting.IsDefault() != isDefault) {
        continue;
      }
      html += isDefault ? Row(Badge("plain", "default"), setting.section + " " + setting.key,
                              orEmpty(setting.byDefault), "")
                        : Row(Badge("set", "set"), setting.section + " " + setting.key,
                              setting.value + " (default: " + orEmpty(setting.byDefault) + ")", "");
    }
  }
  return html;
}

std::string Part(const std::string& id, const std::string& title, const std::string& content) {
  return "<section id=\"" + id + "\">\n" + HtmlTag("h2", "", HtmlText(title)) + content +
         "</section>\n";
}

}  // namespace

std::string ReportPage(const Snapshot& snapshot) {
  const TraceContent& trace = snapshot.trace;
  const std::string limit =
      trace.isComplete ? "" : HtmlTag("p", "note", "Older files of the trace were not read.");
  return HtmlDocument(
      "Client Agent on " + snapshot.computer,
      Heading(snapshot) + Part("attention", "To be looked at", AttentionHtml(snapshot.status)) +
          Part("status", "Status", SectionsHtml(snapshot.status)) +
          Part("identity", "Identity", SectionsHtml(snapshot.identity)) +
          Part("timeline", "Last starts and stops", TimelinesHtml(RunsOf(trace.lines)) + limit) +
          Part("errors", "Error lines", ErrorsHtml(trace.lines) + limit) +
          Part("settings", "Settings", SettingsHtml(snapshot.settings)));
}
