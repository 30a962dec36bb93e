#include "tools/vorldiag/identity/hardware.h"

#include <process.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>

#include "identity/md5.h"
#include "identity/osversion.h"
#include "identity/ztuuid.h"
#include "support/handle.h"
#include "support/windows_api.h"
#include "tools/vorldiag/identity/tracesink.h"
#include "tools/vorldiag/text/utf8.h"

// The lean windows.h leaves COM out.
#include <objbase.h>

namespace {

// A record keeps a failure only over an earlier one: this stands for "none so far".
constexpr FingerprintStatus kNoFailureYet{1, 0xFFFFFFFF};

const char* StageWord(std::uint32_t stage) {
  switch (stage) {
    case kStageLocator:
      return "creating the WMI locator";
    case kStageConnect:
      return "connecting to WMI's namespace";
    case kStageQuery:
      return "running the query";
    case kStageNext:
      return "no object, or no further one";
    case kStageProperty:
      return "reading a property that has no value";
    case kStageException:
      return "text operation";
    default:
      return "COM or text operation";
  }
}

std::string FailureText(const FingerprintStatus& status) {
  if (status.ErrorStage == kNoFailureYet.ErrorStage) {
    return "";
  }
  char text[100];
  std::snprintf(text, sizeof(text), "%08X (%s)", static_cast<unsigned>(status.ErrorCode),
                StageWord(status.ErrorStage));
  return text;
}

// That there is none is no failure.
bool HasFailed(const FingerprintStatus& status) {
  return status.ErrorStage != kNoFailureYet.ErrorStage && FAILED(status.ErrorCode);
}

class ComUser {
 public:
  ComUser() {
    m_result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    m_hasEntered = SUCCEEDED(m_result);
    if (m_hasEntered) {
      const HRESULT security = CoInitializeSecurity(
          /*pSecDesc=*/nullptr, /*cAuthSvc=*/-1, /*asAuthSvc=*/nullptr, /*pReserved1=*/nullptr,
          RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE, /*pAuthList=*/nullptr, EOAC_NONE,
          /*pReserved3=*/nullptr);
      m_result = security == RPC_E_TOO_LATE ? S_OK : security;
    }
  }
  ~ComUser() {
    if (m_hasEntered) {
      CoUninitialize();
    }
  }
  ComUser(const ComUser&) = delete;
  ComUser& operator=(const ComUser&) = delete;

  HRESULT Result() const { return m_result; }

