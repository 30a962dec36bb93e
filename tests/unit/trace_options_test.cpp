#include "companions/vlevtlog/trace_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TraceOptionsTest : public testing::Test {
 protected:
  TraceOptions Read(const std::string& content) {
    const std::filesystem::path file = m_folder.Path() / "vorlconf.ini";
    std::ofstream(file, std::ios::trunc) << content;
    TraceOptionProblems problems;
    TraceOptions options;
    EXPECT_TRUE(ReadTraceOptions(file.c_str(), options, problems));
    m_problems.clear();
    for (std::size_t i = 0; i < problems.count; ++i) {
      m_problems.push_back(std::wstring(problems.list[i].key) + L"=" + problems.list[i].value);
    }
    return options;
  }
  std::uint32_t Levels(const std::string& value) {
    return Read("[TRACE]\nLevels=" + value + "\n").levels;
  }

  TempFolder m_folder;
  std::vector<std::wstring> m_problems;
};

// A missing file is not one that asks for the defaults: it may be on its way.
TEST_F(TraceOptionsTest, AreNotReadFromAFileThatIsMissing) {
  TraceOptionProblems problems;
  TraceOptions options;
  EXPECT_FALSE(ReadTraceOptions((m_folder.Path() / "none.ini").c_str(), options, problems));
  EXPECT_EQ(problems.count, 0U);
}

TEST_F(TraceOptionsTest, HaveDefaultsWithoutASection) {
  const TraceOptions options = Read("[OTHER]\nFiles=3\n");
  EXPECT_EQ(options.levels, 7U);
  EXPECT_EQ(options.format, TraceFormat::kText);
  EXPECT_EQ(options.fileSizeKb, 5120U);
  EXPECT_EQ(options.files, 10U);
  EXPECT_THAT(m_problems, IsEmpty());
}

TEST_F(TraceOptionsTest, ComeFromTheTraceSection) {
  const TraceOptions options = Read(
      "[OTHER]\nFiles=3\n[TRACE]\nLevels = error, VERBOSE ; not the rest\nFormat=CmTrace\n"
      "FileSizeKB=64\t; small\nFiles=2\n");
  EXPECT_EQ(options.levels, 5U);
  EXPECT_EQ(options.format, TraceFormat::kCmTrace);
  EXPECT_EQ(options.fileSizeKb, 64U);
  EXPECT_EQ(options.files, 2U);
  EXPECT_THAT(m_problems, IsEmpty());
}

TEST_F(TraceOptionsTest, TakeLevelsInManySpellings) {
  EXPECT_EQ(Levels("ERROR"), 1U);
  EXPECT_EQ(Levels("info"), 2U);
  EXPECT_EQ(Levels("1 2"), 3U);
  EXPECT_EQ(Levels("8|1"), 5U);
  EXPECT_EQ(Levels("VERBOSE"), 4U);
  EXPECT_EQ(Levels("ERROR,INFO,VERBOSE"), 7U);
  EXPECT_EQ(Levels("1,2,8"), 7U);
  EXPECT_EQ(Levels("Error+Info"), 3U);
  EXPECT_EQ(Levels("ALL"), 7U);
  EXPECT_EQ(Levels("none"), 0U);
  EXPECT_EQ(Levels(""), 7U);
  EXPECT_THAT(m_problems, IsEmpty());
}

TEST_F(TraceOptionsTest, TakeBothFormats) {
  EXPECT_EQ(Read("[TRACE]\nFormat=CMTRACE\n").format, TraceFormat::kCmTrace);
  EXPECT_EQ(Read("[TRACE]\nFormat=cmtrace\n").format, TraceFormat::kCmTrace);
  EXPECT_EQ(Read("[TRACE]\nFormat=TEXT\n").format, TraceFormat::kText);
  EXPECT_THAT(m_problems, IsEmpty());
  EXPECT_EQ(Read("[TRACE]\nFormat=Text ; the default\n").format, TraceFormat::kText);
  EXPECT_THAT(m_problems, IsEmpty());
  Read("[TRACE]\nFormat=TEXTS\n");
  EXPECT_THAT(m_problems, ElementsAre(L"Format=TEXTS"));
}

TEST_F(TraceOptionsTest, KeepTheDefaultOfAValueThatIsNotUnderstood) {
  const TraceOptions options =
      Read("[TRACE]\nLevels=ERROR,DEBUG\nFormat=XML\nFileSizeKB=3\nFiles=1001\n");
  EXPECT_EQ(options.levels, 7U);
  EXPECT_EQ(options.format, TraceFormat::kText);
  EXPECT_EQ(options.fileSizeKb, 5120U);
  EXPECT_EQ(options.files, 10U);
  EXPECT_THAT(m_problems,
              ElementsAre(L"Levels=ERROR,DEBUG", L"Format=XML", L"FileSizeKB=3", L"Files=1001"));
}

