// Source of the network addresses on Windows version 5.0: the IP Helper interface. Used by CZTUUID.
// Writes no trace lines.
#pragma once

#include "identity/parameters.h"

// Appends the addresses of the first adapters, in lower case with hyphens, until the list holds
// kMaxMacAddresses. A failure is offered to `lastError` and leaves what was appended.
bool AppendIpHelperAddresses(std::list<std::string>& addresses, FingerprintStatus& lastError);
