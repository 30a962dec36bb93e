// Where each thread stands.
#pragma once

#include "tests/support/direct_calls.h"

// Hands `print` the stacks of this process's threads, in pieces of whole lines: "module+offset"
// from the innermost call outwards. The calling thread is left out.
void PrintThreadStacks(const DirectCalls& calls, void (*print)(const char* text));
