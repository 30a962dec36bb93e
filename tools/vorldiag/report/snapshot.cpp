#include "tools/vorldiag/report/snapshot.h"

#include "tools/vorldiag/identity/identityreport.h"
#include "tools/vorldiag/status/statusreport.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

std::string ComputerName() {
  wchar_t name[256] = {};
  DWORD size = static_cast<DWORD>(std::size(name));
  return GetComputerNameExW(ComputerNameDnsHostname, name, &size) ? Utf8(name) : "";
}

std::string Now() {
  SYSTEMTIME now{};
  GetLocalTime(&now);
  char text[80];
  std::snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u", unsigned{now.wYear},
                unsigned{now.wMonth}, unsigned{now.wDay}, unsigned{now.wHour},
                unsigned{now.wMinute}, unsigned{now.wSecond});
  return text;
}

}  // namespace

Snapshot TakeSnapshot(const Situation& situation, const Hardware& hardware) {
  Snapshot snapshot;
  snapshot.computer = ComputerName();
  snapshot.moment = Now();
  snapshot.trace = ReadRecentTrace(situation.Logs());
  snapshot.status = StatusReport(situation, hardware, snapshot.trace);
  const FolderFact& configuration = situation.configuration;
  snapshot.identity = IdentityReport(hardware,
                                     configuration.path.empty()
                                         ? IdentifierOnDisk{"", configuration.problem}
                                         : ReadStoredIdentifier(situation.ConfigurationFile()),
                                     {});
  if (configuration.path.empty()) {
    snapshot.settings.problem = configuration.problem;
  } else {
    snapshot.settings = ReadSettings(situation.ConfigurationFile());
  }
  return snapshot;
}
