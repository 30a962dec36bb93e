// The command that looks at the whole installation.
#pragma once

#include "tools/vorldiag/identity/hardware.h"
#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/status/situation.h"
#include "tools/vorldiag/trace/tracefiles.h"

// The whole installation, looked at without changing anything.
Report StatusReport(const Situation& situation, const Hardware& hardware,
                    const TraceContent& trace);
