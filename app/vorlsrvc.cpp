#include "app/vorlsrvc.h"

#include "agent/vorlsvc.h"
#include "app/identifierstore.h"
#include "identity/ztuuid.h"
#include "support/textconv.h"
#include "support/trace.h"
#include "support/vorlinfo.h"
#include "support/vorlmisc.h"
#include "support/windows_api.h"

namespace {

constexpr char kServiceBaseName[] = "Client Agent";
constexpr unsigned kServiceNameBufferSize = 100;

constexpr unsigned kIdentifierBufferSize = 40;
constexpr int kWideIdentifierSize = 520;

// A file that nobody can read may hold an identifier, which must not be taken for missing.
void TraceUnreadable(const Trace& trace, DWORD error) {
  trace.Error("vorlconf.ini cannot be read (%u), a client UUID in it is left as it is", error);
}

// At the error level, like the new identifier that it stands for.
void TraceKept(const Trace& trace, const StoredIdentifier& found) {
  char szClientId[kStoredIdentifierSize];
  static_cast<void>(WideToNarrow(found.text, szClientId, kStoredIdentifierSize));
  trace.ErrorDirect("Client UUID is present in INI by now and is kept : %s", szClientId);
}

}  // namespace

bool IsClientUUIDPresent() {
  constexpr Trace trace{"IsClientUUIDPresent"};
  trace.Info("Entry");
  wchar_t wszFilePath[kFolderBufferSize];
  if (!GetConfigurationFile(wszFilePath)) {
    trace.Error("GetClientAgentConfigDir failed");
    return false;
  }
  const StoredIdentifier stored = ReadIdentifier(wszFilePath);
  if (stored.state != StoredIdentifierState::kPresent) {
    if (stored.state == StoredIdentifierState::kUnreadable) {
      TraceUnreadable(trace, stored.error);
    }
    trace.Error("Client UUID is not present in INI .Creating new ...");
    return false;
  }
  char szClientId[kStoredIdentifierSize];
  // What cannot be converted is traced as empty; it is an identifier all the same.
  static_cast<void>(WideToNarrow(stored.text, szClientId, kStoredIdentifierSize));
  trace.InfoDirect("ClientUUID fetched : %s", szClientId);
  trace.Info("Exit");
  return true;
}

bool SetClientUUID(const char* clientId) {
  constexpr Trace trace{"SetClientUUID"};
  trace.Verbose(" Entry");
  if (clientId == nullptr) {
    trace.Error("Invalid parameters");
    return false;
  }
  wchar_t wszClientId[kWideIdentifierSize];
  // Identifiers are plain ASCII text of 32 characters.
  static_cast<void>(NarrowToWide(clientId, wszClientId, kWideIdentifierSize));

  wchar_t wszFilePath[kFolderBufferSize];
  if (!GetConfigurationFile(wszFilePath)) {
    trace.Error("GetClientAgentConfigDir failed");
    return false;
  }
  StoredIdentifier found;
  switch (StoreIdentifier(wszClientId, wszFilePath, found)) {
    case StoreOutcome::kStored:
      break;
    case StoreOutcome::kKept:
      TraceKept(trace, found);
      break;
    case StoreOutcome::kUnreadable:
      TraceUnreadable(trace, found.error);
      [[fallthrough]];
    case StoreOutcome::kFailed:
      trace.Error("WritePrivateProfileString failed.");
      return false;
  }
  trace.Verbose(" Exit");
  return true;
}

bool CreateAndSetClientUUID() {
  constexpr Trace trace{"CreateAndSetClientUUID"};
  CZTUUID CZTUUIDobj;
  trace.Info("Entry");
  char szZTUUIDA[kIdentifierBufferSize] = {};
  if (!CZTUUIDobj.GetZTUUID(szZTUUIDA, kIdentifierBufferSize)) {
    trace.Error("CZTUUIDobj.GetZTUUID failed.");
    return false;
  }
  // At the error level, so that a new identifier stands in every trace.
  trace.ErrorDirect("Client Unique ID: %s", szZTUUIDA);
  if (!SetClientUUID(szZTUUIDA)) {
    trace.Error("SetClientUUID failed.");
    return false;
  }
  trace.Info("Exit");
  return true;
}

int main(int argc, char** argv) {
  constexpr Trace trace{"main"};
  trace.Info("Entry");

  trace.Info("Before Calling SetClientAgentLogOptions");
  if (SetClientAgentLogOptions() == 0) {
    trace.Error("SetClientAgentLogOptions Failed");
  }
  trace.Info("After Calling SetClientAgentLogOptions");

  char szBaseName[kServiceNameBufferSize] = {};
  static_cast<void>(StringCchCopyA(szBaseName, kServiceNameBufferSize, kServiceBaseName));
  char szServiceName[kServiceNameBufferSize] = {};
  if (GetServiceNameByVersion(szBaseName, szServiceName, kServiceNameBufferSize) == 0) {
    return 0;
  }

  if (!IsClientUUIDPresent()) {
    static_cast<void>(CreateAndSetClientUUID());  // it traced why it failed
  }

  trace.Info("Before Creating CAcAsSvc Object");
  CAcAsSvc asServiceObj(szServiceName);
  trace.Info("After Creating CAcAsSvc Object");

  trace.Info("Before Calling asServiceObj.ParseStandardArgs");
  if (!asServiceObj.ParseStandardArgs(argc, argv)) {
    // Also the ordinary path of the service process.
    trace.Error("asServiceObj.ParseStandardArgs Failed");
    trace.Info("Before Calling asServiceObj.StartService");
    static_cast<void>(asServiceObj.StartService());  // there is nobody to tell
    trace.Info("After Calling asServiceObj.StartService");
  }
  trace.Info("After Calling asServiceObj.ParseStandardArgs");
  trace.Info("Exit");
  return static_cast<int>(asServiceObj.ExitCode());
}
