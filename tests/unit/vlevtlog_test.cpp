// The staged trace library, loaded by ordinals as the product does.
#include "support/vlevtlog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "companions/vlevtlog/trace_control.h"
#include "tests/support/installation.h"
#include "tests/support/long_run.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class VlevtlogTest : public testing::Test {
 protected:
  std::string Content(const char* name = "vorltrace.log") const {
    std::ifstream in(m_installation / "logs" / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // The end of each line, from the module on.
  std::vector<std::string> Ends() const {
    std::vector<std::string> ends;
    std::ifstream in(m_installation / "logs" / "vorltrace.log", std::ios::binary);
    for (std::string line; std::getline(in, line);) {
      ends.push_back(line.substr(line.find(" module ")));
    }
    return ends;
  }

  const Installation m_installation{{"vlevtlog.dll"}};
  Library m_library{m_installation / "vlevtlog.dll"};
  decltype(&LogTrace) m_logTrace = m_library.Ordinal<decltype(LogTrace)>(2);
  decltype(&LogTraceW) m_logTraceW = m_library.Ordinal<decltype(LogTraceW)>(3);
  ApplyTraceOptionsFunction* m_applyTraceOptions =
      m_library.Ordinal<ApplyTraceOptionsFunction>(1904);
};

TEST_F(VlevtlogTest, ExportsByOrdinalOnly) {
  EXPECT_THAT(m_library.ExportedNames(), IsEmpty());
  EXPECT_THAT(m_library.ExportedOrdinals(), ElementsAre(2, 3, 1904));
}

TEST_F(VlevtlogTest, DoesNothingWhenItIsLoaded) {
  EXPECT_FALSE(fs::exists(m_installation / "logs"));
}

TEST_F(VlevtlogTest, WritesBelowItsOwnFolder) {
  m_logTrace(2, "module", "f", "s.cpp", 7, "%s %S", "narrow", L"wide \x20AC");
  m_logTraceW(8, "module", "g", "s.cpp", 8, L"%s %S", L"wide \x20AC", "narrow");
  EXPECT_THAT(Ends(), ElementsAre(" module f s.cpp:7 narrow wide \xE2\x82\xAC\r",
                                  " module g s.cpp:8 wide \xE2\x82\xAC narrow\r"));
}

TEST_F(VlevtlogTest, KeepsTheLastErrorOfItsCaller) {
  SetLastError(1234);
  m_logTrace(2, "module", "f", "s.cpp", 1, "first line");
  EXPECT_EQ(GetLastError(), 1234U);
  m_logTraceW(2, "module", "f", "s.cpp", 1, L"%s", L"x");
  EXPECT_EQ(GetLastError(), 1234U);
  EXPECT_TRUE(m_applyTraceOptions((m_installation / "none.ini").c_str()));
  EXPECT_EQ(GetLastError(), 1234U);
}

TEST_F(VlevtlogTest, KeepsTheLastErrorWhenNothingCanBeWritten) {
  std::ofstream(m_installation / "logs") << "in the way";
  SetLastError(1234);
  m_logTrace(2, "module", "f", "s.cpp", 1, "%s", "lost");
  EXPECT_EQ(GetLastError(), 1234U);
}

TEST_F(VlevtlogTest, KeepsTheLastErrorWhenTheLevelIsOff) {
  WriteText(m_installation / "conf" / "vorlconf.ini", "[TRACE]\r\nLevels=NONE\r\n");
  SetLastError(1234);
  m_logTrace(2, "module", "f", "s.cpp", 1, "reads the options");
  m_logTrace(2, "module", "f", "s.cpp", 1, "knows them");
  EXPECT_EQ(GetLastError(), 1234U);
}

TEST_F(VlevtlogTest, ReadsItsOptionsByItself) {
  WriteText(m_installation / "conf" / "vorlconf.ini", "[TRACE]\r\nLevels=ERROR\r\n");
  m_logTrace(2, "module", "f", "s.cpp", 1, "off");
  m_logTraceW(2, "module", "f", "s.cpp", 1, L"off");
  m_logTrace(1, "module", "f", "s.cpp", 1, "on");
  EXPECT_THAT(Ends(), ElementsAre(" module f s.cpp:1 on\r"));
}

TEST_F(VlevtlogTest, TakesItsOptionsFromTheFileThatItIsGiven) {
  WriteText(m_installation / "elsewhere.ini", "[TRACE]\r\nFormat=CMTRACE\r\nLevels=INFO\r\n");
  EXPECT_FALSE(m_applyTraceOptions(nullptr));
  EXPECT_TRUE(m_applyTraceOptions((m_installation / "elsewhere.ini").c_str()));
  m_logTrace(1, "module", "f", "s.cpp", 1, "off");
  m_logTrace(2, "module", "f", "s.cpp", 1, "on");
  EXPECT_THAT(Content(), testing::StartsWith("<![LOG[on]LOG]!><time="));
  EXPECT_EQ(Content().find('\n'), Content().size() - 1);
}

TEST_F(VlevtlogTest, LetsGoOfItsFilesWhenItIsUnloaded) {
  m_logTrace(2, "module", "f", "s.cpp", 1, "x");
  m_library.Free();
  std::error_code error;
  fs::remove_all(m_installation / "logs", error);
  EXPECT_FALSE(error) << error.message();
  const Library again(m_installation / "vlevtlog.dll");
  again.Ordinal<decltype(LogTrace)>(2)(2, "module", "f", "s.cpp", 1, "again");
  EXPECT_THAT(Ends(), ElementsAre(" module f s.cpp:1 again\r"));
}

// Every length from 0 to 70,000 in the long form, else every one around the borders of
// buffers and some of the others.
TEST_F(VlevtlogTest, WritesMessagesOfEveryLengthWhole) {
  WriteText(m_installation / "conf" / "vorlconf.ini", "[TRACE]\r\nFileSizeKB=16384\r\nFiles=2\r\n");
  LetRest(m_installation / "conf" / "vorlconf.ini");
  const std::string narrow(70000, 'n');
  const std::wstring wide(70000, L'\x20AC');
  std::mt19937 random(1);
  std::size_t position = 0;
  for (std::size_t length = 0; length <= 70000; ++length) {
    const std::size_t distance = (length + 4) % 1024;
    if (!IsLongRun() && length > 1200 && distance > 8 && random() % 200 != 0) {
      continue;
    }
    if (length % 2 == 0) {
      m_logTrace(2, "module", "f", "s", 1, "%s%u", narrow.c_str() + (70000 - length), 7U);
    } else {
      m_logTraceW(2, "module", "f", "s", 1, L"%s%u", wide.c_str() + (70000 - length), 7U);
    }
    if (fs::file_size(m_installation / "logs" / "vorltrace.log") < position) {
      // A new file has begun.
      position = 0;
    }
    std::ifstream in(m_installation / "logs" / "vorltrace.log", std::ios::binary);
    in.seekg(static_cast<std::streamoff>(position));
    std::string line;
    std::getline(in, line);
    position += line.size() + 1;
    const std::string message = line.substr(line.find(" s:1 ") + 5);
    const std::size_t bytes = length % 2 == 0 ? length : 3 * length;
    ASSERT_EQ(message.size(), bytes + 2) << length;
    ASSERT_EQ(message.substr(bytes), "7\r") << length;
    ASSERT_EQ(message.find_first_not_of(length % 2 == 0 ? "n" : "\xE2\x82\xAC"), bytes) << length;
  }
  ASSERT_EQ(fs::file_size(m_installation / "logs" / "vorltrace.log"), position);
}

// Odd characters in odd formats: every call is one line, nothing else happens.
TEST_F(VlevtlogTest, SurvivesOddCharactersAndFormats) {
  std::mt19937 random(2);
  const int rounds = IsLongRun() ? 300000 : 3000;
  WriteText(m_installation / "conf" / "vorlconf.ini",
            "[TRACE]\r\nFileSizeKB=1048576\r\nFiles=1000\r\n");
  const std::string pieces = "%%%%sSudXxlhIwzc*.-+ #0123456789npefgaCi\n\r\t\x01\x7F\x80\xE4\xFF";
  for (int round = 0; round < rounds; ++round) {
    std::string format;
    std::wstring wideFormat;
    std::wstring wideText;
    const std::size_t length = random() % 40;
    for (std::size_t i = 0; i < length; ++i) {
      format += pieces[random() % pieces.size()];
      wideFormat += static_cast<wchar_t>(
          random() % 4 == 0 ? 1 + random() % 0xFFFF : static_cast<unsigned char>(format.back()));
      wideText += static_cast<wchar_t>(1 + random() % 0xFFFF);
    }
    m_logTrace(2, "module", "f", "s", 1, format.c_str(), wideText.c_str(), format.c_str(), 5, 0,
               wideText.c_str(), 1ULL << 40, format.c_str(), 3.5);
    m_logTraceW(2, "module", "f", "s", 1, wideFormat.c_str(), wideText.c_str(), format.c_str(), 5,
                0, wideText.c_str(), 1ULL << 40, format.c_str(), 3.5);
    m_logTrace(2, "module", "f", "s", 1, "%S end", wideText.c_str());
  }
  std::size_t lines = 0;
  std::ifstream in(m_installation / "logs" / "vorltrace.log", std::ios::binary);
  for (std::string line; std::getline(in, line); ++lines) {
    ASSERT_TRUE(line.ends_with('\r')) << line;
    ASSERT_NE(line.find(" module f s:1 "), std::string::npos) << line;
    for (const char c : line.substr(0, line.size() - 1)) {
      ASSERT_GE(static_cast<unsigned char>(c), 0x20) << line;
      ASSERT_NE(c, 0x7F) << line;
    }
    // Well-formed UTF-8.
    ASSERT_GT(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, line.c_str(), -1, nullptr, 0), 0)
        << line;
  }
  EXPECT_EQ(lines, static_cast<std::size_t>(rounds) * 3);
}

}  // namespace
