#include "tools/vorldiag/documents/explanations.h"

#include <gmock/gmock.h>

#include "tools/vorldiag/documents/documents.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr char kTable[] =
    "| Text | Function | Meaning | What to do |\n"
    "|---|---|---|---|\n"
    "| `Load Fail... with error (N)` | `Update` | another | wait |\n"
    "| `Load Fail... with error (N)` | `LoadCore` | see [numbers](x.md#y): `126` | mend `a|b` |\n"
    "| `A failed`, `B failed` * | the same | two | |\n"
    "\n"
    "| Number | Meaning |\n"
    "|---|---|\n"
    "| `A failed` | no line |\n"
    "\n"
    "| Trace line of `x.dll` | What to do |\n"
    "|---|---|\n"
    "| `Folder of 260 characters is too long: ...` | shorten it |\n";

class ExplanationsTest : public ::testing::Test {
 protected:
  ExplanationsTest() { explanations.Add(kTable); }

  const Explanation* Find(const std::string& function, const std::string& text) const {
    TraceLine line;
    line.function = function;
    line.text = text;
    return explanations.Find(line);
  }

  Explanations explanations;
};

TEST_F(ExplanationsTest, AreThoseOfTheFunctionWithoutMarkdown) {
  const Explanation* const found = Find("LoadCore", "Load Fail... with error (126)");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->meaning, "see numbers: 126");
  EXPECT_EQ(found->advice, "mend a|b");
  ASSERT_NE(Find("CAgent::Update", "Load Fail... with error (2)"), nullptr);
  EXPECT_EQ(Find("Other", "Load Fail... with error (126)"), nullptr);
}

TEST_F(ExplanationsTest, SeveralTextsAndTheFunctionOfTheRowAbove) {
  ASSERT_NE(Find("LoadCore", "B failed"), nullptr);
  EXPECT_EQ(Find("LoadCore", "A failed")->meaning, "two");
  EXPECT_EQ(Find("Update", "A failed"), nullptr);
  EXPECT_EQ(Find("LoadCore", "A failed again"), nullptr);
}

TEST_F(ExplanationsTest, NumbersAndDotsStandForAnything) {
  const Explanation* const found = Find("F", "Folder of 300 characters is too long: C:\\x");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->advice, "shorten it");
}

TEST_F(ExplanationsTest, OfTwoRowsTheMoreExactOneHolds) {
  Explanations more;
  more.Add(
      "| Text | Meaning |\n|---|---|\n"
      "| `Open X ... failed` | any |\n| `Open X file failed` | the file |\n"
      "| `Open X ...` | whatever |\n");
  const auto meaning = [&](const char* text) {
    TraceLine line;
    line.text = text;
    const Explanation* const found = more.Find(line);
    return found == nullptr ? "" : found->meaning;
  };
  EXPECT_EQ(meaning("Open 7 file failed"), "the file");
  EXPECT_EQ(meaning("Open 7 folder failed"), "any");
  // Dots stand for nothing, too.
  EXPECT_EQ(meaning("Open 7 "), "whatever");
  EXPECT_EQ(meaning("Open"), "");
}

TEST_F(ExplanationsTest, WordsOfTheDocumentsStandForOthers) {
  Explanations words;
  words.Add(
      "| Text | Meaning |\n|---|---|\n"
      "| `Word1 of Text1 and Text3 in RootDir` | words |\n| `[x` | [open |\n");
  TraceLine line;
  line.text = "a of b and c in d";
  ASSERT_NE(words.Find(line), nullptr);
  EXPECT_EQ(words.Find(line)->meaning, "words");
  line.text = "[x";
  ASSERT_NE(words.Find(line), nullptr);
  EXPECT_EQ(words.Find(line)->meaning, "[open");
}

TEST(TextOfAnExplanation, IsSentencesWithoutEmptyOnes) {
  EXPECT_EQ(TextOf({"it fell", "wait"}), "It means: it fell. To do: wait.");
  EXPECT_EQ(TextOf({"", "Write the path."}), "To do: Write the path.");
  EXPECT_EQ(TextOf({"It fell.", "Wait. (5: no right.)"}),
            "It means: It fell. To do: Wait. (5: no right.)");
  EXPECT_EQ(TextOf({"it fell (5)", ""}), "It means: it fell (5).");
  EXPECT_EQ(TextOf({")", "."}), "It means: ). To do: .");
}

TEST(AllExplanations, AreCarriedAlong) {
  ASSERT_THAT(Document(L"TROUBLESHOOTING"), StartsWith("# Troubleshooting\n"));
  const auto find = [](const char* function, const char* text) {
    TraceLine line;
    line.function = function;
    line.text = text;
    const Explanation* const found = AllExplanations().Find(line);
    return found == nullptr ? "" : found->meaning + "|" + found->advice;
  };
  EXPECT_THAT(find("LoadVorlcoreDll", "Load Library Fail... with error (126)"),
              HasSubstr("126: vorlcore.dll or a library that it needs is missing."));
  EXPECT_THAT(find("CZTUUID::GetUUIDParametersEx", "GetBiosUuid failed."), HasSubstr("check WMI"));
  EXPECT_THAT(find("CAcAsSvc::Run", "ClientAgentCoreStartUp Failed"),
              StartsWith("the core refused to start"));
  EXPECT_THAT(find("GetClientAgentConfigDir", "Registry value ConfigDir is no full path: conf"),
              HasSubstr("Write the whole path"));
  EXPECT_THAT(find("TraceLog::LookAtConfiguration",
                   "[TRACE] Levels=DEBUG is not understood, the default is used"),
              HasSubstr("Correct that setting"));
  EXPECT_THAT(find("", "12 lines lost: the file cannot be opened (error 5)"), HasSubstr("5:"));
}

}  // namespace
