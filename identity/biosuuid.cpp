#include "identity/biosuuid.h"

#include "identity/wmi.h"

bool ReadBiosUuid(char (&uuid)[kBiosUuidSize], FingerprintStatus& lastError) {
  WmiConnection wmi(lastError);
  if (!wmi.Open(kCimV2)) {
    return false;
  }
  const WmiResult products = wmi.Query(Bstr("SELECT * FROM Win32_ComputerSystemProduct"));
  if (!products) {
    return false;
  }
  while (const WmiObject product = wmi.Next(products)) {
    if (Bstr text = wmi.Read(product, L"UUID")) {
      return lastError.Check(StringCchCopyA(uuid, kBiosUuidSize, text.Narrow()), kStageOther);
    }
  }
  return true;
}
