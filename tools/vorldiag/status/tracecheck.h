// The part of the status about what the trace tells.
#pragma once

#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/status/situation.h"
#include "tools/vorldiag/trace/tracefiles.h"

// The last start and the last stop of the service as the trace tells them.
Section CheckTrace(const Situation& situation, const TraceContent& trace);
