#include "tools/vorldiag/status/tracecheck.h"

#include <gmock/gmock.h>

using ::testing::HasSubstr;

namespace {

// A trace in which the process of this number has begun as the service does.
void AddStart(TraceContent& trace, unsigned long processId) {
  for (const char* const text : {"Entry", "No Arguments hence returning"}) {
    TraceLine line;
    line.moment = static_cast<std::int64_t>(trace.lines.size());
    line.time = "now";
    line.level = 2;
    line.processId = processId;
    line.module = "vorlsrvc.exe";
    line.function = trace.lines.size() % 2 == 0 ? "main" : "CNTService::ParseStandardArgs";
    line.text = text;
    trace.lines.push_back(line);
  }
}

TEST(LastStart, IsThatOfTheServiceAlsoWhenTheProgramIsStartedByHandMeanwhile) {
  Situation situation;
  situation.state = SERVICE_STATUS_PROCESS{};
  situation.state->dwCurrentState = SERVICE_RUNNING;
  situation.state->dwProcessId = 4711;
  TraceContent trace;
  AddStart(trace, 4711);
  AddStart(trace, 5);
  EXPECT_THAT(CheckTrace(situation, trace).findings.at(0).value, HasSubstr("process 4711"));

  // The youngest one of a service that is stopped; none of one that runs under another number.
  situation.state->dwCurrentState = SERVICE_STOPPED;
  EXPECT_THAT(CheckTrace(situation, trace).findings.at(0).value, HasSubstr("process 5"));
  situation.state->dwCurrentState = SERVICE_RUNNING;
  situation.state->dwProcessId = 6;
  EXPECT_THAT(CheckTrace(situation, trace).findings.at(0).value,
              HasSubstr("none in the trace of the process that runs"));
}

}  // namespace
