// The cache file hwcdata.dat, which keeps the raw parameters so that a later run can tell whether
// the hardware is still the same. Used by CZTUUID, through which vorldiag writes and compares it;
// the service does neither. Writes no trace lines; failures are offered to `lastError`.
#pragma once

#include <string>

#include "identity/parameters.h"

// The size of a file's unscrambled content: network addresses, BIOS UUID, serial number, each
// null-terminated in its field.
constexpr std::size_t kCachePayloadSize = 173;

// `folder`: what stands in front of the file's name: a folder with a trailing backslash, or nothing
// for the current one. The file is written in its place; a failure may leave a part of it.
bool WriteCache(const std::string& folder, const RawParameters& parameters,
                FingerprintStatus& lastError);

// Reads and checks the file. A null `payload` is a failure.
bool ReadCache(const std::string& folder, unsigned char* payload, FingerprintStatus& lastError);

// Whether the file is there, whole, and holds these parameters; letter case does not count, nor
// does what the file has beyond the list of addresses.
bool IsCacheOf(const std::string& folder, const RawParameters& parameters,
               FingerprintStatus& lastError);
