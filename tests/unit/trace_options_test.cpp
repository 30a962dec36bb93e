#include "companions/vlevtlog/trace_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace {

using testing::ElementsAre;
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

TEST_F(TraceOptionsTest, HaveDefaultsWithoutAFile) {
  TraceOptionProblems problems;
  TraceOptions options;
  EXPECT_TRUE(ReadTraceOptions((m_folder.Path() / "none.ini").c_str(), options, problems));
  EXPECT_EQ(options.levels, 7U);
  EXPECT_EQ(options.format, TraceFormat::kText);
  EXPECT_EQ(options.fileSizeKb, 5120U);
  EXPECT_EQ(options.files, 10U);
  EXPECT_EQ(problems.count, 0U);
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
  EXPECT_EQ(Levels("Error+Info"), 3U);
  EXPECT_EQ(Levels("ALL"), 7U);
  EXPECT_EQ(Levels("none"), 0U);
  EXPECT_EQ(Levels(""), 7U);
  EXPECT_THAT(m_problems, IsEmpty());
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
  Read("[TRACE]\nFileSizeKB=1048577\nFiles=1\n");
  EXPECT_THAT(m_problems, ElementsAre(L"FileSizeKB=1048577", L"Files=1"));
  Read("[TRACE]\nFileSizeKB=-5\nFiles=99999999999999999999999999\n");
  EXPECT_THAT(m_problems, ElementsAre(L"FileSizeKB=-5", L"Files=99999999999999999999999999"));
}

TEST_F(TraceOptionsTest, ReportOnlyTheBeginningOfALongValue) {
  Read("[TRACE]\nFormat=" + std::string(200, 'x') + "\n");
  EXPECT_THAT(m_problems, ElementsAre(L"Format=" + std::wstring(63, L'x')));
}

}  // namespace
