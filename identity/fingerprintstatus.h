// The record of the last failure of a fingerprint.
#pragma once

#include <cstdint>

// Where a fingerprint step failed, as recorded in FingerprintStatus::ErrorStage.
constexpr std::uint32_t kStageOther = 0;       // text operations, COM set-up, files
constexpr std::uint32_t kStageAllocation = 1;  // no memory for the adapter list; the code is 0
constexpr std::uint32_t kStageMacForm = 2;     // an address text of unknown form; the code is 0
constexpr std::uint32_t kStageException = 3;   // a text or list operation threw; the code is 0
constexpr std::uint32_t kStageLocator = 4;
constexpr std::uint32_t kStageConnect = 5;
constexpr std::uint32_t kStageQuery = 6;
constexpr std::uint32_t kStageNext = 8;
constexpr std::uint32_t kStageProperty = 9;
constexpr std::uint32_t kStageEmptyFingerprint = 10;
constexpr std::uint32_t kStageNullBuffer = 11;

// The last failure recorded.
struct FingerprintStatus {
  std::int32_t ErrorCode = 0;    // HRESULT, Win32 error or errno
  std::uint32_t ErrorStage = 0;  // one of the stages above

  // Every failed step offers its code and stage here. They are kept only when both fields already
  // hold something other than 0: a status that starts as (0, 0) stays so, and callers go by the
  // results of the operations alone.
  void RecordFailure(std::int32_t code, std::uint32_t stage) noexcept {
    if (ErrorCode != 0 && ErrorStage != 0) {
      ErrorCode = code;
      ErrorStage = stage;
    }
  }

  // Records `result` when it is a failure (negative). Returns whether it was a success.
  bool Check(std::int32_t result, std::uint32_t stage) noexcept {
    if (result < 0) {
      RecordFailure(result, stage);
      return false;
    }
    return true;
  }
};
