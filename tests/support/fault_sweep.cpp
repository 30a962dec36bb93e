#include "tests/support/fault_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <mutex>
#include <numeric>
#include <random>
#include <set>

#include "tests/support/call_hooks.h"
#include "tests/support/long_run.h"
#include "tests/support/resource_ledger.h"
#include "tests/support/watchdog.h"

namespace {

// A call that is to fail.
struct Fault {
  std::string function;
  unsigned number = 0;  // among the calls of the function, from 1; 0: nothing fails
  DWORD error = 0;
  bool isLess = false;

  std::string Text() const {
    if (number == 0) {
      return "nothing fails";
    }
    return function + ", call " + std::to_string(number) +
           (isLess ? " does less" : " fails with " + std::to_string(error));
  }
};

struct Totals {
  unsigned operations = 0;
  unsigned faults = 0;
  unsigned leaks = 0;
};
Totals g_totals;

// Printed at the end of the program.
class PrintTotals : public testing::Environment {
 public:
  void TearDown() override {
    std::printf("operations %u, faults %u, leaks %u\n", g_totals.operations, g_totals.faults,
                g_totals.leaks);
  }
};

// What is being done, for the case that the program ends in the middle of it.
char g_current[400] = "";

LONG WINAPI TellCrash(EXCEPTION_POINTERS* exception) {
  std::printf("CRASHED with %#lx at %p: %s\n", exception->ExceptionRecord->ExceptionCode,
              exception->ExceptionRecord->ExceptionAddress, g_current);
  std::fflush(stdout);
  return EXCEPTION_CONTINUE_SEARCH;
}

[[noreturn]] void TellTermination() {
  std::printf("TERMINATED: %s\n", g_current);
  std::fflush(stdout);
  std::abort();
}

void BeginOnce() {
  static const bool isBegun = [] {
    testing::AddGlobalTestEnvironment(new PrintTotals);
    SetUnhandledExceptionFilter(&TellCrash);
    std::set_terminate(&TellTermination);
    // What the runtime keeps for exceptions once the first was thrown.
    try {
      throw std::exception();
    } catch (const std::exception&) {
      return true;
    }
    return false;
  }();
  static_cast<void>(isBegun);
}

bool IsMemory(const CallFacts& facts) {
  return facts.gives == Resource::kHeapBlock && facts.answer == Answer::kZeroErrno;
}

}  // namespace

struct FaultRun::State : CallListener {
  Fault fault;
  const SweepOptions* options = nullptr;
  std::vector<HMODULE> modules{nullptr};

  std::mutex mutex;
  bool isActive = false;
  std::map<std::string, unsigned> counts;
  std::map<std::string, const CallFacts*> facts;
  bool isReached = false;
  ResourceLedger ledger;
  std::set<std::string> wrong;

  bool IsLeft(const HookedCall& call) const {
    return call.facts.treatment == Treatment::kOpaque ||
           (IsMemory(call.facts) && !options->memory) ||
           std::find(options->left.begin(), options->left.end(), call.name) != options->left.end();
  }

  Verdict OnCall(const HookedCall& call) override {
    const std::lock_guard guard(mutex);
    Verdict verdict;
    if (isActive && !IsLeft(call)) {
      facts[call.name] = &call.facts;
      if (++counts[call.name] == fault.number && fault.function == call.name) {
        isReached = true;
        verdict.kind = fault.isLess ? Verdict::Kind::kLess : Verdict::Kind::kFail;
        verdict.error = fault.error;
      }
    }
    const bool isFreed = call.facts.gives == Resource::kNone;
    if (verdict.kind != Verdict::Kind::kFail || isFreed) {
      const std::string problem = ledger.Take(call);
      if (!problem.empty()) {
        wrong.insert(problem);
      }
    }
    return verdict;
  }

  void OnReturn(const HookedCall& call, std::uintptr_t result, bool isMade) override {
    if (isMade) {
      const std::lock_guard guard(mutex);
      ledger.Give(call, result);
    }
  }

  void OnUnexpected(const char* name) override {
    static std::set<std::string> told;
    const std::lock_guard guard(mutex);
    if (!told.insert(name).second) {
      return;
    }
    wrong.insert(std::string(name) + ": tests/support/call_facts.cpp must say how it fails");
  }
};

void FaultRun::Hook(HMODULE module) { m_state.modules.push_back(module); }

void FaultRun::LeaveProgramAlone() { std::erase(m_state.modules, nullptr); }

void FaultRun::Call(const std::function<void()>& operation, const std::function<void()>& cleanUp) {
  const CallHooks hooks(m_state, m_state.modules);
  m_state.isActive = true;
  operation();
  {
    const std::lock_guard guard(m_state.mutex);
    m_state.isActive = false;
  }
  if (cleanUp) {
    cleanUp();
  }
}

bool FaultRun::IsFaulted() const { return m_state.isReached; }

bool FaultRun::IsFaultIn(std::initializer_list<const char*> functions) const {
  return m_state.isReached &&
         std::find(functions.begin(), functions.end(), m_state.fault.function) != functions.end();
}

bool FaultRun::IsLess() const { return m_state.isReached && m_state.fault.isLess; }

