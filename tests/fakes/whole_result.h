// Functions of the contracts with their whole result, for the stand-ins.
#pragma once

#include "support/windows_api.h"

template <typename Function>
struct WholeResultOf;

template <typename... Args>
struct WholeResultOf<BOOLEAN(Args...)> {
  using Type = ULONGLONG(Args...);
};

// The type of an exported function as its contract states it, but with the whole result register,
// of which the caller may read the low byte only.
template <typename Function>
using WholeResult = typename WholeResultOf<Function>::Type;
