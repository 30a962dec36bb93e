#include "tools/vorldiag/identityreport.h"

#include <cstdio>

#include "identity/ztuuid.h"

bool ReportIdentity() {
  CZTUUID record;
  if (!record.GetUUIDParametersEx()) {
    std::puts("The hardware parameters cannot be collected.");
    return false;
  }
  std::printf("BIOS UUID          %s\n", record.BiosUuid);
  std::printf("Disk serial        %s\n", record.PrimaryHddSerial);
  for (const std::string& address : record.MacAddressList) {
    std::printf("Network address    %s\n", address.c_str());
  }

  record.ProcessUUIDParameters();
  std::printf("Hashed text        %s%s%s%s\n", record.ProcessedBiosId, record.OptimumHddSerial,
              record.MacAddress1, record.MacAddress2);

  // A record serves one collection, so the identifier is made with one of its own.
  char identifier[kIdentifierSize] = {};
  FingerprintStatus status;
  if (!ComputeZTUUIDEx(identifier, kIdentifierSize, &status)) {
    std::puts("There is no identifier.");
    return false;
  }
  std::printf("Identifier         %s\n", identifier);
  return true;
}
