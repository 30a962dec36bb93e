// The contract of the core module vorlcore.dll, which runs the agent's work and exports by name.
// Results are byte-sized booleans: nonzero is success, and only the low byte counts. Texts are
// null-terminated, in the ANSI code page, and live until the service has stopped its work; they and
// the numbers are the start-up options of the same names (support/vorlmisc.h).
#pragma once

#include "support/windows_api.h"

constexpr wchar_t kCoreModuleFile[] = L"\\vorlcore.dll";

// Export "ClientAgentCoreStartUp": starts the agent's work and returns.
using ClientAgentCoreStartUpFn = BOOLEAN(const char* text1, const char* text2, const char* text3,
                                         const char* text4, WORD word1, WORD word2, WORD word3,
                                         WORD word4, DWORD dword1, DWORD dword2, DWORD dword3,
                                         DWORD dword4, DWORD dword5, BYTE byte1, DWORD dword6);

// The notify argument of ClientAgentCoreCleanUp.
constexpr BYTE kNotifyNone = 1;
// The service was stopped by the administrator's deliberate action: the server is to be told.
constexpr BYTE kNotifyServer = 2;

// Export "ClientAgentCoreCleanUp": ends the agent's work and returns. The module is unloaded then.
using ClientAgentCoreCleanUpFn = BOOLEAN(const char* text1, const char* text2, const char* text3,
                                         const char* text4, WORD word1, DWORD dword1, DWORD dword2,
                                         DWORD dword3, DWORD dword6, BYTE notify);
