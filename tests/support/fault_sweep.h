// Lets every call that an operation of the product makes fail, one at a time.
//
// The operation is run once to learn which calls it makes, then once more for each call and each
// error that the call can give, and once with a call that does less than it was asked to. What
// fails and how follows from the import tables and call_facts.h.
//
//   TEST(ServiceFaults, StartServiceByName) {
//     SweepFaults("StartServiceByName", [](FaultRun& run) {
//       Journal journal;
//       FakeServiceManager manager(journal);
//       BOOL result = FALSE;
//       run.Call([&] { result = StartServiceByName("Sample"); });
//       EXPECT_EQ(result, !run.IsFaulted() || run.IsFaultIn({"CloseServiceHandle"}));
//     });
//   }
//
// After each run the operation has returned without a crash, everything that its calls have given
// is given back once, and whatever the body expects holds. A watchdog stands behind each run. What
// fails the test is printed with the fault that led to it.
//
// A bounded sweep takes one error for each call; with VORL_TEST_LONG=1 it takes all of them.
#pragma once

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/trace_recorder.h"

// A trace line that an operation states for the failure of a call; "%u" is the error.
struct StatedFailure {
  const char* function;
  const char* text;
};

class FaultRun {
 public:
  struct State;
  explicit FaultRun(State& state) : m_state(state) {}

  // A module whose calls are hooked besides this program's own, from the next Call on.
  void Hook(HMODULE module);
  // Only the modules given by Hook.
  void LeaveProgramAlone();

  // Runs the operation. Everything that stands in for Windows must be there before and stay until
  // afterwards. `cleanUp` runs with the hooks in place but without faults, for what is given back
  // later than at the operation's end.
  void Call(const std::function<void()>& operation, const std::function<void()>& cleanUp = {});

  // Whether a call of this run was made to fail or to do less.
  bool IsFaulted() const;
  // Whether that was a call of one of these functions.
  bool IsFaultIn(std::initializer_list<const char*> functions) const;
  // Whether it only did less than it was asked to.
  bool IsLess() const;
  // Its number among the calls of its function, from 1.
  unsigned FaultNumber() const;
  DWORD FaultError() const;

  // Expects whole lines without rubbish, and among them the line that is stated for what failed.
  void ExpectLines(const std::vector<TraceLine>& lines,
                   std::initializer_list<StatedFailure> stated = {}) const;

  // Handles and the like that `function` has given, and which are the caller's business from now
  // on. For `cleanUp`.
  std::vector<HANDLE> TakeOver(const char* function);

 private:
  State& m_state;
};

struct SweepOptions {
  // Functions whose failure has no meaning here, each with its reason beside it.
  std::vector<std::string> left;
  // Whether allocations of the C++ runtime fail as well: only where the operation says what it does
  // then.
  bool memory = false;
  // At most so many calls of one function fail in the bounded form, chosen by the program's seed.
  unsigned mostCalls = 1000;
};

void SweepFaults(const std::string& operation, const std::function<void(FaultRun&)>& body,
                 const SweepOptions& options = {});
