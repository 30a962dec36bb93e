// Puts one listener in front of every call that modules make through their import tables, through
// functions that they look up at run time, and through the COM interfaces that they are given. What
// is hooked follows from the import tables and call_facts.h alone: a call that product code makes
// tomorrow is hooked without a change here.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/call_facts.h"

// One call, before it is made. No function that is hooked has more parameters; what a function has
// not is whatever lies there.
constexpr int kMaxArguments = 16;
struct HookedCall {
  const char* name;
  const CallFacts& facts;
  std::uintptr_t (&arguments)[kMaxArguments];

  std::uintptr_t Argument(int number) const { return arguments[number - 1]; }
};

struct Verdict {
  enum class Kind {
    kPass,
    kFail,   // with `error`; what gives something back does so all the same
    kLess,   // half of what is asked for
    kEndAt,  // the process ends in front of the call
    kEndIn,  // and here when half of what is asked for is done
  };
  Kind kind = Kind::kPass;
  DWORD error = 0;
};

// Called on the thread that makes the call; what it calls itself is not listened to. Must be safe
// from any thread.
class CallListener {
 public:
  virtual ~CallListener() = default;
  virtual Verdict OnCall(const HookedCall& call) = 0;
  // `isMade`: whether the function itself was called.
  virtual void OnReturn(const HookedCall& call, std::uintptr_t result, bool isMade) = 0;
  // The hooked code called what call_facts.h does not know, or knows for a test's.
  virtual void OnUnexpected(const char* name) = 0;
};

// While one lives, the listener hears the calls. One at a time. Patches of the import table
// (import_patch.h) must be made before and end after it. The hooks themselves stay callable for
// ever, for code that has looked a function up and for threads that go on.
//
// Sleep takes no time and moves the clock that GetTickCount and GetTickCount64 tell, unless a test
// has patched them. A module may be unloaded meanwhile.
class CallHooks {
 public:
  // `modules`: null stands for this program.
  CallHooks(CallListener& listener, const std::vector<HMODULE>& modules);
  ~CallHooks();
  CallHooks(const CallHooks&) = delete;
  CallHooks& operator=(const CallHooks&) = delete;

 private:
  struct Slot {
    HMODULE module;
    void** place;
    void* original;
  };

  void Hook(HMODULE module, CallListener& listener);

  std::vector<Slot> m_slots;
};

// Makes calls of this thread through the hooks unheard while it lives.
class UnheardCalls {
 public:
  UnheardCalls();
  ~UnheardCalls();
  UnheardCalls(const UnheardCalls&) = delete;
  UnheardCalls& operator=(const UnheardCalls&) = delete;

 private:
  bool m_wasUnheard;
};

// Moves the clock of hooked code, as a Sleep of it would.
void AdvanceClock(DWORD milliseconds);

// What `module` imports that can fail; null stands for this program.
std::set<std::string> FallibleImports(HMODULE module);

// The exit code of a process that ended by a verdict.
constexpr UINT kEndedAtCall = 77;
