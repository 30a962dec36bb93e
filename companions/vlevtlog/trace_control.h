// An entry of vlevtlog.dll beside its trace contract: how the client-agent support library applies
// the configured trace options. A trace library of another maker may lack it, so a caller looks it
// up at run time (GetModuleHandleW, GetProcAddress by ordinal) and does without it.
#pragma once

#include "support/windows_api.h"

// Exported by this ordinal only, which is far from those that other trace libraries may use for
// something else.
constexpr WORD kApplyTraceOptionsOrdinal = 1904;

// Makes `configurationFile`, the full path of vorlconf.ini, the file whose section
// [TRACE] holds this process's trace options and applies them: added levels at once, the rest when
// the file is at rest or nothing is in force. Later changes of the file are picked up within
// seconds. Without this call the library reads conf\vorlconf.ini below its own folder. A missing
// section or key means the default. Returns nonzero on success; zero, with nothing changed, when
// the path is null, empty or has MAX_PATH characters or more. Preserves the caller's last error.
using ApplyTraceOptionsFunction = BOOLEAN(const wchar_t* configurationFile);
extern "C" ApplyTraceOptionsFunction ApplyTraceOptions;
