// Source of the network addresses from Windows XP on: WMI. Used by CZTUUID. Writes no trace lines.
//
// COM must be set up on the calling thread. Failures are offered to `lastError`. All throw
// _com_error for a COM text or std::bad_alloc when memory runs out.
#pragma once

#include "identity/parameters.h"

// A network adapter as WMI lists it. Both texts are null-terminated.
struct NetAdapterEntry {
  char MacAddress[18];
  char Guid[39];  // with braces; empty when it could not be read
};

static_assert(sizeof(NetAdapterEntry) == 57);
static_assert(offsetof(NetAdapterEntry, Guid) == 18);

// Appends the addresses of the listed adapters, from Windows 8 on their permanent ones.
bool AppendWmiAddresses(std::list<std::string>& addresses, FingerprintStatus& lastError);

// Lists up to kMaxMacAddresses adapters that are hardware of other makers than Microsoft.
bool ListHardwareAdapters(std::list<NetAdapterEntry>& adapters, FingerprintStatus& lastError);

// Replaces the addresses of listed adapters by their permanent ones, matched by GUID.
bool ReplaceByPermanentAddresses(std::list<NetAdapterEntry>& adapters,
                                 FingerprintStatus& lastError);
