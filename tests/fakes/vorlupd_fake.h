// An update module that counts its calls.
#pragma once

#include "support/windows_api.h"

struct FakeUpdateRecord {
  // The whole result register: only the low byte is the answer.
  ULONGLONG result;
  unsigned calls;
  // Called from UpdateBeforeClientService ahead of its return; null for nothing.
  void (*onCall)(void* context);
  void* context;
};

// The export "FakeUpdate": the record of this loading of the module. The call succeeds at first.
using FakeUpdateFn = FakeUpdateRecord*();