TEST_F(TraceOptionsTest, TakeNumbersUpToTheirBorders) {
  EXPECT_EQ(Read("[TRACE]\nFileSizeKB=4\nFiles=1000\n").fileSizeKb, 4U);
  EXPECT_EQ(Read("[TRACE]\nFileSizeKB=1048576\n").fileSizeKb, 1048576U);
  EXPECT_THAT(m_problems, IsEmpty());
  EXPECT_EQ(Read("[TRACE]\nFileSizeKB=5120\nFiles=2\n").files, 2U);
  EXPECT_EQ(Read("[TRACE]\nFiles=1000\n").files, 1000U);
  EXPECT_THAT(m_problems, IsEmpty());
  Read("[TRACE]\nFileSizeKB=1048577\nFiles=1\n");
  EXPECT_THAT(m_problems, ElementsAre(L"FileSizeKB=1048577", L"Files=1"));
  Read("[TRACE]\nFileSizeKB=-5\nFiles=99999999999999999999999999\n");
  EXPECT_THAT(m_problems, ElementsAre(L"FileSizeKB=-5", L"Files=99999999999999999999999999"));
}

TEST_F(TraceOptionsTest, ReportOnlyTheBeginningOfALongValue) {
  Read("[TRACE]\nFormat=" + std::string(200, 'x') + "\n");
  EXPECT_THAT(m_problems, ElementsAre(L"Format=" + std::wstring(63, L'x')));
}

// What the sample and the table of the documents say, each in its own words.
struct Documented {
  std::string key;
  std::string lowest;
  std::string highest;
  std::string usual;
};

std::string TextOf(const char* file) {
  std::ifstream in(std::filesystem::path("sample") / file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The numbers that `pattern` finds for a key: lowest, highest, default.
Documented NumbersOf(const std::string& text, const std::string& key, const std::string& pattern) {
  std::smatch found;
  EXPECT_TRUE(std::regex_search(text, found, std::regex(pattern))) << key;
  return found.size() == 4 ? Documented{key, found[1], found[2], found[3]} : Documented{};
}

class DocumentedTraceOptionsTest : public TraceOptionsTest {
 protected:
  void ExpectAsDocumented(const Documented& documented, std::uint32_t TraceOptions::*option) {
    const auto read = [&](const std::string& value) {
      return Read("[TRACE]\n" + documented.key + "=" + value + "\n").*option;
    };
    EXPECT_EQ(std::to_string(TraceOptions{}.*option), documented.usual);
    EXPECT_EQ(std::to_string(read(documented.lowest)), documented.lowest);
    EXPECT_THAT(m_problems, IsEmpty());
    EXPECT_EQ(std::to_string(read(documented.highest)), documented.highest);
    EXPECT_THAT(m_problems, IsEmpty());
    read(std::to_string(std::stoul(documented.lowest) - 1));
    EXPECT_EQ(m_problems.size(), 1U);
    read(std::to_string(std::stoul(documented.highest) + 1));
    EXPECT_EQ(m_problems.size(), 1U);
  }
};

TEST_F(DocumentedTraceOptionsTest, HaveTheBordersOfTheSample) {
  const std::string text = TextOf("vorlconf.ini");
  const std::string comment = R"( (\d+) to (\d+)\. Default: (\d+)\.\r?\n;)";
  ExpectAsDocumented(NumbersOf(text, "FileSizeKB", comment + "FileSizeKB="),
                     &TraceOptions::fileSizeKb);
  ExpectAsDocumented(NumbersOf(text, "Files", comment + "Files="), &TraceOptions::files);
}

TEST_F(DocumentedTraceOptionsTest, HaveTheBordersOfTheTable) {
  const std::string text = TextOf("configuration.md");
  const std::string cells = R"(` \| (\d+) to (\d+) \(decimal\) \| (\d+) \|)";
  ExpectAsDocumented(NumbersOf(text, "FileSizeKB", "`FileSizeKB" + cells),
                     &TraceOptions::fileSizeKb);
  ExpectAsDocumented(NumbersOf(text, "Files", "`Files" + cells), &TraceOptions::files);
  EXPECT_THAT(text, HasSubstr("| `Format` | `TEXT`, `CMTRACE` | `TEXT` |"));
  EXPECT_THAT(text, HasSubstr("any of `ERROR`, `INFO`, `VERBOSE`, separated by commas or blanks; "
                              "`ALL`; `NONE` | `ALL` |"));
}

// Each setting of the sample, of which none is in force, is its default.
TEST_F(DocumentedTraceOptionsTest, HaveTheDefaultsOfTheSample) {
  const std::string text = TextOf("vorlconf.ini");
  const std::size_t start = text.find("[TRACE]");
  std::istringstream section(text.substr(start, text.find("\n[", start) - start));
  std::string settings = "[TRACE]\n";
  std::vector<std::string> keys;
  for (std::string line; std::getline(section, line);) {
    if (line.starts_with(";") && line.find('=') != std::string::npos) {
      settings += line.substr(1) + "\n";
      keys.push_back(line.substr(1, line.find('=') - 1));
    }
  }
  EXPECT_THAT(keys, ElementsAre("Levels", "Format", "FileSizeKB", "Files"));
  // Of two the first counts: the sample's value is read.
  settings += "Files=2\n";
  const TraceOptions options = Read(settings);
  EXPECT_THAT(m_problems, IsEmpty());
  EXPECT_EQ(options.levels, TraceOptions{}.levels);
  EXPECT_EQ(options.format, TraceOptions{}.format);
  EXPECT_EQ(options.fileSizeKb, TraceOptions{}.fileSizeKb);
  EXPECT_EQ(options.files, TraceOptions{}.files);
}

}  // namespace
