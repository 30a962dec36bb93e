#include "identity/wmiadapters.h"

#include <mbstring.h>

#include "identity/macaddresslist.h"
#include "identity/osversion.h"
#include "identity/wmi.h"

namespace {

bool IsSameGuid(const char* left, const char* right) {
  return _mbsicmp(reinterpret_cast<const unsigned char*>(left),
                  reinterpret_cast<const unsigned char*>(right)) == 0;
}

}  // namespace

bool AppendWmiAddresses(std::list<std::string>& addresses, FingerprintStatus& lastError) {
  std::list<NetAdapterEntry> adapters;
  if (!ListHardwareAdapters(adapters, lastError)) {
    return false;
  }
  bool hasPermanentAddresses = false;
  if (!IsVersionOrGreater(kVersionIndex62, hasPermanentAddresses)) {
    return false;
  }
  if (hasPermanentAddresses && !ReplaceByPermanentAddresses(adapters, lastError)) {
    return false;
  }
  for (const NetAdapterEntry& adapter : adapters) {
    if (!AppendMacAddress(addresses, adapter.MacAddress, lastError)) {
      return false;
    }
  }
  return true;
}

bool ListHardwareAdapters(std::list<NetAdapterEntry>& adapters, FingerprintStatus& lastError) {
  WmiConnection wmi(lastError);
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
        !lastError.Check(
            StringCchCopyA(adapter.MacAddress, sizeof(adapter.MacAddress), macAddress.Narrow()),
            kStageOther)) {
      continue;
    }
    Bstr guid = wmi.Read(object, L"GUID");
    if (guid && !lastError.Check(StringCchCopyA(adapter.Guid, sizeof(adapter.Guid), guid.Narrow()),
                                 kStageOther)) {
      adapter.Guid[0] = '\0';
    }
    adapters.push_back(adapter);
    if (adapters.size() >= kMaxMacAddresses) {
      break;
    }
  }
  return true;
}

bool ReplaceByPermanentAddresses(std::list<NetAdapterEntry>& adapters,
                                 FingerprintStatus& lastError) {
  WmiConnection wmi(lastError);
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
      if (!lastError.Check(StringCchCopyA(adapter.MacAddress, sizeof(adapter.MacAddress),
                                          permanentAddress.Narrow()),
                           kStageOther)) {
        return false;
      }
    }
  }
  return true;
}
