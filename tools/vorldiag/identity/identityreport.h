// The command that shows how the identifier is made.
#pragma once

#include "tools/vorldiag/identity/hardware.h"
#include "tools/vorldiag/identity/storedidentifier.h"
#include "tools/vorldiag/report/findings.h"

// Every parameter with its origin, what became of it, the identifier, and the stored one beside it.
Report IdentityReport(const Hardware& hardware, const IdentifierOnDisk& stored,
                      const std::vector<Collection>& collections);

// The stored identifier against the hardware, for the status. `section` gets one finding.
void CompareIdentifiers(const Hardware& hardware, const IdentifierOnDisk& stored, Section& section);
