#include "tools/vorldiag/trace/timeline.h"

#include <gmock/gmock.h>

#include "tests/unit/vorldiag/trace_lines.h"

using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class Timelines : public ::testing::Test {
 protected:
  void Add(const char* function, const char* text, std::int64_t moment) {
    lines.push_back(ServiceLine(moment, function, text));
  }
  std::vector<TraceLine> lines;
};

TEST_F(Timelines, OfAStartGoFromStepToStep) {
  Add("main", "Entry", 100);
  Add("Other", "line", 103);
  Add("main", "After Calling SetClientAgentLogOptions", 107);
  Add("IsClientUUIDPresent", "Entry", 207);
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const Timeline timeline = TimelineOf(StartOf(runs[0]), runs[0]);
  ASSERT_THAT(timeline.stretches, SizeIs(2));
  EXPECT_EQ(timeline.stretches[0].begin, 0);
  EXPECT_EQ(timeline.stretches[0].end, 7);
  EXPECT_EQ(timeline.stretches[1].Milliseconds(), 100);
  EXPECT_EQ(timeline.stretches[1].step, "\"Entry\" of IsClientUUIDPresent");
  EXPECT_EQ(timeline.Milliseconds(), 107);
  const std::vector<Stretch> slowest = Slowest(timeline, 1);
  ASSERT_THAT(slowest, SizeIs(1));
  EXPECT_EQ(slowest[0].Milliseconds(), 100);
}

// Lines of two threads can stand behind younger ones.
TEST_F(Timelines, OfAStopGoFromLineToLineAndNeverBack) {
  Add("main", "Entry", 0);
  EXPECT_THAT(TimelineOf(StopOf(RunsOf(lines)[0]), RunsOf(lines)[0]).stretches, IsEmpty());
  Add("CAcAsSvc::OnStop", "Entry", 10);
  Add("A", "late", 30);
  Add("B", "early", 25);
  Add("main", "Exit", 40);
  Add("C", "afterwards", 50);
  const std::vector<ProcessRun> runs = RunsOf(lines);
  const Timeline timeline = TimelineOf(StopOf(runs[0]), runs[0]);
  ASSERT_THAT(timeline.stretches, SizeIs(3));
  EXPECT_EQ(timeline.stretches[0].Milliseconds(), 20);
  EXPECT_EQ(timeline.stretches[1].Milliseconds(), 0);
  EXPECT_EQ(timeline.stretches[2].end, 30);
  EXPECT_THAT(Slowest(timeline, 3), SizeIs(2));
}

}  // namespace
