// The data of one fingerprint: the parameters as the sources give them and as they go into the
// fingerprint. Plain data, which CZTUUID inherits and every step works on.
#pragma once

#include <cstddef>
#include <list>
#include <string>

#include "identity/fingerprintstatus.h"

// Sizes of the fields in bytes, terminators included.
constexpr std::size_t kMacAddressSize = 18;
constexpr std::size_t kProcessedBiosIdSize = 33;
constexpr std::size_t kOptimumHddSerialSize = 57;
constexpr std::size_t kBiosUuidSize = 37;
constexpr std::size_t kPrimaryHddSerialSize = 100;

// The most network addresses that a source gives.
constexpr std::size_t kMaxMacAddresses = 2;

// The normalised parameters, in front of them what every step reports to. Their layout counts.
struct FingerprintFields {
  FingerprintStatus LastError;

  // Set on Windows version 5.0, where the fingerprint is made of network addresses only.
  bool IsWindows2000 = false;

  // These four lie back to back: PlaceMacAddresses fills the run that begins at MacAddress1.
  char MacAddress1[kMacAddressSize] = {};
  char MacAddress2[kMacAddressSize] = {};
  char ProcessedBiosId[kProcessedBiosIdSize] = {};
  char OptimumHddSerial[kOptimumHddSerialSize] = {};
};

// The parameters as collected.
struct RawParameters {
  std::list<std::string> MacAddressList;
  char BiosUuid[kBiosUuidSize] = {};
  char PrimaryHddSerial[kPrimaryHddSerialSize] = {};
};

static_assert(sizeof(FingerprintStatus) == 8);
static_assert(offsetof(FingerprintStatus, ErrorStage) == 4);
static_assert(offsetof(FingerprintFields, LastError) == 0);
static_assert(offsetof(FingerprintFields, IsWindows2000) == 8);
static_assert(offsetof(FingerprintFields, MacAddress1) == 9);
static_assert(offsetof(FingerprintFields, MacAddress2) == 9 + 18);
static_assert(offsetof(FingerprintFields, ProcessedBiosId) == 9 + 18 + 18);
static_assert(offsetof(FingerprintFields, OptimumHddSerial) == 9 + 18 + 18 + 33);
