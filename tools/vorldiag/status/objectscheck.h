// The part of the status about events, locks and the pipe.
#pragma once

#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/status/situation.h"

// The two events, the helper's pipe and the locks: there or not, made and held by whom.
Section CheckObjects(const Situation& situation);
