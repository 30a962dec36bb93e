// A core module that records what it was called with. Its exports are told by the .def files beside
// it, some of which leave one out.
#pragma once

#include "support/windows_api.h"

struct FakeCoreRecord {
  // The whole result registers: only the low byte is the answer.
  ULONGLONG startUpResult = 1;
  ULONGLONG cleanUpResult = 1;
  // Called from ClientAgentCoreStartUp ahead of its return; null for nothing.
  void (*onStartUp)(void* context);
  // The same from ClientAgentCoreCleanUp.
  void (*onCleanUp)(void* context);
  void* context;

  unsigned startUpCalls;
  const char* startUpAddresses[4];
  char startUpTexts[4][520];
  WORD startUpWords[4];
  DWORD startUpDwords[6];
  BYTE startUpByte1;

  unsigned cleanUpCalls;
  const char* cleanUpAddresses[4];
  char cleanUpTexts[4][520];
  WORD cleanUpWord1;
  // Dword1, Dword2, Dword3, Dword6
  DWORD cleanUpDwords[4];
  BYTE notify;
};

// The export "FakeCore": the record of this loading of the module. Both calls succeed at first.
using FakeCoreFn = FakeCoreRecord*();
