// A program whose only test hangs on purpose, in company: hanging_program MUTEX EVENT starts itself
// as a child and that one as a grandchild, which takes the mutex, sets the event and waits for
// ever.
#include <gtest/gtest.h>

#include <string>

#include "support/handle.h"
#include "tests/support/start_process.h"
#include "tests/support/test_run.h"
#include "tests/support/watchdog.h"

namespace {

constexpr char kChild[] = "child";
constexpr char kGrandchild[] = "grandchild";

std::string g_mutexName;
std::string g_eventName;

void WaitForEver() { WaitForSingleObject(GetCurrentProcess(), INFINITE); }

StartedProcess StartAgain(const std::string& role) {
  const std::string command = "hanging_program.exe " + g_mutexName + " " + g_eventName + " " + role;
  return StartProcess(std::wstring(command.begin(), command.end()));
}

TEST(Hanging, WaitsForWhatNeverComes) {
  ASSERT_TRUE(StartAgain(kChild).process);
  const KernelHandle begun(OpenEventA(SYNCHRONIZE, FALSE, g_eventName.c_str()));
  ASSERT_EQ(WaitForSingleObject(begun.Get(), INFINITE), WAIT_OBJECT_0);
  SetTestLimit(1);
  WaitForEver();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    return EXIT_FAILURE;
  }
  g_mutexName = argv[1];
  g_eventName = argv[2];
  const std::string role = argc > 3 ? argv[3] : "";
  if (role == kChild) {
    StartAgain(kGrandchild);
    WaitForEver();
  }
  if (role == kGrandchild) {
    const KernelHandle mutex(OpenMutexA(SYNCHRONIZE, FALSE, g_mutexName.c_str()));
    WaitForSingleObject(mutex.Get(), INFINITE);
    const KernelHandle begun(OpenEventA(EVENT_MODIFY_STATE, FALSE, g_eventName.c_str()));
    SetEvent(begun.Get());
    WaitForEver();
  }
  argc = 1;
  return RunTests(argc, argv);
}
