// What the two sources of network addresses have in common.
#pragma once

#include <exception>

#include "identity/parameters.h"

// Appends one address; false, with the failure offered to `lastError`, when there is no memory.
inline bool AppendMacAddress(std::list<std::string>& addresses, const char* address,
                             FingerprintStatus& lastError) {
  try {
    addresses.emplace_back(address);
    return true;
  } catch (const std::exception&) {
    lastError.RecordFailure(0, kStageException);
    return false;
  }
}
