#include "companions/vorlmisc/folders.h"

#include <cwchar>

#include "companions/vorlmisc/misctrace.h"

namespace {

constexpr wchar_t kInstallationKey[] = L"SOFTWARE\\Client Agent\\" VORL_MAJOR_VERSION;
constexpr wchar_t kConfigFolderName[] = L"\\conf";

// Room to read a path that is too long to be used, for the trace line that says so.
constexpr DWORD kReadSize = 1024;

enum class Registered { kNo, kYes, kUnusable };

bool IsFullPath(const wchar_t* path) noexcept {
  const bool onDrive =
      ((path[0] >= L'A' && path[0] <= L'Z') || (path[0] >= L'a' && path[0] <= L'z')) &&
      path[1] == L':' && path[2] == L'\\';
  const bool onServer = path[0] == L'\\' && path[1] == L'\\';
  return onDrive || onServer;
}

bool IsFolder(const wchar_t* path) noexcept {
  const DWORD attributes = GetFileAttributesW(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Copies `path`, without trailing backslashes, into `folder`; says why not when it does not fit.
bool Take(const char* functionName, const wchar_t* path, Folder& folder) noexcept {
  std::size_t length = std::wcslen(path);
  while (length > 0 && path[length - 1] == L'\\') {
    --length;
  }
  if (length > kLongestFolder) {
    TraceError(functionName, L"Folder of %u characters is too long, at most %u: %s",
               static_cast<unsigned>(length), static_cast<unsigned>(kLongestFolder), path);
    return false;
  }
  std::wmemcpy(folder.path, path, length);
  folder.path[length] = L'\0';
  return true;
}

// Looks for a folder in the installer's registry key.
Registered ReadRegistered(const char* functionName, const wchar_t* valueName,
                          Folder& folder) noexcept {
  wchar_t value[kReadSize];
  DWORD size = sizeof(value);
  // RRF_RT_REG_SZ expands the environment variables of a REG_EXPAND_SZ.
  const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, kInstallationKey, valueName,
                                      RRF_RT_REG_SZ, nullptr, value, &size);
  if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND ||
      (status == ERROR_SUCCESS && value[0] == L'\0')) {
    return Registered::kNo;
  }
  if (status != ERROR_SUCCESS) {
    TraceError(functionName, L"Registry value %s cannot be read (%u)", valueName,
               static_cast<unsigned>(status));
    return Registered::kUnusable;
  }
  if (!IsFullPath(value)) {
    TraceError(functionName, L"Registry value %s is no full path: %s", valueName, value);
    return Registered::kUnusable;
  }
  return Take(functionName, value, folder) ? Registered::kYes : Registered::kUnusable;
}

bool FindOwnFolder(const char* functionName, Folder& folder) noexcept {
  HMODULE self = nullptr;
  if (!GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          reinterpret_cast<const wchar_t*>(&FindOwnFolder), &self)) {
    TraceError(functionName, L"GetModuleHandleEx Failed %u", static_cast<unsigned>(GetLastError()));
    return false;
  }
  wchar_t path[kReadSize] = {};
  const DWORD length = GetModuleFileNameW(self, path, kReadSize);
  if (length == 0 || length == kReadSize) {
    TraceError(functionName, L"GetModuleFileName Failed %u", static_cast<unsigned>(GetLastError()));
    return false;
  }
  wchar_t* const fileName = std::wcsrchr(path, L'\\');
  if (fileName == nullptr) {
    TraceError(functionName, L"Library has no folder: %s", path);
    return false;
  }
  *fileName = L'\0';
  return Take(functionName, path, folder);
}

}  // namespace

bool FindRootFolder(const char* functionName, Folder& folder) noexcept {
  switch (ReadRegistered(functionName, L"RootDir", folder)) {
    case Registered::kNo:
      return FindOwnFolder(functionName, folder);
    case Registered::kYes:
      if (!IsFolder(folder.path)) {
        TraceError(functionName, L"Installation folder does not exist: %s", folder.path);
        return false;
      }
      return true;
    case Registered::kUnusable:
      break;
  }
  return false;
}

bool FindConfigFolder(const char* functionName, Folder& folder) noexcept {
  switch (ReadRegistered(functionName, L"ConfigDir", folder)) {
    case Registered::kNo: {
      Folder root;
      wchar_t path[kReadSize];
      if (!FindRootFolder(functionName, root) ||
          FAILED(StringCchPrintfW(path, kReadSize, L"%ls%ls", root.path, kConfigFolderName)) ||
          !Take(functionName, path, folder)) {
        return false;
      }
      break;
    }
    case Registered::kYes:
      break;
    case Registered::kUnusable:
      return false;
  }
  // The attempt itself says whether the folder was missing: another process may make it meanwhile.
  if (!CreateDirectoryW(folder.path, nullptr)) {
    const DWORD error = GetLastError();
    if (!IsFolder(folder.path)) {
      TraceError(functionName, L"Configuration folder cannot be made (%u): %s",
                 static_cast<unsigned>(error), folder.path);
      return false;
    }
  }
  return true;
}
