#include "tools/vorldiag/trace/runs.h"

#include <gmock/gmock.h>

#include "tests/unit/vorldiag/trace_lines.h"

using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

// Lines of one process after another, one millisecond apart.
class Runs : public ::testing::Test {
 protected:
  void Add(const char* function, const char* text, int level = 2) {
    lines.push_back(
        ServiceLine(static_cast<std::int64_t>(lines.size()), function, text, level, processId));
  }
  void AddServiceBeginning() {
    Add("main", "Entry");
    Add("CNTService::ParseStandardArgs", "No Arguments hence returning");
  }
  void AddWholeStart() {
    Add("CNTService::ParseStandardArgs", "No Arguments hence returning");
    for (const StartStep& step : StartSteps()) {
      Add(step.function, step.text);
    }
  }

  unsigned long processId = 4711;
  std::vector<TraceLine> lines;
};

TEST_F(Runs, AreTheProcessesOfTheProgram) {
  AddServiceBeginning();
  processId = 5;
  Add("main", "Entry");
  Add("CNTService::ParseStandardArgs", "-start");
  processId = 4711;
  Add("CAcAsSvc::Run", "Entry");
  // Windows gives numbers out again.
  processId = 5;
  AddServiceBeginning();
  const std::vector<ProcessRun> runs = RunsOf(lines);
  ASSERT_THAT(runs, SizeIs(3));
  EXPECT_TRUE(runs[0].isService);
  EXPECT_THAT(runs[0].lines, SizeIs(3));
  EXPECT_FALSE(runs[1].isService);
  EXPECT_EQ(runs[1].word, "-start");
  EXPECT_TRUE(runs[2].isService);
  EXPECT_THAT(runs[2].lines, SizeIs(2));
}

TEST_F(Runs, WithoutTheirBeginningAreLeftOut) {
  Add("CAcAsSvc::Run", "Entry");
  EXPECT_THAT(RunsOf(lines), IsEmpty());
}

TEST_F(Runs, AWholeStart) {
  Add("main", "Entry");
  AddWholeStart();
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const StartFacts start = StartOf(runs.back());
  EXPECT_TRUE(start.IsComplete());
  EXPECT_EQ(start.end->text, "Before Calling WaitForSingleObject");
}

TEST_F(Runs, AStartThatEndsAtAStep) {
  AddServiceBeginning();
  Add("main", "After Calling SetClientAgentLogOptions");
  Add("IsClientUUIDPresent", "Entry");
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const StartFacts start = StartOf(runs.back());
  EXPECT_FALSE(start.IsComplete());
  EXPECT_EQ(start.reached, 3U);
  EXPECT_EQ(start.Milliseconds(), 3);
}

TEST_F(Runs, AStopThroughTheManager) {
  AddServiceBeginning();
  Add("CAcAsSvc::OnStop", "Entry");
  Add("WaitForServiceClosure", "Close Event Signalled");
  EXPECT_EQ(StopOf(RunsOf(lines).back()).end, nullptr);
  Add("main", "Exit");
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const StopFacts stop = StopOf(runs.back());
  ASSERT_NE(stop.begin, nullptr);
  ASSERT_NE(stop.end, nullptr);
  EXPECT_EQ(stop.reason, "stop control");
  EXPECT_EQ(stop.end->moment - stop.begin->moment, 2);
}

TEST_F(Runs, AManualStopAndOneThroughAnEvent) {
  AddServiceBeginning();
  Add("CNTService::Handler", "Got user stop notification");
  Add("CAcAsSvc::OnStop", "Entry");
  EXPECT_EQ(StopOf(RunsOf(lines).back()).reason, "manual stop");
  lines.clear();
  AddServiceBeginning();
  Add("WaitForServiceClosure", "Exit Event Signalled");
  EXPECT_EQ(StopOf(RunsOf(lines).back()).reason, "exit event, from another program");
  lines.clear();
  AddServiceBeginning();
  EXPECT_EQ(StopOf(RunsOf(lines).back()).begin, nullptr);
}

TEST_F(Runs, AFailedStartIsNoStopByOthers) {
  AddServiceBeginning();
  Add("CAcAsSvc::Run", "GetClientAgentStartUpOptions Failed", 1);
  Add("WaitForServiceClosure", "Close Event Signalled");
  EXPECT_EQ(StopOf(RunsOf(lines).back()).end, nullptr);
  Add("main", "Exit");
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const StopFacts stop = StopOf(runs.back());
  EXPECT_EQ(stop.reason, "its start failed");
  ASSERT_NE(stop.end, nullptr);
  EXPECT_EQ(stop.end->moment - stop.begin->moment, 2);
}

TEST_F(Runs, AProcessThatComesToItsEndHasNotBrokenOff) {
  AddServiceBeginning();
  Add("main", "Exit");
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const StopFacts stop = StopOf(runs.back());
  EXPECT_EQ(stop.reason, "it ended by itself");
  ASSERT_NE(stop.end, nullptr);
  EXPECT_EQ(stop.begin, stop.end);
}

TEST_F(Runs, AnErrorDuringAStopIsNoFailedStart) {
  AddServiceBeginning();
  Add("CAcAsSvc::OnStop", "Entry");
  Add("CAcAsSvc::Run", "ClientAgentCoreCleanUp Failed", 1);
  EXPECT_EQ(StopOf(RunsOf(lines).back()).reason, "stop control");
}

TEST_F(Runs, ErrorsThatAreUsualDoNotCount) {
  AddServiceBeginning();
  Add("main", "asServiceObj.ParseStandardArgs Failed", 1);
  Add("DoPendingPatchTasks", "File not exist (C:\\x\\vorlupd.dll)", 1);
  Add("CreateAndSetClientUUID", "Client Unique ID: 1", 1);
  EXPECT_THAT(ErrorsOf(RunsOf(lines).back()), IsEmpty());
  Add("CAcAsSvc::Run", "LoadAcresDll() failed.", 1);
  const std::vector<ProcessRun> runs = RunsOf(lines);
  EXPECT_THAT(ErrorsOf(runs.back()), SizeIs(1));
}

TEST_F(Runs, AStopThroughTheCloseEventIsByAnotherProgram) {
  AddServiceBeginning();
  Add("WaitForServiceClosure", "Entry");
  Add("WaitForServiceClosure", "Close Event Signalled");
  EXPECT_EQ(StopOf(RunsOf(lines).back()).reason, "close event, from another program");
}

}  // namespace
