// Lines that cannot go into the common file: a file of the process's own, and how it joins the
// trace.
#include <gmock/gmock.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "tests/unit/trace_log_test.h"

using ::testing::ElementsAre;

namespace {

using WriteCall = BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*);

// A thread that stands still in the middle of its line.
class StandingWriter {
 public:
  explicit StandingWriter(const std::function<void()>& write) : m_thread(write) {
    while (!m_isInside) {
      SwitchToThread();
    }
  }
  void GoOn() {
    SetEvent(m_goOn.Get());
    m_thread.join();
  }

 private:
  std::atomic<bool> m_isInside{false};
  const KernelHandle m_goOn{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  const CallPatch<struct StandTag, WriteCall> m_patch{
      "KERNEL32.dll", "WriteFile",
      [this](HANDLE file, const void* bytes, DWORD count, DWORD* written, OVERLAPPED* overlapped) {
        if (!m_isInside.exchange(true)) {
          WaitForSingleObject(m_goOn.Get(), INFINITE);
        }
        return m_patch.CallOriginal(file, bytes, count, written, overlapped);
      }};
  std::thread m_thread;
};

TEST_F(TraceLogTest, WritesIntoAFileOfItsOwnWhileAnotherWriterStandsStill) {
  Log(2, "before");
  StandingWriter slow([&] { Log(2, "slow"); });
  m_tickStep = kSecond;
  Log(2, "one");
  Log(2, "two");
  EXPECT_THAT(SpilledMessages(), ElementsAre("one", "two"));
  m_tickStep = 0;
  slow.GoOn();
  m_tick += kSecond / 10;
  Log(2, "after");
  EXPECT_THAT(Messages(),
              ElementsAre("before", "slow",
                          "2 lines are in vorltrace.000001.log: another writer does not "
                          "let go of the file (error 1460)",
                          "after"));
  EXPECT_THAT(Messages("vorltrace.000001.log"), ElementsAre("one", "two"));
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.log"));
}

TEST_F(TraceLogTest, GivesNumbersToWhatEndedProcessesWroteForThemselves) {
  Configure("FileSizeKB=4\n");
  fs::create_directories(Logs());
  const std::string line = "2026-03-09 07:05:02.041 +01:00 INFO 1 2 module Function source.cpp:1 ";
  std::ofstream(Logs() / "vorltrace.process4711-1.log", std::ios::binary) << line << "left\r\n"
                                                                          << line << "torn";
  std::ofstream(Logs() / "vorltrace.process4712-1.log") << "of one that lives";
  const HANDLE living =
      Hold(Logs() / "vorltrace.process4712-1.log", FILE_SHARE_READ | FILE_SHARE_WRITE);
  const std::string filler(4000, 'x');
  Log(2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  CloseHandle(living);
  EXPECT_THAT(Messages("vorltrace.000002.log"), ElementsAre("left"));
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000001.log", "vorltrace.000002.log", "vorltrace.log",
                                   "vorltrace.process4712-1.log"));
}

// As on a full disk, where every program of the product would otherwise cost a full file later.
TEST_F(TraceLogTest, DeletesWhatEndedProcessesLeftEmpty) {
  Configure("FileSizeKB=4\nFiles=3\n");
  const std::string filler(4000, 'x');
  for (int i = 0; i < 4; ++i) {
    Log(2, "%s", filler.c_str());
  }
  for (const char* name : {"vorltrace.process4711-1.log", "vorltrace.process4712-1.log",
                           "vorltrace.process4713-1.log"}) {
    std::ofstream(Logs() / name).flush();
  }
  const HANDLE living =
      Hold(Logs() / "vorltrace.process4713-1.log", FILE_SHARE_READ | FILE_SHARE_WRITE);
  Log(2, "%s", filler.c_str());
  CloseHandle(living);
  EXPECT_THAT(Files(), ElementsAre("vorltrace.000003.log", "vorltrace.000004.log", "vorltrace.log",
                                   "vorltrace.process4713-1.log"));
}

TEST_F(TraceLogTest, LeavesNoHalfLineInAFileOfItsOwnOnAFullDisk) {
  fs::create_directories(First());
  Log(2, "one");
  for (const bool isToldOf : {true, false}) {
    const CallPatch<struct FullTag, WriteCall> patch(
        "KERNEL32.dll", "WriteFile",
        [&](HANDLE file, const void* bytes, DWORD count, DWORD* written,
            OVERLAPPED* overlapped) -> BOOL {
          patch.CallOriginal(file, bytes, count / 2, written, overlapped);
          SetLastError(ERROR_DISK_FULL);
          return isToldOf ? FALSE : TRUE;
        });
    Log(2, "lost");
  }
  Log(2, "two");
  EXPECT_THAT(SpilledMessages(), ElementsAre("one", "two"));
  fs::remove(First());
  m_tick += kSecond / 10;
  Log(2, "after");
  EXPECT_THAT(
      Messages(),
      ElementsAre(MatchesRegex(R"(2 lines lost: the file cannot be opened \(error \d+\))"),
                  MatchesRegex(R"(2 lines are in vorltrace\.000001\.log: the file cannot be )"
                               R"(opened \(error \d+\))"),
                  "after"));
}

TEST_F(TraceLogTest, LeavesAFileOfItsOwnToTheThreadThatWritesIntoIt) {
  fs::create_directories(First());
  Log(2, "one");
  StandingWriter slow([&] { Log(2, "slow"); });
  fs::remove(First());
  m_tick += kSecond / 10;
  Log(2, "shared");
  EXPECT_THAT(Messages(), ElementsAre("shared"));
  slow.GoOn();
  Log(2, "after");
  EXPECT_THAT(
      Messages(),
      ElementsAre("shared", MatchesRegex(R"(2 lines are in vorltrace\.000001\.log: .*)"), "after"));
  EXPECT_THAT(Messages("vorltrace.000001.log"), ElementsAre("one", "slow"));
}

}  // namespace
