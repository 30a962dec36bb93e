#include "tools/vorldiag/machine/installation.h"

#include <algorithm>
#include <iterator>

#include "companions/common/folders.h"
#include "support/folder.h"
#include "support/handle.h"
#include "support/procaddress.h"
#include "support/vorlinfo.h"
#include "tools/vorldiag/machine/rights.h"
#include "tools/vorldiag/text/utf8.h"

const wchar_t kInstallationKeyPath[] = L"SOFTWARE\\Client Agent\\" VORL_MAJOR_VERSION;

namespace {

constexpr WORD kGetEventNameByVersionOrdinal = 1;
constexpr WORD kGetServiceNameByVersionOrdinal = 9;
constexpr DWORD kServiceNameCapacity = 100;
constexpr DWORD kEventNameCapacity = 500;

constexpr char kServiceBaseName[] = "Client Agent";
constexpr char kCloseEventBaseName[] = "AcClientAgentSrvcCloseFromServicef";
constexpr char kExitEventBaseName[] = "AcClientAgentSrvcExitFromOuterModuleEvent";

Names OwnNames(std::string problem) {
  Names names;
  names.service = std::string(kServiceBaseName) + " " VORL_MAJOR_VERSION;
  names.closeEvent = std::string("Global\\") + kCloseEventBaseName + "_v" VORL_MAJOR_VERSION;
  names.exitEvent = std::string("Global\\") + kExitEventBaseName + "_v" VORL_MAJOR_VERSION;
  names.problem = std::move(problem);
  return names;
}

std::string AskName(decltype(GetEventNameByVersion)* ask, const char* baseName, DWORD capacity) {
  char name[kEventNameCapacity] = {};
  return ask != nullptr && ask(baseName, name, capacity) != 0 ? name : "";
}

std::string Text(const FolderFailure& failure) {
  switch (failure.problem) {
    case FolderProblem::kCannotBeRead:
      return "registry value " + Utf8(failure.valueName) +
             " cannot be read: " + ErrorText(failure.error);
    case FolderProblem::kNotFullPath:
      return "registry value " + Utf8(failure.valueName) +
             " is no full path: " + Utf8(failure.path);
    case FolderProblem::kNotOnDrive:
      return "registry value " + Utf8(failure.valueName) +
             " is no folder on a drive of this computer: " + Utf8(failure.path);
    case FolderProblem::kOnServer:
      return "a link leads to another computer: " + Utf8(failure.path);
    case FolderProblem::kLinkUnknown:
      return "the end of a link cannot be looked at: " + Utf8(failure.path) + ": " +
             ErrorText(failure.error);
    case FolderProblem::kTooLong:
      return "a folder of " + std::to_string(failure.length) + " characters, at most " +
             std::to_string(kLongestFolder) + ": " + Utf8(failure.path);
    case FolderProblem::kDoesNotExist:
      return "it does not exist: " + Utf8(failure.path);
    // Not where the library's own folder is given, as it is here.
    case FolderProblem::kNone:
    case FolderProblem::kNoLibraryPath:
    case FolderProblem::kNoFolder:
      break;
  }
  return "the library's own folder is unknown";
}

// Whether the installer's key has a text of this name that is not empty.
bool IsRegistered(const wchar_t* valueName) {
  DWORD size = 0;
  return RegGetValueW(HKEY_LOCAL_MACHINE, kInstallationKeyPath, valueName, RRF_RT_ANY, nullptr,
                      nullptr, &size) == ERROR_SUCCESS &&
         size > sizeof(wchar_t);
}

using Find = bool (*)(Folder&, FolderFailure&, const Folder*) noexcept;

FolderFact Ask(Find find, const wchar_t* valueName, const std::wstring& programFolder,
               const char* defaultOrigin) {
  FolderFact fact;
  fact.isRegistered = IsRegistered(valueName);
  fact.origin = fact.isRegistered ? "registry value " + Utf8(valueName) : defaultOrigin;
  Folder own{};
  Folder folder{};
  FolderFailure failure;
  if (programFolder.size() > kLongestFolder) {
    fact.problem =
        "the program's folder has more than " + std::to_string(kLongestFolder) + " characters";
    return fact;
  }
  programFolder.copy(own.path, kLongestFolder);
  if (find(folder, failure, &own)) {
    fact.path = folder.path;
  } else {
    fact.problem = Text(failure);
  }
  return fact;
}

}  // namespace

std::wstring OwnFolder() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length < path.size()) {
      path.resize(length);
      break;
    }
    path.resize(path.size() * 2);
  }
  return path.substr(0, path.find_last_of(L'\\'));
}

Names FindNames(const std::wstring& folder) {
  const std::wstring path = folder + L"\\vorlinfo.dll";
  if (!Exists(path)) {
    return OwnNames("vorlinfo.dll is missing");
  }
  if (!ForeignText(FileAccess(path, FileKind())).empty() ||
      !ForeignText(FileAccess(folder, FolderKind())).empty()) {
    return OwnNames("vorlinfo.dll was not asked, because others than administrators can change it");
  }
  const Module library(LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  if (!library) {
    return OwnNames("vorlinfo.dll cannot be loaded: " + ErrorText(GetLastError()));
  }
  auto* const getService = ProcAddress<decltype(GetServiceNameByVersion)>(
      library.Get(), MAKEINTRESOURCEA(kGetServiceNameByVersionOrdinal));
  auto* const getEvent = ProcAddress<decltype(GetEventNameByVersion)>(
      library.Get(), MAKEINTRESOURCEA(kGetEventNameByVersionOrdinal));
  Names names;
  names.service = AskName(getService, kServiceBaseName, kServiceNameCapacity);
  names.closeEvent = AskName(getEvent, kCloseEventBaseName, kEventNameCapacity);
  names.exitEvent = AskName(getEvent, kExitEventBaseName, kEventNameCapacity);
  if (names.service.empty() || names.closeEvent.empty() || names.exitEvent.empty()) {
    return OwnNames("vorlinfo.dll gives no names");
  }
  return names;
}

FolderFact InstallationFolder(const std::wstring& programFolder) {
  return Ask(&FindRootFolder, L"RootDir", programFolder, "the folder of vorlmisc.dll");
}

FolderFact ConfigurationFolder(const std::wstring& programFolder) {
  FolderFact fact =
      Ask(&FindConfigFolder, L"ConfigDir", programFolder, "conf below the installation folder");
  if (IsFolder(fact.path.c_str()) || fact.path.empty()) {
    return fact;
  }
  const std::wstring parent = fact.path.substr(0, fact.path.find_last_of(L'\\'));
  if (IsNoFolder(fact.path)) {
    fact.problem = Utf8(fact.path) + " is no folder";
  } else if (!Exists(fact.path) && !IsFolder(parent.c_str())) {
    fact.problem = Utf8(fact.path) + " does not exist, nor does the folder above it";
  }
  if (!fact.problem.empty()) {
    fact.path.clear();
  }
  return fact;
}

bool Exists(const std::wstring& path) {
  if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) {
    return true;
  }
  const DWORD error = GetLastError();
  constexpr DWORD absent[] = {
      ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_INVALID_NAME,
      ERROR_BAD_PATHNAME,   ERROR_INVALID_DRIVE,  ERROR_NOT_READY,
      ERROR_BAD_NETPATH,    ERROR_BAD_NET_NAME,   ERROR_FILENAME_EXCED_RANGE};
  return std::find(std::begin(absent), std::end(absent), error) == std::end(absent);
}

bool IsNoFolder(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}
