// The part of the status about programs and folders.
#pragma once

#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/status/situation.h"

// Every binary: there, whole, with the entries that the service calls, and the one that was
// shipped.
Section CheckPrograms(const Situation& situation);

// Every folder: which one, and where that was said.
Section CheckFolders(const Situation& situation);
