#include "tests/support/watchdog.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/windows_api.h"
#include "tests/support/thread_stacks.h"

namespace {

constexpr unsigned kMillisecondsPerSecond = 1000;

// Is at work until the program's last moment, so it is never freed.
struct Watchdog {
  DirectCalls calls;
  HANDLE job = nullptr;       // of the program and what it starts; null when it could not join one
  HANDLE progress = nullptr;  // set when the wait begins anew
  HANDLE output = nullptr;    // the standard output, whatever tests put in its place
  std::atomic<unsigned> limitMilliseconds = 0;
  char test[256] = "the first test";
};
Watchdog* g_watchdog = nullptr;

void Print(const char* text) {
  DWORD written = 0;
  g_watchdog->calls.writeFile(g_watchdog->output, text, static_cast<DWORD>(std::strlen(text)),
                              &written, nullptr);
}

[[noreturn]] void Report(unsigned limit) {
  const Watchdog& watchdog = *g_watchdog;
  char line[512];
  std::snprintf(
      line, sizeof(line),
      "WATCHDOG: waited %u ms for %s\n"
      "Its threads stand at (x86_64-w64-mingw32-addr2line -Cfie PROGRAM ADDRESS says more "
      "where ADDRESS is 0x140000000 plus the offset in the program):\n",
      limit, watchdog.test);
  Print(line);
  PrintThreadStacks(watchdog.calls, Print);
  Print("WATCHDOG: the program and what it has started are ended\n");
  // The job's last handle goes with this process, and the other processes with the job. Ended by
  // the job itself, a program under Wine would leave the status 0 to whoever waits for it.
  for (;;) {
    watchdog.calls.terminateProcess(watchdog.calls.getCurrentProcess(), kWatchdogExitCode);
  }
}

DWORD WINAPI Watch(void* /*unused*/) {
  const Watchdog& watchdog = *g_watchdog;
  for (;;) {
    const unsigned limit = watchdog.limitMilliseconds;
    const bool isOver =
        watchdog.calls.waitForSingleObject(watchdog.progress, limit) == WAIT_TIMEOUT;
    if (isOver && !watchdog.calls.isDebuggerPresent()) {
      Report(limit);
    }
  }
}

unsigned FirstLimit() {
  const char* const given = std::getenv("VORL_TEST_LIMIT_SECONDS");
  const unsigned long seconds = given != nullptr ? std::strtoul(given, nullptr, 10) : 0;
  return (seconds != 0 ? static_cast<unsigned>(seconds) : kTestLimitSeconds) *
         kMillisecondsPerSecond;
}

// A job that ends, with its last handle, every process in it.
HANDLE JoinJob() {
  const HANDLE job = CreateJobObjectW(nullptr, nullptr);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  if (SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits)) &&
      AssignProcessToJobObject(job, GetCurrentProcess())) {
    return job;
  }
  // On Windows 7 for a program that is started in a job: there is one only.
  std::printf("The program can join no job (%lu): what it starts may outlive it\n", GetLastError());
  CloseHandle(job);
  return nullptr;
}

}  // namespace

void StartWatchdog() {
  static Watchdog watchdog;
  g_watchdog = &watchdog;
  watchdog.job = JoinJob();
  watchdog.progress = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  watchdog.limitMilliseconds = FirstLimit();
  DuplicateHandle(GetCurrentProcess(), GetStdHandle(STD_OUTPUT_HANDLE), GetCurrentProcess(),
                  &watchdog.output, 0, FALSE, DUPLICATE_SAME_ACCESS);
  const HANDLE thread = CreateThread(nullptr, 0, Watch, nullptr, 0, nullptr);
  if (watchdog.progress == nullptr || thread == nullptr) {
    std::printf("The watchdog cannot be started (%lu)\n", GetLastError());
    std::exit(EXIT_FAILURE);
  }
  CloseHandle(thread);
}

void WatchTest(const char* test) {
  std::snprintf(g_watchdog->test, sizeof(g_watchdog->test), "%s", test);
  g_watchdog->calls.setEvent(g_watchdog->progress);
}

void SetTestLimit(unsigned milliseconds) {
  g_watchdog->limitMilliseconds = milliseconds;
  g_watchdog->calls.setEvent(g_watchdog->progress);
}
