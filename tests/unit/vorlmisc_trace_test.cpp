// The staged vorlmisc.dll beside the staged trace library, in an installation of the test's own.
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <string>

#include "support/vorlmisc.h"
#include "tests/support/empty_machine_key.h"
#include "tests/support/installation.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class LogOptions : public ::testing::Test {
 protected:
  using LogTraceFunction = void(int, const char*, const char*, const char*, int, const char*, ...);

  bool Apply() const { return m_library.Ordinal<BOOLEAN()>(5)() != FALSE; }

  void Write(int level, const char* text) const {
    m_traceLibrary.Ordinal<LogTraceFunction>(2)(level, "test", "function", "file", 1, "%s", text);
  }

  std::string Log() const {
    std::ifstream in(m_installation / "logs" / "vorltrace.log", std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  const EmptyMachineKey m_machine;
  const Installation m_installation{{"vorlmisc.dll", "vlevtlog.dll"}};
  const Library m_traceLibrary{m_installation / "vlevtlog.dll"};
  const Library m_library{m_installation / "vorlmisc.dll"};
};

TEST_F(LogOptions, ComeFromTheConfigurationFolderThatIsRegistered) {
  const TempFolder settings;
  WriteText(settings.Path() / "vorlconf.ini", "[TRACE]\r\nLevels=ERROR\r\n");
  m_machine.SetText(L"ConfigDir", settings.Path().wstring());
  // The trace library finds the same file by itself.
  Write(2, "information before");
  EXPECT_TRUE(Apply());
  Write(2, "information after");
  Write(1, "error after");
  EXPECT_THAT(Log(), Not(HasSubstr("information before")));
  EXPECT_THAT(Log(), Not(HasSubstr("information after")));
  EXPECT_THAT(Log(), HasSubstr("error after"));
}

TEST_F(LogOptions, MissingFileLeavesTheDefaults) {
  EXPECT_TRUE(Apply());
  Write(8, "detail");
  EXPECT_THAT(Log(), HasSubstr("detail"));
}

TEST_F(LogOptions, LinesOfTheSupportLibraryNameItAsTheirModule) {
  m_machine.SetText(L"ConfigDir", L"nowhere");
  EXPECT_FALSE(Apply());
  EXPECT_THAT(Log(), HasSubstr("vorlmisc.dll"));
  EXPECT_THAT(Log(), HasSubstr("SetClientAgentLogOptions"));
  EXPECT_THAT(Log(), HasSubstr("Registry value ConfigDir is no full path: nowhere"));
}

}  // namespace
