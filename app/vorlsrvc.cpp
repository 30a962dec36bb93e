#include "app/vorlsrvc.h"

#include <cstring>
#include <cwchar>

#include "agent/vorlsvc.h"
#include "identity/ztuuid.h"
#include "support/handle.h"
#include "support/lasterror.h"
#include "support/textconv.h"
#include "support/trace.h"
#include "support/vorlinfo.h"
#include "support/vorlmisc.h"
#include "support/windows_api.h"

namespace {

constexpr char kServiceBaseName[] = "Client Agent";
constexpr unsigned kServiceNameBufferSize = 100;

constexpr wchar_t kConfigurationFile[] = L"\\vorlconf.ini";
constexpr wchar_t kSection[] = L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION";
constexpr wchar_t kIdentifierKey[] = L"clientuniqueid";

// An identifier, as it is computed and as it may stand in the file.
constexpr unsigned kIdentifierBufferSize = 40;
constexpr DWORD kStoredIdentifierLength = 260;
constexpr int kWideIdentifierLength = 520;

constexpr char kConfigurationLock[] = "Global\\ClientAgentConfigurationFile";
constexpr DWORD kLockPatienceMilliseconds = 5000;

// Lets one start of the program at a time change the configuration file, in whatever session it
// runs. The profile functions write the whole file anew, and nobody promises that two processes
// which do so at the same moment lose none of its other settings: under Wine they do. Where the
// lock cannot be had (somebody keeps it, or keeps us out), the identifier is written without it.
class ConfigurationLock {
 public:
  // No more access than an administrator has to a lock that the service has made.
  ConfigurationLock() noexcept
      : m_mutex(CreateMutexExA(nullptr, kConfigurationLock, /*dwFlags=*/0, SYNCHRONIZE)) {
    if (m_mutex) {
      const DWORD result = WaitForSingleObject(m_mutex.Get(), kLockPatienceMilliseconds);
      m_isHeld = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
    }
  }
  ~ConfigurationLock() {
    if (m_isHeld) {
      const LastErrorKeeper keeper;
      ReleaseMutex(m_mutex.Get());
    }
  }
  ConfigurationLock(const ConfigurationLock&) = delete;
  ConfigurationLock& operator=(const ConfigurationLock&) = delete;

 private:
  KernelHandle m_mutex;
  bool m_isHeld = false;
};

bool WriteIdentifier(const wchar_t* identifier, const wchar_t* path) {
  const ConfigurationLock lock;
  return WritePrivateProfileStringW(kSection, kIdentifierKey, identifier, path) != FALSE;
}

// The path of vorlconf.ini.
bool GetConfigurationFile(wchar_t (&path)[kFolderBufferLength]) {
  path[0] = L'\0';
  return GetClientAgentConfigDir(path, kFolderCapacity) != 0 &&
         SUCCEEDED(StringCchCatW(path, kFolderBufferLength, kConfigurationFile));
}

}  // namespace

bool IsClientUUIDPresent() {
  constexpr Trace trace{"IsClientUUIDPresent"};
  trace.Info("Entry");
  wchar_t wszFilePath[kFolderBufferLength];
  if (!GetConfigurationFile(wszFilePath)) {
    trace.Error("GetClientAgentConfigDir failed");
    return false;
  }
  wchar_t wszClientId[kStoredIdentifierLength];
  if (GetPrivateProfileStringW(kSection, kIdentifierKey, /*lpDefault=*/nullptr, wszClientId,
                               kStoredIdentifierLength, wszFilePath) == 0) {
    trace.Error("Client UUID is not present in INI .Creating new ...");
    return false;
  }
  char szClientId[kStoredIdentifierLength];
  // What cannot be converted is traced as empty; it is an identifier all the same.
  static_cast<void>(WideToNarrow(wszClientId, szClientId, kStoredIdentifierLength));
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
  wchar_t wszClientId[kWideIdentifierLength];
  // Identifiers are plain ASCII text of 32 characters.
  static_cast<void>(NarrowToWide(clientId, wszClientId, kWideIdentifierLength));

  wchar_t wszFilePath[kFolderBufferLength];
  if (!GetConfigurationFile(wszFilePath)) {
    trace.Error("GetClientAgentConfigDir failed");
    return false;
  }
  if (!WriteIdentifier(wszClientId, wszFilePath)) {
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
