#include "companions/common/folders.h"

#include <cwchar>
#include <iterator>

// The linker's name for the beginning of the library.
extern "C" const IMAGE_DOS_HEADER __ImageBase;  // NOLINT

namespace {

constexpr wchar_t kInstallationKey[] = L"SOFTWARE\\Client Agent\\" VORL_MAJOR_VERSION;
constexpr wchar_t kConfigFolderName[] = L"\\conf";

// Room to read a path that is too long to be used, for whoever says so.
constexpr DWORD kReadSize = std::size(FolderFailure{}.path);

enum class Registered { kNo, kYes, kUnusable };

bool Fail(FolderFailure& failure, FolderProblem problem, DWORD error = ERROR_SUCCESS) noexcept {
  failure.problem = problem;
  failure.error = error;
  return false;
}

bool FailAt(FolderFailure& failure, FolderProblem problem, const wchar_t* path) noexcept {
  // Enough of it to be recognised.
  static_cast<void>(StringCchCopyW(failure.path, kReadSize, path));
  return Fail(failure, problem);
}

bool IsFullPath(const wchar_t* path) noexcept {
  const bool onDrive =
      ((path[0] >= L'A' && path[0] <= L'Z') || (path[0] >= L'a' && path[0] <= L'z')) &&
      path[1] == L':' && path[2] == L'\\';
  const bool onServer = path[0] == L'\\' && path[1] == L'\\';
  return onDrive || onServer;
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
  wchar_t value[kReadSize];
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
  if (!IsFullPath(value)) {
    FailAt(failure, FolderProblem::kNotFullPath, value);
    return Registered::kUnusable;
  }
  return Take(value, folder, failure) ? Registered::kYes : Registered::kUnusable;
}

}  // namespace

bool IsFolder(const wchar_t* path) noexcept {
  const DWORD attributes = GetFileAttributesW(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool FindOwnFolder(Folder& folder, FolderFailure& failure) noexcept {
  folder.path[0] = L'\0';
  // A module's handle is its address.
  const auto self = reinterpret_cast<HMODULE>(const_cast<IMAGE_DOS_HEADER*>(&__ImageBase));
  wchar_t path[kReadSize] = {};
  const DWORD length = GetModuleFileNameW(self, path, kReadSize);
  if (length == 0 || length == kReadSize) {
    return Fail(failure, FolderProblem::kNoLibraryPath, GetLastError());
  }
  wchar_t* const fileName = std::wcsrchr(path, L'\\');
  if (fileName == nullptr) {
    return FailAt(failure, FolderProblem::kNoFolder, path);
  }
  *fileName = L'\0';
  return Take(path, folder, failure);
}

bool FindRootFolder(Folder& folder, FolderFailure& failure, const Folder* own) noexcept {
  switch (ReadRegistered(L"RootDir", folder, failure)) {
    case Registered::kNo:
      return own != nullptr ? Take(own->path, folder, failure) : FindOwnFolder(folder, failure);
    case Registered::kYes:
      return IsFolder(folder.path) || FailAt(failure, FolderProblem::kDoesNotExist, folder.path);
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
             Take(path, folder, failure);
    }
    case Registered::kYes:
      return true;
    case Registered::kUnusable:
      break;
  }
  return false;
}
