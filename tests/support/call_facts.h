// What is known of the functions that the product's binaries import: how a caller sees that one has
// failed, what it gives that must be given back, and which may not be replaced. The one list for
// everything that lets calls fail or ends the process at them (tests/support/fault_sweep.h,
// tests/support/death_point.h).
#pragma once

#include <span>

#include "support/windows_api.h"

// How a function says that it has failed.
enum class Answer {
  kZero,          // null, FALSE or 0, and the last error
  kAllOnes,       // -1, INVALID_HANDLE_VALUE or WAIT_FAILED, and the last error
  kStatus,        // the error itself
  kErrno,         // the error itself, one of errno.h
  kZeroErrno,     // null or 0, and errno
  kAllOnesErrno,  // -1, and errno
  kHresult,       // the HRESULT itself
  kFilled,        // a path that is as long as the buffer: parameter 2, its size in parameter 3
};

// What becomes of a call in a test that lets calls fail.
enum class Treatment {
  kFallible,    // fails when it is its turn
  kOpaque,      // is made, and what it calls is not the caller's: a test's stand-in
  kCallsBack,   // fails when it is its turn; what it calls belongs to the caller
  kSleep,       // takes no time: the clock is moved
  kClock,       // tells that clock
  kRuntime,     // is left alone, because only the compiler's runtime calls it, which cannot go on
  kCannotFail,  // is left alone
  kTestOnly,    // must not be called by the product
  kData,        // is no function
};

enum class Resource {
  kNone,
  kHandle,
  kSearch,
  kServiceHandle,
  kEventSource,
  kKey,
  kModule,
  kView,
  kHeapBlock,
  kLocalBlock,
  kText,       // a BSTR
  kVariant,    // the BSTR in a VARIANT
  kReference,  // to a COM interface
  kApartment,
  kSid,
  kThreadSlot,
  kDescriptor,
  kProvider,  // of the cryptographic functions
  kHash,
};

constexpr int kResult = 0;
constexpr int kItself = -1;  // the first parameter

struct CallFacts {
  const char* name;
  Treatment treatment = Treatment::kFallible;
  Answer answer = Answer::kZero;
  std::span<const DWORD> errors{};
  Resource gives = Resource::kNone;
  int givenAt = kResult;  // or the number of the parameter that points to it
  Resource takes = Resource::kNone;
  int takenAt = 1;      // the number of the parameter
  int lengthAt = 0;     // the parameter that says how much is wanted; 0: all or nothing
  bool isFile = false;  // changes or reads files
};

// The facts of a function; a function that is imported by its number is called "library.dll#1".
// Null when there are none, which is for the caller to complain about.
const CallFacts* FindCallFacts(const char* name);

// What a method of a COM interface answers with when it fails.
std::span<const DWORD> ComErrors();

const char* NameOf(Resource resource);
