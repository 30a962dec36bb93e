// The contract of the client-agent support library vorlmisc.dll, which exports by ordinal only.
// Results are byte-sized booleans: nonzero is success, and only the low byte counts.
#pragma once

#include <cstddef>

#include "support/windows_api.h"

#pragma pack(push, 1)

// The agent's start-up options. The service passes them on field by field and reads none of them.
struct CLIENT_AGENT_STARTUP_OPTIONS {
  char Text1[520];
  char Text2[520];
  char Text3[40];
  char Text4[260];
  WORD Word1;
  WORD Word2;
  WORD Word3;
  WORD Word4;
  BYTE NotPassedOn[2];
  DWORD Dword1;
  DWORD Dword2;
  DWORD Dword3;
  DWORD Dword4;
  DWORD Dword5;
  BYTE Byte1;
  DWORD Dword6;
};

#pragma pack(pop)

static_assert(sizeof(CLIENT_AGENT_STARTUP_OPTIONS) == 1375);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Text2) == 520);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Text3) == 1040);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Text4) == 1080);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Word1) == 1340);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Word2) == 1342);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Word3) == 1344);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Word4) == 1346);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, NotPassedOn) == 1348);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Dword1) == 1350);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Dword2) == 1354);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Dword3) == 1358);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Dword4) == 1362);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Dword5) == 1366);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Byte1) == 1370);
static_assert(offsetof(CLIENT_AGENT_STARTUP_OPTIONS, Dword6) == 1371);

// The capacity that this program states to the two folder functions, and the characters that its
// buffers really hold: a file name of 13 characters can be appended even to a folder that fills the
// whole capacity.
constexpr DWORD kFolderCapacity = 520;
constexpr DWORD kFolderBufferSize = kFolderCapacity + 16;

extern "C" {

// Ordinal 1. The installation folder, without a trailing backslash.
BOOLEAN GetClientAgentRootDir(wchar_t* folder, DWORD capacity);

// Ordinal 2. The folder of vorlconf.ini, without a trailing backslash.
BOOLEAN GetClientAgentConfigDir(wchar_t* folder, DWORD capacity);

// Ordinal 5. Applies the configured trace options to this process.
BOOLEAN SetClientAgentLogOptions();

// Ordinal 6. Fills the options, which the caller has zero-filled.
BOOLEAN GetClientAgentStartUpOptions(CLIENT_AGENT_STARTUP_OPTIONS* options);
}
