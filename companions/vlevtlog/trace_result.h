// The outcome of an attempt to write a line of the trace.
#pragma once

#include <cstdint>

#include "support/windows_api.h"

// Why a line was not written into the shared file. `error` is what Windows said.
struct TraceFileResult {
  enum class Step : std::uint8_t { kNone, kOpenFolder, kOpenState, kLock, kOpenFile, kWrite };
  Step failed = Step::kNone;
  DWORD error = ERROR_SUCCESS;
  constexpr explicit operator bool() const noexcept { return failed == Step::kNone; }
};
