#include "companions/common/folders.h"

#include <cstddef>
#include <cwchar>
#include <iterator>

#include "support/folder.h"
#include "support/handle.h"

// The linker's name for the beginning of the library.
extern "C" const IMAGE_DOS_HEADER __ImageBase;  // NOLINT

namespace {

constexpr wchar_t kInstallationKey[] = L"SOFTWARE\\Client Agent\\" VORL_MAJOR_VERSION;
constexpr wchar_t kConfigFolderName[] = L"\\conf";
constexpr wchar_t kConfigurationFileName[] = L"vorlconf.ini";

enum class Registered { kNo, kYes, kUnusable };

bool Fail(FolderFailure& failure, FolderProblem problem, DWORD error = ERROR_SUCCESS) noexcept {
  failure.problem = problem;
  failure.error = error;
  return false;
}

bool FailAt(FolderFailure& failure, FolderProblem problem, const wchar_t* path) noexcept {
  // A long one is cut: enough of it is left to be recognised.
  static_cast<void>(StringCchCopyW(failure.path, kFolderReadSize, path));
  return Fail(failure, problem);
}

bool IsSeparator(wchar_t character) noexcept { return character == L'\\' || character == L'/'; }

// From the root of a drive on.
bool IsFullPath(const wchar_t* path) noexcept {
  const bool hasDrive =
      (path[0] >= L'A' && path[0] <= L'Z') || (path[0] >= L'a' && path[0] <= L'z');
  return hasDrive && path[1] == L':' && IsSeparator(path[2]);
}

// A server, or a path with a prefix that goes round Windows' rules for paths.
bool IsOffDrives(const wchar_t* path) noexcept {
  return IsSeparator(path[0]) && (IsSeparator(path[1]) || path[1] == L'?');
}

// Whether the drive of a full path is a disk of this computer, for every account.
bool IsLocalDrive(const wchar_t* path) noexcept {
  const wchar_t root[] = {path[0], L':', L'\\', L'\0'};
  const wchar_t drive[] = {path[0], L':', L'\0'};
  if (GetDriveTypeW(root) == DRIVE_REMOTE) {
    return false;
  }
  // A substituted drive stands for a folder, in the sessions of some accounts only.
  constexpr wchar_t substituted[] = L"\\??\\";
  wchar_t device[kFolderReadSize] = {};
  if (QueryDosDeviceW(drive, device, kFolderReadSize) == 0) {
    // A letter that no drive has is another failure: the folder does not exist. A name that does
    // not fit is no disk's, but can be a folder's.
    return GetLastError() == ERROR_FILE_NOT_FOUND;
  }
  return std::wcsncmp(device, substituted, std::size(substituted) - 1) != 0;
}

bool IsLink(const wchar_t* path) noexcept {
  const DWORD attributes = GetFileAttributesW(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// Cuts the last name off; false when only a name in the root of a drive is left.
bool GoUp(wchar_t* path) noexcept {
  constexpr std::ptrdiff_t rootLength = 3;
  wchar_t* const name = std::wcsrchr(path, L'\\');
  if (name == nullptr || name - path < rootLength) {
    return false;
  }
  *name = L'\0';
  return true;
}

bool IsOnServer(HANDLE file) noexcept {
  constexpr wchar_t server[] = L"\\\\?\\UNC\\";
  wchar_t target[kFolderReadSize] = {};
  const DWORD length = GetFinalPathNameByHandleW(file, target, kFolderReadSize, FILE_NAME_OPENED);
  // What does not fit is not known to lie on a disk.
  return length >= kFolderReadSize ||
         (length != 0 && std::wcsncmp(target, server, std::size(server) - 1) == 0);
}

// Refuses a path from which a link, also one above it, leads to another computer, or to where
// nothing can be found now, for that may be a server that does not answer. Of what is yet to be
// made, the folder above it is looked at. What is no link lies where its path says.
bool RefuseServer(const wchar_t* path, FolderFailure& failure) noexcept {
  wchar_t looked[MAX_PATH];
  // It fits: see kLongestFolder.
  static_cast<void>(StringCchCopyW(looked, MAX_PATH, path));
  do {
    const FileHandle file(CreateFileW(looked, FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (file) {
      return !IsOnServer(file.Get()) || FailAt(failure, FolderProblem::kOnServer, path);
    }
    const DWORD error = GetLastError();
    if (IsLink(looked)) {
      static_cast<void>(FailAt(failure, FolderProblem::kLinkUnknown, path));
      failure.error = error;
      return false;
    }
  } while (GoUp(looked));
  return true;
}

bool RefuseServer(const Folder& folder, FolderFailure& failure) noexcept {
  return RefuseServer(folder.path, failure);
}

// Brings a registered value into the form that Windows itself gives a path.
FolderProblem Normalize(const wchar_t* value, wchar_t (&path)[kFolderReadSize]) noexcept {
  if (IsOffDrives(value)) {
    return FolderProblem::kNotOnDrive;
  }
  if (!IsFullPath(value)) {
    return FolderProblem::kNotFullPath;
  }
  const DWORD length = GetFullPathNameW(value, kFolderReadSize, path, nullptr);
  if (length == 0 || length >= kFolderReadSize) {
    return FolderProblem::kNotFullPath;
  }
  // A device, such as NUL, has a path of another form; the root of a drive has nothing after it.
  return IsFullPath(path) && path[3] != L'\0' && IsLocalDrive(path) ? FolderProblem::kNone
                                                                    : FolderProblem::kNotOnDrive;
}

// Copies `path`, without trailing backslashes, into `folder`.
bool Take(const wchar_t* path, Folder& folder, FolderFailure& failure) noexcept {
  std::size_t length = std::wcslen(path);
  while (length > 0 && path[length - 1] == L'\\') {
    --length;
  }
  if (length > kLongestFolder) {
    failure.length = static_cast<DWORD>(length);
    return FailAt(failure, FolderProblem::kTooLong, path);
  }
  std::wmemcpy(folder.path, path, length);
  folder.path[length] = L'\0';
  return true;
}

// Looks for a folder in the installer's registry key.
Registered ReadRegistered(const wchar_t* valueName, Folder& folder,
                          FolderFailure& failure) noexcept {
  // A value of no bytes is a success that writes nothing.
  wchar_t value[kFolderReadSize] = {};
  DWORD size = sizeof(value);
  // RRF_RT_REG_SZ expands the environment variables of a REG_EXPAND_SZ.
  const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, kInstallationKey, valueName,
                                      RRF_RT_REG_SZ, nullptr, value, &size);
  if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND ||
      (status == ERROR_SUCCESS && value[0] == L'\0')) {
    return Registered::kNo;
  }
  failure.valueName = valueName;
  if (status != ERROR_SUCCESS) {
    Fail(failure, FolderProblem::kCannotBeRead, static_cast<DWORD>(status));
    return Registered::kUnusable;
  }
  wchar_t path[kFolderReadSize];
  const FolderProblem problem = Normalize(value, path);
  if (problem != FolderProblem::kNone) {
    FailAt(failure, problem, value);
    return Registered::kUnusable;
  }
  return Take(path, folder, failure) ? Registered::kYes : Registered::kUnusable;
}

}  // namespace

bool FindOwnFolder(Folder& folder, FolderFailure& failure) noexcept {
  folder.path[0] = L'\0';
  // A module's handle is its address.
  const auto self = reinterpret_cast<HMODULE>(const_cast<IMAGE_DOS_HEADER*>(&__ImageBase));
  wchar_t path[kFolderReadSize] = {};
  const DWORD length = GetModuleFileNameW(self, path, kFolderReadSize);
  if (length == 0 || length == kFolderReadSize) {
    return Fail(failure, FolderProblem::kNoLibraryPath, GetLastError());
  }
  wchar_t* const fileName = std::wcsrchr(path, L'\\');
  if (fileName == nullptr) {
    return FailAt(failure, FolderProblem::kNoFolder, path);
  }
  *fileName = L'\0';
  return Take(path, folder, failure);
}

bool RefuseLinkToServer(const Folder& folder, const wchar_t* name,
                        FolderFailure& failure) noexcept {
  wchar_t path[MAX_PATH];
  // It fits: see kLongestFolder.
  static_cast<void>(StringCchPrintfW(path, MAX_PATH, L"%ls\\%ls", folder.path, name));
  return !IsLink(path) || RefuseServer(path, failure);
}

bool FindRootFolder(Folder& folder, FolderFailure& failure, const Folder* own) noexcept {
  switch (ReadRegistered(L"RootDir", folder, failure)) {
    case Registered::kNo:
      return own != nullptr ? Take(own->path, folder, failure) : FindOwnFolder(folder, failure);
    case Registered::kYes:
      return RefuseServer(folder, failure) &&
             (IsFolder(folder.path) || FailAt(failure, FolderProblem::kDoesNotExist, folder.path));
    case Registered::kUnusable:
      break;
  }
  return false;
}

bool FindConfigFolder(Folder& folder, FolderFailure& failure, const Folder* own) noexcept {
  switch (ReadRegistered(L"ConfigDir", folder, failure)) {
    case Registered::kNo: {
      Folder root;
      wchar_t path[kLongestFolder + std::size(kConfigFolderName)];
      // It fits.
      return FindRootFolder(root, failure, own) &&
             SUCCEEDED(StringCchPrintfW(path, std::size(path), L"%ls%ls", root.path,
                                        kConfigFolderName)) &&
             Take(path, folder, failure) && RefuseServer(folder, failure) &&
             RefuseLinkToServer(folder, kConfigurationFileName, failure);
    }
    case Registered::kYes:
      return RefuseServer(folder, failure) &&
             RefuseLinkToServer(folder, kConfigurationFileName, failure);
    case Registered::kUnusable:
      break;
  }
  return false;
}
