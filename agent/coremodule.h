// The contracts of the two modules that the service loads. Results are byte-sized booleans: nonzero
// is success, and only the low byte counts.
#pragma once

#include "support/windows_api.h"

constexpr wchar_t kCoreModuleFile[] = L"\\vorlcore.dll";
constexpr wchar_t kUpdateModuleFile[] = L"\\vorlupd.dll";

// Export "ClientAgentCoreStartUp" of the core module: starts the agent's work and returns. Texts
// are null-terminated and live until the service's body ends.
using ClientAgentCoreStartUpFn = BOOLEAN(const char* text1, const char* text2, const char* text3,
                                         const char* text4, WORD word1, WORD word2, WORD word3,
                                         WORD word4, DWORD dword1, DWORD dword2, DWORD dword3,
                                         DWORD dword4, DWORD dword5, BYTE byte1, DWORD dword6);

// The notify argument of ClientAgentCoreCleanUp.
constexpr BYTE kNotifyNone = 1;
// The service was stopped by the administrator's deliberate action: the server is to be told.
constexpr BYTE kNotifyServer = 2;

// Export "ClientAgentCoreCleanUp" of the core module: ends the agent's work and returns.
using ClientAgentCoreCleanUpFn = BOOLEAN(const char* text1, const char* text2, const char* text3,
                                         const char* text4, WORD word1, DWORD dword1, DWORD dword2,
                                         DWORD dword3, DWORD dword6, BYTE notify);

// Export "UpdateBeforeClientService" of the update module: applies pending patches and returns.
using UpdateBeforeClientServiceFn = BOOLEAN();
