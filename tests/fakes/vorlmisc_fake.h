// A support library that answers as the test says.
#pragma once

#include "support/vorlmisc.h"

// What the four functions answer with. Their results are `...Result` in the low byte of a register
// whose other bytes are rubbish, as a library in another language may leave them.
struct FakeMiscAnswers {
  BYTE rootDirResult;
  wchar_t rootDir[kFolderCapacity];
  BYTE configDirResult;
  wchar_t configDir[260];
  BYTE logOptionsResult;
  BYTE startUpOptionsResult;
  CLIENT_AGENT_STARTUP_OPTIONS startUpOptions;

  // Called at every call with the function's name; null for nothing.
  void (*onCall)(const char* function, void* context);
  void* context;

  // What the callers passed, and how often.
  DWORD rootDirCapacity;
  unsigned rootDirCalls;
  DWORD configDirCapacity;
  unsigned configDirCalls;
  unsigned logOptionsCalls;
  unsigned startUpOptionsCalls;
  // Whether every byte of the options was zero when they arrived.
  bool startUpOptionsWereZero;
};

extern "C" {

// The one set of answers; FakeMiscReset makes every function succeed with folders "C:\fake root",
// "C:\fake conf" and options that are all zero, and clears the counters.
FakeMiscAnswers* FakeMisc();
void FakeMiscReset();
}
