// The part of the status about access rights.
#pragma once

#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/status/situation.h"

// Who besides administrators and the system may change what runs as LocalSystem, and who may send
// the service its own controls.
Section CheckRights(const Situation& situation);
