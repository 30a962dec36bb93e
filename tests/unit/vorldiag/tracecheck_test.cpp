#include "tools/vorldiag/status/tracecheck.h"

#include <gmock/gmock.h>

#include "tests/unit/vorldiag/finding_of.h"
#include "tests/unit/vorldiag/trace_lines.h"
#include "tools/vorldiag/trace/runs.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// A trace in which the process of this number has begun as the service does.
void AddStart(TraceContent& trace, unsigned long processId) {
  for (const char* const text : {"Entry", "No Arguments hence returning"}) {
    const bool isFirst = trace.lines.size() % 2 == 0;
    trace.lines.push_back(ServiceLine(static_cast<std::int64_t>(trace.lines.size()),
                                      isFirst ? "main" : "CNTService::ParseStandardArgs", text,
                                      /*level=*/2, processId));
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

// A trace of which every line is written one millisecond after the one before.
class LastStartAndStop : public ::testing::Test {
 protected:
  static constexpr unsigned long kProcess = 4711;

  void Add(const char* function, const char* text, int level = 2) {
    trace.lines.push_back(ServiceLine(static_cast<std::int64_t>(trace.lines.size()), function, text,
                                      level, processId));
  }
  void Begin() {
    Add("main", "Entry");
    Add("CNTService::ParseStandardArgs", "No Arguments hence returning");
  }
  void Start() {
    Begin();
    // The first one is the beginning.
    for (std::size_t i = 1; i < StartSteps().size(); ++i) {
      Add(StartSteps()[i].function, StartSteps()[i].text);
    }
  }
  void SetState(DWORD state, DWORD process = kProcess) {
    situation.state = SERVICE_STATUS_PROCESS{};
    situation.state->dwCurrentState = state;
    situation.state->dwProcessId = process;
  }
  Finding Look(const std::string& id) const { return FindingOf(CheckTrace(situation, trace), id); }

  unsigned long processId = kProcess;
  Situation situation;
  TraceContent trace;
};

TEST_F(LastStartAndStop, WithoutATraceAreRightOnlyWhileNothingRuns) {
  EXPECT_EQ(Look("last-start").verdict, Verdict::kOk);
  EXPECT_EQ(Look("last-start").value, "none in the trace");
  SetState(SERVICE_RUNNING);
  EXPECT_EQ(Look("last-start").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("last-start").value, "none in the trace although the service runs");
  EXPECT_THAT(Look("last-start").advice, StartsWith("The trace is switched off"));
}

TEST_F(LastStartAndStop, SayWhatCouldNotBeRead) {
  EXPECT_EQ(Look("trace-files").id, "");
  trace.unreadable = 1;
  EXPECT_THAT(Look("trace-files").value, EndsWith(": no line in it can be read"));
  Start();
  EXPECT_EQ(Look("trace-files").id, "");
  trace.problem = "it is held";
  trace.advice = "wait";
  EXPECT_EQ(Look("trace-files").value, "it is held");
  EXPECT_EQ(Look("trace-files").advice, "wait");
}

TEST_F(LastStartAndStop, OfAServiceThatRunsIsItsStart) {
  SetState(SERVICE_RUNNING);
  Start();
  EXPECT_EQ(Look("last-start").verdict, Verdict::kOk);
  EXPECT_THAT(Look("last-start").value, EndsWith("process 4711, up after 14 ms"));
  EXPECT_EQ(Look("errors").verdict, Verdict::kOk);
  EXPECT_EQ(Look("last-stop").id, "");
}

TEST_F(LastStartAndStop, NameTheStepThatIsMissing) {
  SetState(SERVICE_START_PENDING);
  Begin();
  EXPECT_EQ(Look("last-start").verdict, Verdict::kWarning);
  EXPECT_THAT(Look("last-start").value,
              EndsWith("step 2 of 14 is missing: \"After Calling SetClientAgentLogOptions\" of "
                       "main"));
  EXPECT_EQ(Look("last-start").advice, "A crash in vorlmisc.dll: install it again.");
  SetState(SERVICE_STOPPED);
  EXPECT_EQ(Look("last-start").verdict, Verdict::kError);
}

TEST_F(LastStartAndStop, NameTheFirstErrorWithItsExplanation) {
  SetState(SERVICE_RUNNING);
  Start();
  Add("CAcAsSvc::Run", "ClientAgentCoreStartUp Failed", 1);
  Add("Other", "something else", 1);
  EXPECT_EQ(Look("errors").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("errors").value, "2, the first: CAcAsSvc::Run: ClientAgentCoreStartUp Failed");
  EXPECT_THAT(Look("errors").advice, StartsWith("It means: "));
  EXPECT_THAT(Look("errors").advice, HasSubstr(". See all with: "));
  trace.lines[trace.lines.size() - 2].text = "nobody explains this";
  EXPECT_THAT(Look("errors").advice, StartsWith("See all with: "));
}

TEST_F(LastStartAndStop, OfAProcessThatIsGoneWithoutAStopIsACrash) {
  SetState(SERVICE_STOPPED);
  Start();
  EXPECT_EQ(Look("last-stop").verdict, Verdict::kError);
  EXPECT_THAT(Look("last-stop").value, EndsWith(" broke off without a stop"));
}

TEST_F(LastStartAndStop, OfAStopThatIsNotOverSayWhoIsAtWork) {
  SetState(SERVICE_STOP_PENDING);
  Start();
  Add("CAcAsSvc::OnStop", "Entry");
  EXPECT_EQ(Look("last-stop").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("last-stop").value, "now, stop control, not over");
  EXPECT_THAT(Look("last-stop").advice, StartsWith("The core is cleaning up or hangs"));
  SetState(SERVICE_STOPPED);
  EXPECT_EQ(Look("last-stop").verdict, Verdict::kError);
  EXPECT_THAT(Look("last-stop").advice, StartsWith("The process ended in the middle of its stop"));
}

TEST_F(LastStartAndStop, SayWhoAskedForTheStop) {
  SetState(SERVICE_STOPPED);
  Start();
  Add("CAcAsSvc::OnStop", "Entry");
  Add("main", "Exit");
  EXPECT_EQ(Look("last-stop").verdict, Verdict::kOk);
  EXPECT_EQ(Look("last-stop").value, "now, stop control, took 1 ms");
  Start();
  Add("WaitForServiceClosure", "Exit Event Signalled");
  Add("main", "Exit");
  EXPECT_EQ(Look("last-stop").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("last-stop").value, "now, exit event, from another program, took 1 ms");
}

TEST_F(LastStartAndStop, OfAServiceThatRunsIsTheStopOfTheRunBefore) {
  processId = 5;
  Start();
  Add("CAcAsSvc::OnStop", "Entry");
  Add("main", "Exit");
  processId = kProcess;
  Start();
  SetState(SERVICE_RUNNING);
  EXPECT_THAT(Look("last-start").value, HasSubstr("process 4711"));
  EXPECT_EQ(Look("last-stop").value, "now, stop control, took 1 ms");
}

// Windows gives numbers out again.
TEST_F(LastStartAndStop, OfTheSameNumberTwiceAreThoseOfTheYoungerProcess) {
  Start();
  Start();
  SetState(SERVICE_RUNNING);
  EXPECT_THAT(Look("last-start").value, EndsWith("up after 14 ms"));
  EXPECT_EQ(Look("last-stop").verdict, Verdict::kError);
  EXPECT_THAT(Look("last-stop").value, EndsWith(" broke off without a stop"));
}

}  // namespace
