// The parts of the report's page that an ordinary installation does not show.
#include "tools/vorldiag/report/page.h"

#include <gmock/gmock.h>

#include <string>

#include "tests/unit/vorldiag/trace_lines.h"
#include "tools/vorldiag/trace/runs.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class PageTest : public ::testing::Test {
 protected:
  void Add(const std::string& function, const std::string& text, int level = 2,
           std::int64_t milliseconds = 1) {
    moment += milliseconds;
    snapshot.trace.lines.push_back(ServiceLine(moment, function, text, level, 4711));
    snapshot.trace.lines.back().time = "moment " + std::to_string(moment);
  }
  void Begin() {
    Add("main", "Entry");
    Add("CNTService::ParseStandardArgs", "No Arguments hence returning");
  }
  void Start(std::int64_t milliseconds = 1) {
    Begin();
    // The first one is the beginning.
    for (std::size_t i = 1; i < StartSteps().size(); ++i) {
      Add(StartSteps()[i].function, StartSteps()[i].text, 2, milliseconds);
    }
  }
  void Stop(std::int64_t milliseconds = 1) {
    Add("CAcAsSvc::OnStop", "Entry");
    Add("main", "Exit", 2, milliseconds);
  }
  std::string Page() const { return ReportPage(snapshot); }
  static int Count(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }

  std::int64_t moment = 0;
  Snapshot snapshot;
};

TEST_F(PageTest, OfNothingSaysSo) {
  const std::string page = Page();
  EXPECT_THAT(page, HasSubstr("<p>Nothing.</p>"));
  EXPECT_THAT(page, HasSubstr("The trace shows no start of the service."));
  EXPECT_THAT(page, HasSubstr("The trace shows no stop of the service."));
  EXPECT_THAT(page, HasSubstr("None that are not usual."));
  EXPECT_THAT(page, Not(HasSubstr("Older files of the trace were not read.")));
  snapshot.trace.isComplete = false;
  EXPECT_EQ(Count(Page(), "Older files of the trace were not read."), 2);
}

TEST_F(PageTest, BeginsWithTheErrors) {
  snapshot.status.sections = {{"a", "Part", {}}};
  snapshot.status.sections[0].Ok("fine", "Fine", "good");
  snapshot.status.sections[0].Warn("doubt", "Doubt", "unclear", "look");
  snapshot.status.sections[0].Fail("wrong", "Wrong", "bad", "mend");
  const std::string page = Page();
  const std::string attention = page.substr(0, page.find("<section id=\"status\">"));
  EXPECT_LT(attention.find("Part: Wrong"), attention.find("Part: Doubt"));
  EXPECT_THAT(attention, Not(HasSubstr("Fine")));
  EXPECT_EQ(Count(attention, "class=\"advice\""), 2);
  EXPECT_EQ(Count(page, "class=\"advice\""), 4);
  EXPECT_THAT(page, HasSubstr("<p class=\"sum error\">1 error, 1 warning.</p>"));
}

TEST_F(PageTest, DrawsTheLastFiveStartsAndStops) {
  for (int i = 0; i < 6; ++i) {
    Start();
    Stop();
  }
  // A command is no start.
  Add("main", "Entry");
  Add("CNTService::ParseStandardArgs", "-start");
  EXPECT_EQ(Count(Page(), "<h3>Start of "), 5);
  EXPECT_EQ(Count(Page(), "<h3>Stop of "), 5);
  EXPECT_THAT(Page(), Not(HasSubstr("Start of moment 1,")));
  EXPECT_THAT(Page(), HasSubstr("up after 14 ms</h3>"));
  EXPECT_THAT(Page(), HasSubstr("stop control, took 1 ms</h3>"));
}

TEST_F(PageTest, NamesTheStepThatIsMissing) {
  Begin();
  EXPECT_THAT(Page(), HasSubstr("process 4711: not completed</h3>"));
  EXPECT_THAT(Page(), HasSubstr("Step 2 of 14 is missing: &quot;After Calling "
                                "SetClientAgentLogOptions&quot; of main. A crash in vorlmisc.dll"));
  Add("CAcAsSvc::OnStop", "Entry");
  EXPECT_THAT(Page(), HasSubstr("stop control, not over</h3>"));
}

