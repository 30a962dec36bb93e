// The trace library where the loader and the end of a process meet it, each in a process of its
// own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/installation.h"
#include "tests/unit/loader_report.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

class LoaderTest : public testing::Test {
 protected:
  LoaderTest()
      : m_name("vorlloader_" + std::to_string(GetCurrentProcessId())),
        m_section(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                     sizeof(LoaderReport), m_name.c_str())),
        m_report(MapReport(m_section.Get())) {
    SetEnvironmentVariableA(kReportVariable, m_name.c_str());
    for (const char* const event :
         {kFirstLineIsUnderWay, kFirstLineIsWritten, kModuleIsLoading, kModuleHasWritten}) {
      m_events.emplace_back(event);
    }
  }
  ~LoaderTest() override { SetEnvironmentVariableA(kReportVariable, nullptr); }

  // Runs the process; a limit that only a defect reaches ends it.
  DWORD Run(const std::string& function, const std::string& what) const {
    for (const LoaderEvent& event : m_events) {
      event.Reset();
    }
    std::string command =
        "loader_victim.exe \"" + m_installation.Path().string() + "\" " + function + " " + what;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    EXPECT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &process));
    const KernelHandle thread(process.hThread);
    const KernelHandle running(process.hProcess);
    if (WaitForSingleObject(running.Get(), 3 * kLoaderTestLimit) != WAIT_OBJECT_0) {
      ADD_FAILURE() << "the process hangs";
      TerminateProcess(running.Get(), EXIT_FAILURE);
      WaitForSingleObject(running.Get(), INFINITE);
    }
    DWORD exitCode = 0;
    GetExitCodeProcess(running.Get(), &exitCode);
    return exitCode;
  }

  // The message of each line.
  std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    std::ifstream in(m_installation / "logs" / "vorltrace.log", std::ios::binary);
    for (std::string line; std::getline(in, line);) {
      line.pop_back();
      std::size_t at = 0;
      for (int field = 0; field < 9; ++field) {
        at = line.find(' ', at) + 1;
      }
      messages.push_back(line.substr(at));
    }
    return messages;
  }

  const Installation m_installation{{"vlevtlog.dll"}};
  const std::string m_name;
  const KernelHandle m_section;
  const LoaderReportView m_report;
  std::vector<LoaderEvent> m_events;
};

// Functions that the first line of a process calls while it holds one of the locks: the one on the
// configuration, from its first moment on, the one on what the processes share, and the one on the
// file.
class FirstLine : public LoaderTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Holding, FirstLine,
                         testing::Values("RegGetValueW", "GetFileAttributesExW",
                                         "CreateFileMappingW", "WriteFile"));

// Whoever is in a DllMain holds the loader's lock.
TEST_P(FirstLine, AsksNothingOfTheLoader) {
  m_report.Get()->staysUntilFirstLine = 1;
  EXPECT_EQ(Run(GetParam(), "loading"), 0U);
  EXPECT_EQ(m_report.Get()->missedEvents, 0);
  EXPECT_THAT(Messages(), ElementsAre("first"));
}

TEST_P(FirstLine, GoesOnBesideALineFromADllMain) {
  m_report.Get()->writesWhenLoaded = 1;
  m_report.Get()->staysUntilFirstLine = 1;
  EXPECT_EQ(Run(GetParam(), "loading"), 0U);
  EXPECT_EQ(m_report.Get()->missedEvents, 0);
  EXPECT_THAT(Messages(), UnorderedElementsAre("first", "loaded"));
}

// The line from the DllMain may be lost then, and is counted; no other is.
TEST_P(FirstLine, LetsALineFromADllMainGoWhileItIsHeldUp) {
  m_report.Get()->writesWhenLoaded = 1;
  EXPECT_EQ(Run(GetParam(), "written"), 0U);
  EXPECT_EQ(m_report.Get()->missedEvents, 0);
  EXPECT_THAT(Messages(), Contains("first"));
}

// The thread with the lock is ended, and the lock stays taken.
TEST_P(FirstLine, LetsItsProcessEndInTheMiddle) {
  EXPECT_EQ(Run(GetParam(), "never"), 42U);
  EXPECT_EQ(m_report.Get()->missedEvents, 0);
}

TEST_P(FirstLine, LetsItsProcessEndInTheMiddleWhileADllMainWrites) {
  m_report.Get()->writesWhenUnloaded = 3;
  EXPECT_EQ(Run(GetParam(), "never"), 42U);
  EXPECT_EQ(m_report.Get()->missedEvents, 0);
}

// These are a process's own, so nobody is left to give them back.
TEST_F(LoaderTest, LocksOfTheProcessAreNotWaitedForAtItsEnd) {
  m_report.Get()->writesWhenUnloaded = 3;
  EXPECT_EQ(Run("GetFileAttributesExW", "never"), 42U);
  EXPECT_EQ(m_report.Get()->sleepsWhileEnding, 0);
  EXPECT_THAT(Messages(), ElementsAre("unloaded", "unloaded", "unloaded"));
  EXPECT_EQ(Run("CreateFileMappingW", "never"), 42U);
  EXPECT_EQ(m_report.Get()->sleepsWhileEnding, 0);
}

TEST_F(LoaderTest, LinesFromADllMainAtTheEndAreWrittenWhenAnotherThreadWroteAtThatMoment) {
  m_report.Get()->writesWhenUnloaded = 3;
  EXPECT_EQ(Run("WriteFile", "never"), 42U);
  EXPECT_THAT(Messages(), ElementsAre("unloaded", "unloaded", "unloaded"));
}

}  // namespace
