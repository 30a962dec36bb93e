#include "tools/vorldiag/status/tracecheck.h"

#include "tools/vorldiag/documents/explanations.h"
#include "tools/vorldiag/text/utf8.h"
#include "tools/vorldiag/trace/runs.h"

namespace {

constexpr char kNoLines[] =
    "The trace is switched off, moved, or cannot be written: look at [TRACE] in vorlconf.ini, at "
    "the free space and at the rights of logs. (When it has run for long, the file with its start "
    "may be deleted by now.)";

std::string RunText(const ProcessRun& run) {
  return run.lines.front()->time + ", process " + std::to_string(run.processId);
}

// Whether this run is the process that the service manager knows.
bool IsAlive(const ProcessRun& run, const Situation& situation) {
  return situation.state && situation.state->dwCurrentState != SERVICE_STOPPED &&
         situation.state->dwProcessId == run.processId;
}

void CheckStart(const ProcessRun& run, const Situation& situation, Section& section) {
  const StartFacts start = StartOf(run);
  if (start.IsComplete()) {
    section.Ok("last-start", "Last start",
               RunText(run) + ", up after " + std::to_string(start.Milliseconds()) + " ms");
    return;
  }
  const StartStep& missing = StartSteps()[start.reached];
  const std::string value = RunText(run) + ", step " + std::to_string(start.reached + 1) + " of " +
                            std::to_string(StartSteps().size()) + " is missing: \"" + missing.text +
                            "\" of " + missing.function;
  if (IsAlive(run, situation)) {
    section.Warn("last-start", "Last start", value, missing.whenMissing);
  } else {
    section.Fail("last-start", "Last start", value, missing.whenMissing);
  }
}

void CheckErrors(const ProcessRun& run, Section& section) {
  const std::vector<const TraceLine*> errors = ErrorsOf(run);
  if (errors.empty()) {
    section.Ok("errors", "Its error lines", "none that are not usual");
    return;
  }
  const TraceLine& first = *errors.front();
  const Explanation* const found = AllExplanations().Find(first);
  section.Warn(
      "errors", "Its error lines",
      std::to_string(errors.size()) + ", the first: " + first.function + ": " + first.text,
      (found == nullptr ? "" : TextOf(*found) + " ") +
          "See all with: vorldiag trace --level error. docs/troubleshooting.md explains each.");
}

void CheckStop(const ProcessRun& run, const Situation& situation, Section& section) {
  const StopFacts stop = StopOf(run);
  if (stop.begin == nullptr) {
    section.Fail("last-stop", "Last stop", RunText(run) + " broke off without a stop",
                 "It crashed or was ended: look into the Application log, event 1000, and the "
                 "System log, events 7031 and 7034.");
    return;
  }
  if (stop.end == nullptr) {
    const std::string value = stop.begin->time + ", " + stop.reason + ", not over";
    if (IsAlive(run, situation)) {
      section.Warn("last-stop", "Last stop", value,
                   "The core is cleaning up or hangs: see the lines of vorlcore.dll.");
    } else {
      section.Fail("last-stop", "Last stop", value,
                   "The process ended in the middle of its stop: look into the Application log, "
                   "event 1000.");
    }
    return;
  }
  const std::string value = stop.begin->time + ", " + stop.reason + ", took " +
                            std::to_string(stop.end->moment - stop.begin->moment) + " ms";
  if (stop.reason.find("another program") != std::string::npos) {
    section.Warn("last-stop", "Last stop", value,
                 "Nobody asked the service itself: another module of the product or a stranger "
                 "signalled the event.");
  } else {
    section.Ok("last-stop", "Last stop", value);
  }
}

}  // namespace

Section CheckTrace(const Situation& situation, const TraceContent& trace) {
  Section section{"trace", "Last start and stop", {}};
  if (!trace.problem.empty()) {
    section.Warn("trace-files", "Trace", trace.problem, trace.advice);
  } else if (trace.lines.empty() && trace.unreadable != 0) {
    section.Warn("trace-files", "Trace", Utf8(situation.Logs()) + ": no line in it can be read",
                 "Its files are damaged, or something else has written them: move them away, so "
                 "that the service begins new ones.");
  }
  const std::vector<ProcessRun> runs = RunsOf(trace.lines);
  const ProcessRun* last = nullptr;
  const ProcessRun* beforeLast = nullptr;
  for (const ProcessRun& run : runs) {
    // A program that is started by hand while the service runs begins in the same way.
    if (run.isService &&
        (last == nullptr || !IsAlive(*last, situation) || IsAlive(run, situation))) {
      beforeLast = last;
      last = &run;
    }
  }
  if (last == nullptr) {
    if (situation.IsStopped()) {
      section.Ok("last-start", "Last start", "none in the trace");
    } else {
      section.Warn("last-start", "Last start", "none in the trace although the service runs",
                   kNoLines);
    }
    return section;
  }
  if (!situation.IsStopped() && !IsAlive(*last, situation)) {
    section.Warn("last-start", "Last start",
                 "none in the trace of the process that runs; the one before: " + RunText(*last),
                 kNoLines);
    return section;
  }
  CheckStart(*last, situation, section);
  CheckErrors(*last, section);
  const bool hasStopped = StopOf(*last).begin != nullptr || !IsAlive(*last, situation);
  if (hasStopped) {
    CheckStop(*last, situation, section);
  } else if (beforeLast != nullptr) {
    CheckStop(*beforeLast, situation, section);
  }
  return section;
}
