// The silent readers of the network adapters' addresses.
#include <mbstring.h>

#include <cstdlib>
#include <exception>
#include <memory>

#include "identity/osversion.h"
#include "identity/wmi.h"
#include "identity/ztuuid.h"
#include "support/windows_api.h"

// iphlpapi.h needs the types of windows.h.
#include <iphlpapi.h>

namespace {

// The fingerprint takes no more addresses than this.
constexpr std::size_t kMaxAddresses = 2;

// Room for one adapter.
constexpr ULONG kOneAdapterSize = 704;
static_assert(sizeof(IP_ADAPTER_INFO) == kOneAdapterSize);

// IsVersionOrGreater's name for Windows 8, the first with MSFT_NetAdapter.
constexpr int kVersion62 = 6;

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

bool Append(CZTUUID& fingerprint, const char* macAddress) {
  try {
    fingerprint.MacAddressList.emplace_back(macAddress);
    return true;
  } catch (const std::exception&) {
    fingerprint.LastError.RecordFailure(0, kStageException);
    return false;
  }
}

bool IsSameGuid(const char* left, const char* right) {
  return _mbsicmp(reinterpret_cast<const unsigned char*>(left),
                  reinterpret_cast<const unsigned char*>(right)) == 0;
}

}  // namespace

bool CZTUUID::GetMacAddresses() {
  const AdapterBuffer adapters = ReadAdapters(LastError);
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
    if (!LastError.Check(result, kStageOther) || !Append(*this, szMacAddress)) {
      return false;
    }
    if (MacAddressList.size() >= kMaxAddresses) {
      break;
    }
  }
  return true;
}

bool CZTUUID::GetOnboardNICMacAddress() {
  std::list<NetAdapterEntry> adapters;
  if (!GetNetworkAdapterList(adapters)) {
    return false;
  }
  bool hasPermanentAddresses = false;
  if (!IsVersionOrGreater(kVersion62, hasPermanentAddresses)) {
    return false;
  }
  if (hasPermanentAddresses && !ApplyPermanentAddresses(adapters)) {
    return false;
  }
  for (const NetAdapterEntry& adapter : adapters) {
    if (!Append(*this, adapter.MacAddress)) {
      return false;
    }
  }
  return true;
}

bool CZTUUID::GetNetworkAdapterList(std::list<NetAdapterEntry>& adapters) {
  WmiConnection wmi(LastError);
  if (!wmi.Open(kCimV2)) {
    return false;
  }
  const WmiResult found = wmi.Query(Bstr(
      L"SELECT * FROM Win32_NetworkAdapter WHERE Manufacturer != 'Microsoft' AND NOT PNPDeviceID "
      L"LIKE 'ROOT\\\\%'"));
  if (!found) {
    return false;
  }
  while (const WmiObject object = wmi.Next(found)) {
    NetAdapterEntry adapter{};
    Bstr macAddress = wmi.Read(object, L"MACAddress");
    if (!macAddress ||
        !LastError.Check(
            StringCchCopyA(adapter.MacAddress, sizeof(adapter.MacAddress), macAddress.Narrow()),
            kStageOther)) {
      continue;
    }
    Bstr guid = wmi.Read(object, L"GUID");
    if (guid && !LastError.Check(StringCchCopyA(adapter.Guid, sizeof(adapter.Guid), guid.Narrow()),
                                 kStageOther)) {
      adapter.Guid[0] = '\0';
    }
    adapters.push_back(adapter);
    if (adapters.size() >= kMaxAddresses) {
      break;
    }
  }
  return true;
}

bool CZTUUID::ApplyPermanentAddresses(std::list<NetAdapterEntry>& adapters) {
  WmiConnection wmi(LastError);
  if (!wmi.Open(kStandardCimV2)) {
    return false;
  }
  const WmiResult found =
      wmi.Query(Bstr(L"SELECT * FROM MSFT_NetAdapter WHERE ConnectorPresent = TRUE"));
  if (!found) {
    return false;
  }
  while (const WmiObject object = wmi.Next(found)) {
    Bstr guid = wmi.Read(object, L"InterfaceGUID");
    if (!guid) {
      continue;
    }
    for (NetAdapterEntry& adapter : adapters) {
      if (!IsSameGuid(guid.Narrow(), adapter.Guid)) {
        continue;
      }
      Bstr permanentAddress = wmi.Read(object, L"PermanentAddress");
      if (!permanentAddress) {
        break;
      }
      if (!LastError.Check(StringCchCopyA(adapter.MacAddress, sizeof(adapter.MacAddress),
                                          permanentAddress.Narrow()),
                           kStageOther)) {
        return false;
      }
    }
  }
  return true;
}
