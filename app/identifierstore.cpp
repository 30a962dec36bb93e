#include "app/identifierstore.h"

#include <cwchar>

#include "companions/common/ini_file.h"
#include "support/folder.h"
#include "support/handle.h"
#include "support/lasterror.h"

namespace {

constexpr wchar_t kConfigurationFile[] = L"\\vorlconf.ini";
constexpr wchar_t kSection[] = L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION";
constexpr wchar_t kIdentifierKey[] = L"clientuniqueid";

constexpr char kConfigurationLock[] = "Global\\ClientAgentConfigurationFile";
constexpr DWORD kLockPatienceMilliseconds = 5000;

// Lets one start of the program at a time change the configuration file, in whatever session it
// runs: each sees what the one before has stored. The profile functions also write the whole file
// anew, and nobody promises that two processes which do so at the same moment lose none of its
// other settings: under Wine they do. Where the lock cannot be had (somebody keeps it, or keeps us
// out), the identifier is stored without it.
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

// Reads the file in one piece. Unlike the profile functions, which answer with "no value" to every
// failure, this tells a key that is missing from a file that cannot be read.
StoredIdentifier ReadWholeFile(const wchar_t* path) {
  StoredIdentifier found;
  IniFile file;
  const IniRead outcome = file.ReadPatiently(path);
  if (outcome == IniRead::kDone) {
    if (file.Value(kSection, kIdentifierKey, found.text, kStoredIdentifierSize) != 0) {
      found.state = StoredIdentifierState::kPresent;
    }
  } else if (outcome != IniRead::kMissing && !IsFolder(path)) {
    found.state = StoredIdentifierState::kUnreadable;
    found.error = file.Error();
  }
  return found;
}

}  // namespace

bool GetConfigurationFile(wchar_t (&path)[kFolderBufferSize]) {
  path[0] = L'\0';
  return GetClientAgentConfigDir(path, kFolderCapacity) != 0 &&
         SUCCEEDED(StringCchCatW(path, kFolderBufferSize, kConfigurationFile));
}

StoredIdentifier ReadIdentifier(const wchar_t* path) {
  StoredIdentifier found;
  if (GetPrivateProfileStringW(kSection, kIdentifierKey, /*lpDefault=*/nullptr, found.text,
                               kStoredIdentifierSize, path) != 0) {
    found.state = StoredIdentifierState::kPresent;
    return found;
  }
  return ReadWholeFile(path);
}

StoreOutcome StoreIdentifier(const wchar_t* identifier, const wchar_t* path,
                             StoredIdentifier& found) {
  const ConfigurationLock lock;
  // Another program may have stored one since it was found missing.
  found = ReadWholeFile(path);
  switch (found.state) {
    case StoredIdentifierState::kPresent:
      return std::wcscmp(found.text, identifier) == 0 ? StoreOutcome::kStored : StoreOutcome::kKept;
    case StoredIdentifierState::kUnreadable:
      return StoreOutcome::kUnreadable;
    case StoredIdentifierState::kMissing:
      break;
  }
  return WritePrivateProfileStringW(kSection, kIdentifierKey, identifier, path)
             ? StoreOutcome::kStored
             : StoreOutcome::kFailed;
}
