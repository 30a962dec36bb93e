// Everything that a ticket needs, collected at one moment.
#pragma once

#include <string>

#include "tools/vorldiag/documents/settings.h"
#include "tools/vorldiag/identity/hardware.h"
#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/status/situation.h"
#include "tools/vorldiag/trace/tracefiles.h"

struct Snapshot {
  std::string computer;
  std::string moment;  // "2026-03-09 07:05:02", local time
  Report status;
  Report identity;
  Settings settings;
  TraceContent trace;
};

Snapshot TakeSnapshot(const Situation& situation, const Hardware& hardware);
