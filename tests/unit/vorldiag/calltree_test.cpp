#include "tools/vorldiag/trace/calltree.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/unit/vorldiag/trace_lines.h"

using ::testing::ElementsAre;

namespace {

class CallTree : public ::testing::Test {
 protected:
  void Add(const char* function, const char* text, unsigned long thread = 1) {
    lines.push_back(ServiceLine(static_cast<std::int64_t>(lines.size()), function, text));
    lines.back().threadId = thread;
  }
  // "function 0-2" for a call that has said its end, "function 0-2?" for another, the text of a
  // line; two blanks for each call around it.
  std::vector<std::string> Rows(std::size_t tree = 0) const {
    std::vector<const TraceLine*> all;
    for (const TraceLine& line : lines) {
      all.push_back(&line);
    }
    std::vector<std::string> rows;
    const std::vector<ThreadTree> trees = CallTrees(all);
    for (const TreeRow& row : trees.at(tree).rows) {
      rows.push_back(std::string(2 * row.depth, ' ') +
                     (row.isCall ? row.line->function + " " + std::to_string(row.line->moment) +
                                       "-" + std::to_string(row.end) + (row.hasExit ? "" : "?")
                                 : row.line->text));
    }
    return rows;
  }

  std::vector<TraceLine> lines;
};

TEST_F(CallTree, IsMadeOfEntriesAndExits) {
  Add("A", "Entry");
  Add("B", " Entry.");
  Add("B", "line");
  Add("B", "Exit.");
  Add("A", "Exit");
  EXPECT_THAT(Rows(), ElementsAre("A 0-4", "  B 1-3", "    line"));
}

TEST_F(CallTree, TakesASecondEntryInARowForTheExit) {
  Add("A", "Entry");
  Add("B", "Entry");
  Add("B", "Entry");
  Add("A", "after");
  EXPECT_THAT(Rows(), ElementsAre("A 0-3?", "  B 1-2", "  after"));
}

// A call that ends without a word ends when somebody further up goes on.
TEST_F(CallTree, EndsCallsThatDoNotSaySo) {
  Add("A", "Entry");
  Add("B", "Entry");
  Add("C", "line");
  Add("A", "on");
  Add("A", "Exit");
  Add("A", "Exit");
  EXPECT_THAT(Rows(), ElementsAre("A 0-4", "  B 1-2?", "    line", "  on", "Exit"));
}

TEST_F(CallTree, LetsACallBeOverThatWritesNothingAnyMore) {
  Add("A", "Entry");
  Add("A", "line");
  Add("B", "Entry");
  EXPECT_THAT(Rows(), ElementsAre("A 0-1?", "  line", "B 2-2?"));
  lines[1].text = "Before calling B";
  EXPECT_THAT(Rows(), ElementsAre("A 0-2?", "  Before calling B", "  B 2-2?"));
}

TEST_F(CallTree, OfACallThatIsMadeAgainBeginsAnew) {
  Add("A", "Entry");
  Add("B", "Entry");
  Add("A", "Entry");
  EXPECT_THAT(Rows(), ElementsAre("A 0-0?", "B 1-1?", "A 2-2?"));
}

TEST_F(CallTree, IsOneForEachThread) {
  Add("A", "Entry", 2);
  Add("B", "Entry", 1);
  Add("A", "Exit", 2);
  Add("A", "", 1);
  EXPECT_THAT(Rows(0), ElementsAre("A 0-2"));
  EXPECT_THAT(Rows(1), ElementsAre("B 1-3?", "  "));
}

}  // namespace
