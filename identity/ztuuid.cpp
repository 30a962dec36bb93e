#include "identity/ztuuid.h"

#include <cstring>

#include "identity/biosuuid.h"
#include "identity/ipadapters.h"
#include "identity/md5.h"
#include "identity/normalise.h"
#include "identity/osversion.h"
#include "identity/systemdisk.h"
#include "support/trace.h"
#include "support/windows_api.h"

// The lean windows.h leaves COM out.
#include <objbase.h>

namespace {

// Takes this thread out of COM at the end of the scope, also when an exception passes.
class ComLeaver {
 public:
  ComLeaver() noexcept = default;
  ~ComLeaver() { CoUninitialize(); }
  ComLeaver(const ComLeaver&) = delete;
  ComLeaver& operator=(const ComLeaver&) = delete;
};

// The result of a collection; one that ran out of memory has failed.
template <typename Collect>
bool Succeeds(Collect collect) noexcept {
  try {
    return collect();
  } catch (...) {
    return false;
  }
}

// GetZTUUID or GetZTUUIDEx.
using Compute = bool (CZTUUID::*)(char* out, unsigned int outChars);

bool ComputeInto(Compute compute, char* out, unsigned int outChars, FingerprintStatus* status) {
  CZTUUID fingerprint;
  if (!(fingerprint.*compute)(out, outChars)) {
    *status = fingerprint.LastError;
    return false;
  }
  return true;
}

bool ComputeCopy(Compute compute, char* out, unsigned int outChars, FingerprintStatus* status) {
  char szIdentifier[kIdentifierSize];
  if (!ComputeInto(compute, szIdentifier, kIdentifierSize, status)) {
    return false;
  }
  const HRESULT result =
      out == nullptr ? E_INVALIDARG : StringCchPrintfA(out, outChars, "%s", szIdentifier);
  if (FAILED(result)) {
    *status = {result, 0};
    return false;
  }
  return true;
}

}  // namespace

bool CZTUUID::GetZTUUID(char* out, unsigned int outChars) {
  constexpr Trace trace{"CZTUUID::GetZTUUID"};
  trace.Info("Entry");
  if (out == nullptr || outChars == 0) {
    trace.Error("Invalid i/p params.");
    return false;
  }
  if (!Succeeds([this] { return GetUUIDParameters(); })) {
    trace.Error("GetUUIDParameters failed.");
    return false;
  }
  if (!ProcessUUIDParameters()) {
    trace.Error("ProcessUUIDParameters failed.");
    return false;
  }
  char szCombined[kCombinedSize];
  if (!CombineParameters(trace, szCombined)) {
    return false;
  }
  trace.InfoDirect("Client MAC Address:(%s)", MacAddress1);
  trace.InfoDirect("Client MAC Address:(%s)", MacAddress2);
  return HashCombined(trace, szCombined, out, outChars);
}

bool CZTUUID::GetZTUUIDEx(char* out, unsigned int outChars) {
  constexpr Trace trace{"CZTUUID::GetZTUUIDEx"};
  trace.Info("Entry");
  if (out == nullptr || outChars == 0) {
    trace.Error("Invalid i/p params.");
    return false;
  }
  if (!Succeeds([this] { return GetUUIDParametersEx(); })) {
    trace.Error("GetUUIDParametersEx failed.");
    return false;
  }
  if (!ProcessUUIDParameters()) {
    trace.Error("ProcessUUIDParameters failed.");
    return false;
  }
  char szCombined[kCombinedSize];
  return CombineParameters(trace, szCombined) && HashCombined(trace, szCombined, out, outChars);
}

bool CZTUUID::GetUUIDParameters() {
  constexpr Trace trace{"CZTUUID::GetUUIDParameters"};
  return CollectParameters(trace, ForeignCom::Refused);
}

bool CZTUUID::GetUUIDParametersEx() {
  constexpr Trace trace{"CZTUUID::GetUUIDParametersEx"};
  return CollectParameters(trace, ForeignCom::Accepted);
}

bool CZTUUID::ProcessUUIDParameters() {
  constexpr Trace trace{"CZTUUID::ProcessUUIDParameters"};
  trace.Info("Entry");
  if (!ProcessMACAddresses()) {
    trace.Error("ProcessMACAddresses failed.");
    MacAddressList.clear();
  }
  if (!SortMacAddress()) {
    trace.Error("SortMacAddress failed.");
    MacAddressList.clear();
  }
  if (IsWindows2000) {
    trace.Info("Success...");
    return true;
  }
  if (!ValidateUUID()) {
    trace.Error("ValidateUUID failed.");
    BiosUuid[0] = '\0';
  }
  if (!GetOptimumHDDSrNo()) {
    trace.Error("GetOptimumHDDSrNo failed.");
    OptimumHddSerial[0] = '\0';
  }
  if (!ProcessBiosId()) {
    trace.Error("ProcessBiosId failed.");
    ProcessedBiosId[0] = '\0';
  }
  trace.Info("Success....");
  return true;
}

