// What the tests of the fingerprint have in common, whether they play one source or a machine.
#pragma once

#include <gtest/gtest.h>

#include "identity/ztuuid.h"
#include "support/windows_api.h"
#include "tests/support/expected_trace.h"

// Results as WMI, COM and the bounded text functions give them.
inline constexpr HRESULT kCut = static_cast<HRESULT>(0x8007007A);
inline constexpr HRESULT kShuttingDown = static_cast<HRESULT>(0x80041033);
inline constexpr HRESULT kChangedMode = static_cast<HRESULT>(0x80010106);
inline constexpr HRESULT kTooLate = static_cast<HRESULT>(0x80010119);

// The lines of each operation.
inline constexpr char kFingerprintSource[] = "identity/ztuuid.cpp";
inline constexpr ExpectedTrace kCollect{"CZTUUID::GetUUIDParameters", kFingerprintSource};
inline constexpr ExpectedTrace kCollectEx{"CZTUUID::GetUUIDParametersEx", kFingerprintSource};
inline constexpr ExpectedTrace kCompose{"CZTUUID::GetZTUUID", kFingerprintSource};
inline constexpr ExpectedTrace kComposeEx{"CZTUUID::GetZTUUIDEx", kFingerprintSource};
inline constexpr ExpectedTrace kNormalise{"CZTUUID::ProcessUUIDParameters", kFingerprintSource};
inline constexpr ExpectedTrace kHyphenate{"CZTUUID::ProcessMACAddresses", kFingerprintSource};
inline constexpr ExpectedTrace kSort{"CZTUUID::SortMacAddress", kFingerprintSource};
inline constexpr ExpectedTrace kValidate{"CZTUUID::ValidateUUID", kFingerprintSource};
inline constexpr ExpectedTrace kSerialTail{"CZTUUID::GetOptimumHDDSrNo", kFingerprintSource};
inline constexpr ExpectedTrace kBiosId{"CZTUUID::ProcessBiosId", kFingerprintSource};
inline constexpr ExpectedTrace kStringify{"CZTUUID::StringifyMD5", kFingerprintSource};

// The record begins with a failure in it, so that it keeps what the steps offer.
class FingerprintTest : public ::testing::Test {
 protected:
  FingerprintTest() { fingerprint.LastError = {1, 1}; }

  void ExpectRecorded(HRESULT code, unsigned stage) {
    EXPECT_EQ(fingerprint.LastError.ErrorCode, code);
    EXPECT_EQ(fingerprint.LastError.ErrorStage, stage);
  }

  CZTUUID fingerprint;
};
