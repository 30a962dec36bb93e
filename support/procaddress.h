// An exported function with its type.
#pragma once

#include "support/windows_api.h"

// The exported function `name` of `module`, or null with the last error set.
template <typename Function>
Function* ProcAddress(HMODULE module, const char* name) noexcept {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}
