// The part of the status about the registered service.
#pragma once

#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/status/situation.h"

// The registration against what an installation should have, and the state.
Section CheckService(const Situation& situation);