TEST_F(PageTest, DrawsTheSlowestStepInItsOwnColour) {
  Start(0);
  EXPECT_EQ(Count(Page(), "<rect "), 1);  // from the first line to the second step
  EXPECT_EQ(Count(Page(), "#d9730d"), 1);
  snapshot.trace.lines.clear();
  Start(3);
  // Thirteen steps, of which the first is the longest.
  EXPECT_EQ(Count(Page(), "<rect "), 13);
  EXPECT_EQ(Count(Page(), "#d9730d"), 1);
  EXPECT_EQ(Count(Page(), "#79a8d3"), 6);
  EXPECT_EQ(Count(Page(), "#2f6fab"), 6);
  EXPECT_EQ(Count(Page(), "<li>"), 3);
  // All steps in the same millisecond: nothing to draw.
  for (TraceLine& line : snapshot.trace.lines) {
    line.moment = 0;
  }
  EXPECT_EQ(Count(Page(), "<rect "), 0);
  EXPECT_EQ(Count(Page(), "<ol"), 0);
  EXPECT_THAT(Page(), HasSubstr("<span>0 ms</span>\n<span>0 ms</span>"));
}

TEST_F(PageTest, PutsEqualErrorsTogetherAndExplainsThem) {
  Begin();
  Add("CAcAsSvc::Run", "ClientAgentCoreStartUp Failed", 1);
  Add("CAcAsSvc::Run", "ClientAgentCoreStartUp Failed", 1);
  Add("Other", "ClientAgentCoreStartUp Failed", 1);
  Add("main", "asServiceObj.ParseStandardArgs Failed", 1);
  const std::string page = Page().substr(Page().find("<section id=\"errors\">"));
  EXPECT_EQ(Count(page, ">2 times</span>"), 1);
  EXPECT_EQ(Count(page, ">1 time</span>"), 1);
  EXPECT_THAT(page, HasSubstr("the core refused to start"));
  EXPECT_THAT(page, Not(HasSubstr("ParseStandardArgs Failed")));
  Add("Other", "what nobody has written down", 1);
  EXPECT_THAT(Page(), HasSubstr("Not among the lines that the documents explain."));
}

TEST_F(PageTest, ShowsThirtyKindsOfErrors) {
  for (int i = 0; i < 30; ++i) {
    Add("F", "error line " + std::to_string(i), 1);
  }
  EXPECT_THAT(Page(), Not(HasSubstr("of error lines left out")));
  Add("F", "error line 30", 1);
  EXPECT_THAT(Page(), HasSubstr("1 older kind of error lines left out."));
  EXPECT_THAT(Page(), Not(HasSubstr("error line 0 ")));
  Add("F", "error line 31", 1);
  EXPECT_THAT(Page(), HasSubstr("2 older kinds of error lines left out."));
}

TEST_F(PageTest, ShowsTheSettingsThatAreSetBeforeTheDefaults) {
  snapshot.settings = {"",
                       {{"TRACE", "Files", "10", ""},
                        {"TRACE", "Levels", "ERROR,INFO", "ERROR"},
                        {"TRACE", "Mode", "", "x"},
                        {"TRACE", "Rest", "", ""}}};
  const std::string page = Page();
  EXPECT_LT(page.find("TRACE Levels"), page.find("TRACE Files"));
  EXPECT_THAT(page, HasSubstr("ERROR (default: ERROR,INFO)"));
  EXPECT_THAT(page, HasSubstr("x (default: (empty))"));
  EXPECT_THAT(page, HasSubstr("<div class=\"how\">(empty)</div>"));
  // One word for all of them.
  snapshot.settings.settings[1].value = "all";
  EXPECT_THAT(Page(), Not(HasSubstr("default: ERROR,INFO)")));
  snapshot.settings.problem = "the file is in use";
  EXPECT_THAT(Page(), HasSubstr("the file is in use"));
}

}  // namespace