 private:
  HRESULT m_result;
  bool m_hasEntered = false;
};

void CollectBiosUuid(CZTUUID& record, Hardware& hardware) {
  record.LastError = kNoFailureYet;
  hardware.biosUuid.origin = "Win32_ComputerSystemProduct.UUID";
  if (!record.GetBiosUuid()) {
    record.BiosUuid[0] = '\0';
  }
  hardware.biosUuid.value = Utf8FromAnsi(record.BiosUuid);
  if (record.BiosUuid[0] == '\0') {
    hardware.biosUuid.error = FailureText(record.LastError);
    hardware.biosUuid.hasFailed = HasFailed(record.LastError);
  }
}

void CollectDiskSerial(CZTUUID& record, Hardware& hardware) {
  record.LastError = kNoFailureYet;
  hardware.diskSerial.origin = "Win32_PhysicalMedia.SerialNumber";
  if (!record.GetPrimaryHDDSrNo()) {
    record.PrimaryHddSerial[0] = '\0';
    hardware.diskSerial.error = FailureText(record.LastError);
    hardware.diskSerial.hasFailed = HasFailed(record.LastError);
  }
  hardware.diskSerial.value = Utf8FromAnsi(record.PrimaryHddSerial);
}

// In the steps of CZTUUID::GetOnboardNICMacAddress, to see where each address comes from.
void CollectAddresses(CZTUUID& record, Hardware& hardware) {
  record.LastError = kNoFailureYet;
  std::list<NetAdapterEntry> adapters;
  bool hasPermanent = false;
  const bool isListed =
      record.GetNetworkAdapterList(adapters) && IsVersionOrGreater(kVersionIndex62, hasPermanent);
  const std::list<NetAdapterEntry> current = adapters;
  FingerprintStatus failure = record.LastError;
  bool isDone = isListed;
  if (isListed && hasPermanent) {
    record.LastError = kNoFailureYet;
    isDone = record.ApplyPermanentAddresses(adapters);
    failure = isDone ? failure : record.LastError;
  }
  if (!isDone || adapters.empty()) {
    hardware.addressError = FailureText(failure);
    hardware.haveAddressesFailed = HasFailed(failure);
    return;
  }
  auto before = current.begin();
  for (const NetAdapterEntry& adapter : adapters) {
    RawParameter parameter;
    parameter.value = Utf8FromAnsi(adapter.MacAddress);
    const bool isPermanent = std::strcmp(adapter.MacAddress, before->MacAddress) != 0;
    parameter.origin = std::string(isPermanent ? "MSFT_NetAdapter.PermanentAddress"
                                               : "Win32_NetworkAdapter.MACAddress") +
                       (adapter.Guid[0] != '\0' ? " of " + Utf8FromAnsi(adapter.Guid) : "");
    hardware.addresses.push_back(std::move(parameter));
    record.MacAddressList.emplace_back(adapter.MacAddress);
    ++before;
  }
}

void Normalise(CZTUUID& record, Hardware& hardware) {
  record.ProcessUUIDParameters();
  hardware.processedBiosId = Utf8FromAnsi(record.ProcessedBiosId);
  hardware.optimumSerial = Utf8FromAnsi(record.OptimumHddSerial);
  hardware.address1 = Utf8FromAnsi(record.MacAddress1);
  hardware.address2 = Utf8FromAnsi(record.MacAddress2);

  const std::string combined = std::string(record.ProcessedBiosId) + record.OptimumHddSerial +
                               record.MacAddress1 + record.MacAddress2;
  hardware.combined = Utf8FromAnsi(combined);
  unsigned char digest[kMd5DigestSize] = {};
  char identifier[kIdentifierSize] = {};
  CMd5 md5;
  if (!combined.empty() && combined.size() < kCombinedSize &&
      md5.CalculateMD5(reinterpret_cast<const unsigned char*>(combined.data()),
                       static_cast<std::uint32_t>(combined.size()), digest) != 0 &&
      record.StringifyMD5(digest, identifier, kIdentifierSize)) {
    hardware.identifier = identifier;
  }
}

Hardware Collect() {
  Hardware hardware;
  const ComUser com;
  if (FAILED(com.Result())) {
    char text[100];
    std::snprintf(text, sizeof(text), "COM cannot be used (%08X)",
                  static_cast<unsigned>(com.Result()));
    hardware.problem = text;
    return hardware;
  }
  CZTUUID record;
  CollectBiosUuid(record, hardware);
  CollectDiskSerial(record, hardware);
  CollectAddresses(record, hardware);
  hardware.raw = static_cast<const RawParameters&>(record);
  Normalise(record, hardware);
  hardware.lines = TakeWrittenLines();
  return hardware;
}

Collection RunCollection(const char* name, bool (CZTUUID::*compute)(char*, unsigned int)) {
  TakeWrittenLines();
  Collection collection;
  collection.name = name;
  CZTUUID record;
  char identifier[kIdentifierSize] = {};
  if ((record.*compute)(identifier, kIdentifierSize)) {
    collection.identifier = identifier;
  }
  collection.lines = TakeWrittenLines();
  return collection;
}

// Work on a thread that may outlive the one that waits for it.
template <typename Result>
struct Task {
  std::function<Result()> work;
  std::optional<Result> result;  // none when the work has thrown
};

template <typename Result>
unsigned __stdcall RunTask(void* argument) {
  const std::unique_ptr<std::shared_ptr<Task<Result>>> task(
      static_cast<std::shared_ptr<Task<Result>>*>(argument));
  try {
    (*task)->result = (*task)->work();
  } catch (...) {
    // A COM error or no memory: the product's units throw no other.
    (*task)->result.reset();
  }
  return 0;
}

enum class Outcome { kDone, kFailed, kTooLate };

// Runs `work` on a thread of its own and waits for its end.
template <typename Result>
Outcome RunFor(unsigned seconds, std::function<Result()> work, Result& result) {
  constexpr DWORD millisecondsPerSecond = 1000;
  const auto task = std::make_shared<Task<Result>>(Task<Result>{std::move(work), {}});
  auto argument = std::make_unique<std::shared_ptr<Task<Result>>>(task);
  const KernelHandle thread(reinterpret_cast<HANDLE>(
      _beginthreadex(/*security=*/nullptr, /*stack_size=*/0, &RunTask<Result>, argument.get(),
                     /*initflag=*/0, /*thrdaddr=*/nullptr)));
  if (!thread) {
    return Outcome::kFailed;
  }
  static_cast<void>(argument.release());  // the thread's own now
  if (WaitForSingleObject(thread.Get(), seconds * millisecondsPerSecond) != WAIT_OBJECT_0) {
    return Outcome::kTooLate;
  }
  if (!task->result) {
    return Outcome::kFailed;
  }
  result = std::move(*task->result);
  return Outcome::kDone;
}

}  // namespace

std::string Hardware::FailedParts() const {
  std::string parts;
  const auto add = [&](bool hasFailed, const char* name) {
    if (hasFailed) {
      parts += (parts.empty() ? "" : ", ") + std::string(name);
    }
  };
  add(biosUuid.hasFailed, "BIOS UUID");
  add(diskSerial.hasFailed, "disk serial");
  add(haveAddressesFailed, "network addresses");
  return parts;
}

Hardware CollectHardware(unsigned seconds) {
  Hardware hardware;
  switch (RunFor<Hardware>(seconds, &Collect, hardware)) {
    case Outcome::kDone:
      break;
    case Outcome::kFailed:
      hardware.problem = "out of memory";
      break;
    case Outcome::kTooLate:
      hardware.problem = "WMI does not answer within " + std::to_string(seconds) + " s";
      break;
  }
  return hardware;
}

std::vector<Collection> RunBothCollections(unsigned seconds) {
  const auto run = [] {
    return std::vector<Collection>{RunCollection("GetZTUUID", &CZTUUID::GetZTUUID),
                                   RunCollection("GetZTUUIDEx", &CZTUUID::GetZTUUIDEx)};
  };
  std::vector<Collection> collections;
  if (RunFor<std::vector<Collection>>(seconds, run, collections) != Outcome::kDone) {
    collections = {{"GetZTUUID", "", {"it did not end in time"}}};
  }
  return collections;
}
