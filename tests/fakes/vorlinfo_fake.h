// A version-information library that answers as the test says.
#pragma once

#include "support/vorlinfo.h"

struct FakeInfoAnswers {
  // The names are "<prefix><base name>". Results are the low byte of a register whose other bytes
  // are rubbish.
  BYTE eventNameResult;
  char eventNamePrefix[460];
  // When not 0: the call of this number (from 1) to GetEventNameByVersion gives false.
  unsigned eventNameFailingCall;
  BYTE serviceNameResult;
  char serviceNamePrefix[100];

  // Called at every call with the function's name and its base name; null for nothing.
  void (*onCall)(const char* function, const char* baseName, void* context);
  void* context;

  // What the callers passed, and how often.
  unsigned eventNameCalls;
  DWORD eventNameCapacity;
  unsigned serviceNameCalls;
  DWORD serviceNameCapacity;
  char serviceBaseName[100];
};

extern "C" {

// The one set of answers; FakeInfoReset makes both functions succeed with the prefixes "Test " for
// services and "Test_<process id>_" for events, and clears the counters.
FakeInfoAnswers* FakeInfo();
void FakeInfoReset();
}
