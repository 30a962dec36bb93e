// What the service expects of a core module: two functions exported by these names. Results are
// byte-sized booleans: nonzero is success. The texts are null-terminated, in the ANSI code page,
// and belong to the caller. All other arguments are start-up options of the same names.
//
// This module reports every option through the trace and then writes a heartbeat line at every
// `dword1` milliseconds (0: every minute) from a thread of its own until it is cleaned up.
#pragma once

#include "support/windows_api.h"

// The values of `notify`: why the service was stopped.
constexpr BYTE kNotifyNobody = 1;
constexpr BYTE kNotifyServer = 2;

extern "C" {

// Starts the core. FALSE when a text is missing, when the core is already started or when its
// thread cannot be; the module can then be unloaded, unless it was started before.
BOOLEAN ClientAgentCoreStartUp(const char* text1, const char* text2, const char* text3,
                               const char* text4, WORD word1, WORD word2, WORD word3, WORD word4,
                               DWORD dword1, DWORD dword2, DWORD dword3, DWORD dword4, DWORD dword5,
                               BYTE byte1, DWORD dword6);

// Ends what the start-up began; when it returns, no code of the module runs any more and it can be
// unloaded. FALSE when the core is not started.
BOOLEAN ClientAgentCoreCleanUp(const char* text1, const char* text2, const char* text3,
                               const char* text4, WORD word1, DWORD dword1, DWORD dword2,
                               DWORD dword3, DWORD dword6, BYTE notify);
}
