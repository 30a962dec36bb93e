// Source of the BIOS UUID: the computer's product record in WMI. Used by CZTUUID. Writes no trace
// lines.
#pragma once

#include "identity/parameters.h"

// Reads the UUID of the first product that has one into `uuid`; none at all is success and leaves
// it alone. COM must be set up on the calling thread. A failure is offered to `lastError`. Throws
// _com_error for a COM text or std::bad_alloc when memory runs out.
bool ReadBiosUuid(char (&uuid)[kBiosUuidSize], FingerprintStatus& lastError);