unsigned FaultRun::FaultNumber() const { return m_state.isReached ? m_state.fault.number : 0; }

DWORD FaultRun::FaultError() const { return m_state.isReached ? m_state.fault.error : 0; }

void FaultRun::ExpectLines(const std::vector<TraceLine>& lines,
                           std::initializer_list<StatedFailure> stated) const {
  for (const TraceLine& line : lines) {
    // What is also printed on the console ends as it does there.
    const std::size_t end = line.text.size() - (line.text.ends_with('\n') ? 1 : 0);
    const bool isSound = (line.level == 1 || line.level == 2 || line.level == 8) &&
                         !line.function.empty() && !line.source.empty() && !line.text.empty() &&
                         std::all_of(line.text.data(), line.text.data() + end, [](char c) {
                           return c == '\t' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
                         });
    EXPECT_TRUE(isSound) << line;
  }
  if (!IsFaulted() || IsLess()) {
    return;
  }
  for (const StatedFailure& failure : stated) {
    if (m_state.fault.function != failure.function) {
      continue;
    }
    std::string expected = failure.text;
    const std::size_t number = expected.find("%u");
    if (number != std::string::npos) {
      expected.replace(number, 2, std::to_string(m_state.fault.error));
    }
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [&](const TraceLine& line) { return line.text == expected; }))
        << "no line \"" << expected << "\"";
  }
}

std::vector<HANDLE> FaultRun::TakeOver(const char* function) {
  const UnheardCalls unheard;
  const std::lock_guard guard(m_state.mutex);
  std::vector<HANDLE> handles;
  for (const std::uintptr_t value : m_state.ledger.TakeOver(function)) {
    handles.push_back(reinterpret_cast<HANDLE>(value));
  }
  return handles;
}

namespace {

struct RunResult {
  std::map<std::string, unsigned> counts;
  std::map<std::string, const CallFacts*> facts;
  bool isReached = false;
  std::vector<std::string> held;
};

RunResult RunOnce(const std::string& operation, const Fault& fault,
                  const std::function<void(FaultRun&)>& body, const SweepOptions& options) {
  const std::string what = operation + ": " + fault.Text();
  std::snprintf(g_current, sizeof(g_current), "%s", what.c_str());
  WatchTest(what.c_str());
  SCOPED_TRACE(what);
  FaultRun::State state;
  state.fault = fault;
  state.options = &options;
  FaultRun run(state);
  body(run);
  for (const std::string& problem : state.wrong) {
    ADD_FAILURE() << problem;
  }
  return {state.counts, state.facts, state.isReached, state.ledger.Held()};
}

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) {
    text += (text.empty() ? "" : ", ") + part;
  }
  return text;
}

// Whether the run leaves something behind; what is made once in a process is not made again.
void ExpectNothingHeld(const std::string& operation, const Fault& fault, RunResult result,
                       const std::function<void(FaultRun&)>& body, const SweepOptions& options) {
  if (result.held.empty()) {
    return;
  }
  result = RunOnce(operation, fault, body, options);
  if (!result.held.empty()) {
    ++g_totals.leaks;
    ADD_FAILURE() << operation << ": " << fault.Text()
                  << ": not given back: " << Joined(result.held);
  }
}

// The numbers of the calls of one function that are to fail.
std::vector<unsigned> CallsToFail(unsigned count, const SweepOptions& options) {
  std::vector<unsigned> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 1U);
  if (!IsLongRun() && count > options.mostCalls) {
    std::mt19937 random(static_cast<unsigned>(GTEST_FLAG_GET(random_seed)));
    std::shuffle(numbers.begin(), numbers.end(), random);
    numbers.resize(options.mostCalls);
  }
  return numbers;
}

}  // namespace

void SweepFaults(const std::string& operation, const std::function<void(FaultRun&)>& body,
                 const SweepOptions& options) {
  BeginOnce();
  // What a process does once is done in the first run.
  static_cast<void>(RunOnce(operation, {}, body, options));
  const RunResult ordinary = RunOnce(operation, {}, body, options);
  ExpectNothingHeld(operation, {}, ordinary, body, options);
  EXPECT_FALSE(ordinary.counts.empty()) << operation << ": made no call that can fail";
  ++g_totals.operations;
  unsigned reached = 0;
  for (const auto& [function, count] : ordinary.counts) {
    const CallFacts& facts = *ordinary.facts.at(function);
    for (const unsigned number : CallsToFail(count, options)) {
      std::vector<Fault> faults;
      for (std::size_t i = 0; i < facts.errors.size(); ++i) {
        // A short run takes another error for each call.
        if (IsLongRun() || (number - 1) % facts.errors.size() == i) {
          faults.push_back({function, number, facts.errors[i], false});
        }
      }
      if (facts.lengthAt != 0) {
        faults.push_back({function, number, 0, true});
      }
      for (const Fault& fault : faults) {
        const RunResult result = RunOnce(operation, fault, body, options);
        reached += result.isReached ? 1 : 0;
        ExpectNothingHeld(operation, fault, result, body, options);
      }
    }
  }
  g_totals.faults += reached;
  g_current[0] = '\0';
  std::printf("%s: faults %u\n", operation.c_str(), reached);
}