bool CZTUUID::ProcessMACAddresses() {
  constexpr Trace trace{"CZTUUID::ProcessMACAddresses"};
  trace.Info("Entry");
  return HyphenateMacAddresses(MacAddressList, LastError);
}

bool CZTUUID::SortMacAddress() {
  constexpr Trace trace{"CZTUUID::SortMacAddress"};
  trace.Info("Entry");
  return PlaceMacAddresses(MacAddressList, *this);
}

bool CZTUUID::ValidateUUID() {
  constexpr Trace trace{"CZTUUID::ValidateUUID"};
  trace.Info("Entry");
  return HasUuidForm(BiosUuid, LastError);
}

bool CZTUUID::GetOptimumHDDSrNo() {
  constexpr Trace trace{"CZTUUID::GetOptimumHDDSrNo"};
  trace.Info("Entry");
  return TakeSerialTail(PrimaryHddSerial, OptimumHddSerial, LastError);
}

bool CZTUUID::ProcessBiosId() {
  constexpr Trace trace{"CZTUUID::ProcessBiosId"};
  trace.Info("Entry");
  if (BiosUuid[0] == '\0') {
    trace.Info("Success..");
    return true;
  }
  const HRESULT result = RemoveHyphens(BiosUuid, ProcessedBiosId, LastError);
  if (FAILED(result)) {
    trace.ErrorDirect("StringCchCopy failed for UUID\tError code:(%X).", result);
    return false;
  }
  trace.Info("Success..");
  return true;
}

bool CZTUUID::StringifyMD5(const unsigned char* digest16, char* out, unsigned int outChars) {
  constexpr Trace trace{"CZTUUID::StringifyMD5"};
  trace.Info("Entry");
  if (digest16 == nullptr || out == nullptr || outChars == 0) {
    return false;
  }
  if (outChars > STRSAFE_MAX_CCH) {
    LastError.RecordFailure(E_INVALIDARG, kStageOther);
    return false;
  }
  std::memset(out, 0, outChars);
  for (std::size_t i = 0; i < kMd5DigestSize; ++i) {
    char szByte[100];
    if (!LastError.Check(StringCchPrintfA(szByte, sizeof(szByte), "%02X", digest16[i]),
                         kStageOther)) {
      return false;
    }
    const HRESULT result =
        i == 0 ? StringCchCopyA(out, outChars, szByte) : StringCchCatA(out, outChars, szByte);
    if (!LastError.Check(result, kStageOther)) {
      return false;
    }
  }
  return true;
}

bool CZTUUID::GetBiosUuid() { return ReadBiosUuid(BiosUuid, LastError); }

bool CZTUUID::GetPrimaryHDDSrNo() { return ReadSystemDiskSerial(PrimaryHddSerial, LastError); }

bool CZTUUID::GetMacAddresses() { return AppendIpHelperAddresses(MacAddressList, LastError); }

bool CZTUUID::GetOnboardNICMacAddress() { return AppendWmiAddresses(MacAddressList, LastError); }

bool CZTUUID::GetNetworkAdapterList(std::list<NetAdapterEntry>& adapters) {
  return ListHardwareAdapters(adapters, LastError);
}

bool CZTUUID::ApplyPermanentAddresses(std::list<NetAdapterEntry>& adapters) {
  return ReplaceByPermanentAddresses(adapters, LastError);
}

bool CZTUUID::CollectParameters(const Trace& trace, ForeignCom foreignCom) {
  trace.Info("Entry");
  IsWindows2000 = false;
  bool isVersion50 = false;
  if (IsVersionEqual(kVersionIndex50, isVersion50) && isVersion50) {
    IsWindows2000 = true;
    if (!GetMacAddresses()) {
      trace.Error("GetMacAddresses failed.");
      return false;
    }
  } else if (!CollectThroughWmi(trace, foreignCom)) {
    return false;
  }
  trace.Info("Success...");
  return true;
}

