#include "identity/ipadapters.h"

#include <cstdlib>
#include <memory>

#include "identity/macaddresslist.h"
#include "support/windows_api.h"

// iphlpapi.h needs the types of windows.h.
#include <iphlpapi.h>

namespace {

// Room for one adapter.
constexpr ULONG kOneAdapterSize = 704;
static_assert(sizeof(IP_ADAPTER_INFO) == kOneAdapterSize);

struct FreeMemory {
  void operator()(void* memory) const noexcept { std::free(memory); }
};
using AdapterBuffer = std::unique_ptr<IP_ADAPTER_INFO, FreeMemory>;

AdapterBuffer Allocate(ULONG size) {
  return AdapterBuffer(static_cast<IP_ADAPTER_INFO*>(std::malloc(size)));
}

// The system's adapter list; empty, with the failure recorded, when it cannot be had.
AdapterBuffer ReadAdapters(FingerprintStatus& lastError) {
  ULONG size = kOneAdapterSize;
  AdapterBuffer adapters = Allocate(size);
  if (!adapters) {
    lastError.RecordFailure(0, kStageAllocation);
    return {};
  }
  ULONG result = GetAdaptersInfo(adapters.get(), &size);
  if (result == ERROR_BUFFER_OVERFLOW) {
    adapters.reset();
    adapters = Allocate(size);
    if (!adapters) {
      lastError.RecordFailure(0, kStageAllocation);
      return {};
    }
    result = GetAdaptersInfo(adapters.get(), &size);
  }
  if (result != ERROR_SUCCESS) {
    lastError.RecordFailure(static_cast<std::int32_t>(result), kStageOther);
    return {};
  }
  return adapters;
}

}  // namespace

bool AppendIpHelperAddresses(std::list<std::string>& addresses, FingerprintStatus& lastError) {
  const AdapterBuffer adapters = ReadAdapters(lastError);
  if (!adapters) {
    return false;
  }
  for (const IP_ADAPTER_INFO* adapter = adapters.get(); adapter != nullptr;
       adapter = adapter->Next) {
    const BYTE* const address = adapter->Address;
    char szMacAddress[kMacAddressSize];
    const HRESULT result =
        StringCchPrintfA(szMacAddress, kMacAddressSize, "%02x-%02x-%02x-%02x-%02x-%02x", address[0],
                         address[1], address[2], address[3], address[4], address[5]);
    if (!lastError.Check(result, kStageOther) ||
        !AppendMacAddress(addresses, szMacAddress, lastError)) {
      return false;
    }
    if (addresses.size() >= kMaxMacAddresses) {
      break;
    }
  }
  return true;
}
