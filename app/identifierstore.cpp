#include "app/identifierstore.h"

#include <cwchar>
#include <iterator>

#include "companions/common/ini_file.h"
#include "support/folder.h"
#include "support/handle.h"

namespace {

constexpr wchar_t kConfigurationFile[] = L"\\vorlconf.ini";
constexpr wchar_t kIdentifierKey[] = L"clientuniqueid";

constexpr wchar_t kLockExtension[] = L".lck";

// The lock file of `path`: the same path with another extension of the same length, since the
// longest folder leaves no room for more. False when it has no extension, or does not fit.
bool GetLockFile(const wchar_t* path, wchar_t (&lock)[kFolderBufferSize]) {
  const wchar_t* const extension = std::wcsrchr(path, L'.');
  return extension != nullptr &&
         SUCCEEDED(StringCchCopyNW(lock, kFolderBufferSize, path,
                                   static_cast<std::size_t>(extension - path))) &&
         SUCCEEDED(StringCchCatW(lock, kFolderBufferSize, kLockExtension));
}

// Lets one start of the program at a time change the configuration file, in whatever session it
// runs: each sees what the one before has stored. The lock is for the other settings as well: the
// profile functions write the whole file anew, and Windows does not say what becomes of it when two
// processes do so at the same moment. Under Wine settings are lost.
//
// It is a file beside the configuration, held without sharing and gone with its handle, however the
// process ends. A named object could be made first, and kept, by anybody; whoever can keep this
// file can write the configuration itself. Where the lock cannot be had, the identifier is stored
// without it.
class ConfigurationLock {
 public:
  explicit ConfigurationLock(const wchar_t* path) noexcept {
    wchar_t lock[kFolderBufferSize];
    if (!GetLockFile(path, lock)) {
      return;
    }
    for (DWORD pause = 0; !Take(lock) && MeansBusy(GetLastError()) && pause < kIniPauses; ++pause) {
      Sleep(kIniPauseMilliseconds);
    }
  }

 private:
  bool Take(const wchar_t* lock) noexcept {
    // A link is opened itself, not what it leads to.
    m_file.Reset(CreateFileW(lock, GENERIC_WRITE | DELETE, /*dwShareMode=*/0, nullptr, OPEN_ALWAYS,
                             FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    return static_cast<bool>(m_file);
  }

  FileHandle m_file;
};

bool HasIdentifier(const IniFile& file) noexcept {
  wchar_t beginning[2];
  return file.Value(kIdentifierSection, kIdentifierKey, beginning,
                    static_cast<DWORD>(std::size(beginning))) != 0;
}

StoredIdentifier Unreadable(DWORD error) noexcept {
  StoredIdentifier found;
  found.state = StoredIdentifierState::kUnreadable;
  found.error = error;
  return found;
}

// What a file that was read with `outcome` holds.
StoredIdentifier IdentifierIn(const IniFile& file, IniRead outcome, const wchar_t* path) {
  StoredIdentifier found;
  if (outcome == IniRead::kDone) {
    if (file.Value(kIdentifierSection, kIdentifierKey, found.text, kStoredIdentifierSize) != 0) {
      found.state = StoredIdentifierState::kPresent;
    }
  } else if (outcome != IniRead::kMissing && !IsFolder(path)) {
    return Unreadable(file.Error());
  }
  return found;
}

// Reads the file in one piece. Unlike the profile functions, which answer with "no value" to every
// failure, this tells a key that is missing from a file that cannot be read.
StoredIdentifier ReadWholeFile(const wchar_t* path) {
  IniFile file;
  return IdentifierIn(file, file.ReadPatiently(path), path);
}

// The same, and the identifier is missing only when its place will stay empty: not in the first
// half of a file whose second half is yet to come.
StoredIdentifier ReadFileAtRest(const wchar_t* path, DWORD pausesWhileMissing) {
  IniFile file;
  const IniRead outcome = file.ReadPatiently(path, pausesWhileMissing, &HasIdentifier);
  const StoredIdentifier found = IdentifierIn(file, outcome, path);
  return outcome == IniRead::kDone && found.state == StoredIdentifierState::kMissing &&
                 file.WasJustWritten(kIniRestMilliseconds)
             ? Unreadable(ERROR_SHARING_VIOLATION)
             : found;
}

}  // namespace

bool GetConfigurationFile(wchar_t (&path)[kFolderBufferSize]) {
  path[0] = L'\0';
  return GetClientAgentConfigDir(path, kFolderCapacity) != 0 &&
         SUCCEEDED(StringCchCatW(path, kFolderBufferSize, kConfigurationFile));
}

StoredIdentifier ReadIdentifier(const wchar_t* path) {
  StoredIdentifier found;
  if (GetPrivateProfileStringW(kIdentifierSection, kIdentifierKey, /*lpDefault=*/nullptr,
                               found.text, kStoredIdentifierSize, path) != 0) {
    found.state = StoredIdentifierState::kPresent;
    return found;
  }
  return ReadWholeFile(path);
}

StoreOutcome StoreIdentifier(const wchar_t* identifier, const wchar_t* path,
                             StoredIdentifier& found) {
  // Asked ahead of the lock, whose file changes the folder, too.
  const DWORD pausesWhileMissing = HasFolderJustChanged(path) ? kIniRestPauses : 0;
  const ConfigurationLock lock(path);
  // Another program may have stored one since it was found missing, or be about to.
  found = ReadFileAtRest(path, pausesWhileMissing);
  switch (found.state) {
    case StoredIdentifierState::kPresent:
      return std::wcscmp(found.text, identifier) == 0 ? StoreOutcome::kStored : StoreOutcome::kKept;
    case StoredIdentifierState::kUnreadable:
      return StoreOutcome::kUnreadable;
    case StoredIdentifierState::kMissing:
      break;
  }
  return WritePrivateProfileStringW(kIdentifierSection, kIdentifierKey, identifier, path)
             ? StoreOutcome::kStored
             : StoreOutcome::kFailed;
}