bool CZTUUID::CollectThroughWmi(const Trace& trace, ForeignCom foreignCom) {
  const bool acceptsForeignCom = foreignCom == ForeignCom::Accepted;

  HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (FAILED(result)) {
    LastError.RecordFailure(result, kStageOther);
    trace.ErrorDirect("CoInitializeEx failed\tError code:(%X).", result);
    if (!acceptsForeignCom || result != RPC_E_CHANGED_MODE) {
      return false;
    }
  }
  // Deliberately also after RPC_E_CHANGED_MODE, where it answers no CoInitializeEx of this thread's
  // collection.
  const ComLeaver leaver;

  result = CoInitializeSecurity(/*pSecDesc=*/nullptr, /*cAuthSvc=*/-1, /*asAuthSvc=*/nullptr,
                                /*pReserved1=*/nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                RPC_C_IMP_LEVEL_IMPERSONATE, /*pAuthList=*/nullptr, EOAC_NONE,
                                /*pReserved3=*/nullptr);
  if (FAILED(result)) {
    LastError.RecordFailure(result, kStageOther);
    trace.ErrorDirect("CoInitializeSecurity failed\tError code:(%X).", result);
    if (!acceptsForeignCom || result != RPC_E_TOO_LATE) {
      return false;
    }
  }

  if (!GetBiosUuid()) {
    trace.Error("GetBiosUuid failed.");
    BiosUuid[0] = '\0';
  }
  trace.InfoDirect("UUID:(%s)", BiosUuid);
  if (!GetPrimaryHDDSrNo()) {
    trace.Error("GetPrimaryHDDSrNo failed.");
    PrimaryHddSerial[0] = '\0';
  }
  if (!GetOnboardNICMacAddress()) {
    trace.Error("GetOnboardNICMacAddress failed.");
  }
  return true;
}

bool CZTUUID::CombineParameters(const Trace& trace, char (&combined)[kCombinedSize]) {
  const HRESULT result = StringCchPrintfA(combined, kCombinedSize, "%s%s%s%s", ProcessedBiosId,
                                          OptimumHddSerial, MacAddress1, MacAddress2);
  if (FAILED(result)) {
    trace.ErrorDirect("StringCchPrintfA failed for Combined ZT UUID\tError code:(%X).", result);
    LastError.RecordFailure(result, kStageOther);
    return false;
  }
  return true;
}

bool CZTUUID::HashCombined(const Trace& trace, const char* combined, char* out,
                           unsigned int outChars) {
  trace.InfoDirect("Combined UUID:(%s)", combined);
  if (combined[0] == '\0') {
    trace.Error("Empty ZT UUID found.");
    LastError.RecordFailure(0, kStageEmptyFingerprint);
    return false;
  }

  unsigned char digest[kMd5DigestSize] = {};
  CMd5 md5;
  if (md5.CalculateMD5(reinterpret_cast<const unsigned char*>(combined),
                       static_cast<std::uint32_t>(std::strlen(combined)), digest) == 0) {
    trace.Error("CMd5::CalculateMD5 failed.");
    return false;
  }
  char szZTUUIDA[kIdentifierSize];
  if (!StringifyMD5(digest, szZTUUIDA, kIdentifierSize)) {
    trace.Error("StringifyMD5 failed for Combined ZT UUID.");
    return false;
  }
  const HRESULT result = StringCchPrintfA(out, outChars, "%s", szZTUUIDA);
  if (FAILED(result)) {
    trace.ErrorDirect("StringCchPrintfW failed for szZTUUIDA\tError code:(%X).", result);
    LastError.RecordFailure(result, kStageOther);
    return false;
  }
  trace.InfoDirect("MD5 of combined ZT UUID:(%s)\tSuccess...", szZTUUIDA);
  return true;
}

bool ComputeZTUUID(void* /*reserved*/, char* out, unsigned int outChars,
                   FingerprintStatus* status) {
  return ComputeCopy(&CZTUUID::GetZTUUID, out, outChars, status);
}

bool ComputeZTUUIDEx(char* out, unsigned int outChars, FingerprintStatus* status) {
  return ComputeCopy(&CZTUUID::GetZTUUIDEx, out, outChars, status);
}

bool ComputeZTUUIDInto(void* /*reserved*/, char* out, unsigned int outChars,
                       FingerprintStatus* status) {
  return ComputeInto(&CZTUUID::GetZTUUID, out, outChars, status);
}

bool ComputeZTUUIDExInto(char* out, unsigned int outChars, FingerprintStatus* status) {
  return ComputeInto(&CZTUUID::GetZTUUIDEx, out, outChars, status);
}
