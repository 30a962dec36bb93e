#include "tools/vorlsetup/folders.h"

#include <array>
#include <vector>

#include "companions/common/folders.h"
#include "support/handle.h"
#include "tools/vorlsetup/security.h"

namespace {

// A file of this name lies in each folder that this installation has made, until the installation
// is complete.
constexpr wchar_t kMadeMark[] = L"\\setup.new";

constexpr wchar_t kConfigurationFile[] = L"\\vorlconf.ini";

// Who has one of these can put another folder in the place of the one below.
constexpr ACCESS_MASK kMoveRights =
    DELETE | FILE_DELETE_CHILD | WRITE_DAC | WRITE_OWNER | GENERIC_ALL;

// Who has one of these can put files into the folder.
constexpr ACCESS_MASK kFillRights =
    kMoveRights | FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY | GENERIC_WRITE;

std::wstring ExtendedLength(const std::wstring& path) { return LR"(\\?\)" + path; }

bool Exists(const std::wstring& path) noexcept {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// Calls `visit` with name and attributes of everything in the folder. False when it cannot be read.
template <typename Visit>
bool ForEachEntry(const std::wstring& folder, Visit visit) {
  WIN32_FIND_DATAW found;
  const FindHandle search(FindFirstFileW((ExtendedLength(folder) + L"\\*").c_str(), &found));
  if (!search) {
    return false;
  }
  do {
    const std::wstring name = found.cFileName;
    if (name != L"." && name != L"..") {
      visit(name, found.dwFileAttributes);
    }
  } while (FindNextFileW(search.Get(), &found));
  return GetLastError() == ERROR_NO_MORE_FILES;
}

bool IsEmpty(const std::wstring& folder) {
  bool isEmpty = true;
  const bool isRead = ForEachEntry(folder, [&](const std::wstring&, DWORD) { isEmpty = false; });
  return isRead && isEmpty;
}

// Deletes the folder with all that is in it, as far as it can. Links are removed, not followed.
void RemoveTree(const std::wstring& folder) {
  std::vector<std::pair<std::wstring, DWORD>> entries;
  ForEachEntry(folder, [&](const std::wstring& name, DWORD attributes) {
    entries.emplace_back(folder + L"\\" + name, attributes);
  });
  for (const auto& [path, attributes] : entries) {
    const std::wstring extended = ExtendedLength(path);
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      SetFileAttributesW(extended.c_str(), FILE_ATTRIBUTE_NORMAL);
      DeleteFileW(extended.c_str());
    } else if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
      RemoveDirectoryW(extended.c_str());
    } else {
      RemoveTree(path);
    }
  }
  RemoveDirectoryW(ExtendedLength(folder).c_str());
}

// A folder on a disk of this machine, of a length that the agent can use.
bool IsUsable(const std::wstring& folder, const SetupLog& log) {
  const bool isOnDrive = folder.size() > 3 && folder[1] == L':' && folder[2] == L'\\';
  if (!isOnDrive || GetDriveTypeW(folder.substr(0, 3).c_str()) != DRIVE_FIXED) {
    log.Error(folder + L" is not a folder on a fixed disk of this computer");
    return false;
  }
  if (folder.size() > kLongestFolder) {
    log.Error(folder + L" is too long: at most " + std::to_wstring(kLongestFolder) +
              L" characters");
    return false;
  }
  return true;
}

bool IsPlainFolder(const std::wstring& folder, const SetupLog& log) {
  const DWORD attributes = GetFileAttributesW(folder.c_str());
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ||
      (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    log.Error(folder + L" is a file or a link, not a folder");
    return false;
  }
  return true;
}

bool MakeFolder(const std::wstring& folder, const wchar_t* rights, const SetupLog& log) {
  const LocalMemory descriptor = MakeDescriptor(rights);
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), descriptor.Get(), FALSE};
  if (!descriptor || !CreateDirectoryW(folder.c_str(), &attributes)) {
    log.Error(folder + L" cannot be made", GetLastError());
    return false;
  }
  const FileHandle mark(CreateFileW((folder + kMadeMark).c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_NEW, FILE_ATTRIBUTE_HIDDEN, nullptr));
  log.Info(folder + L" is made");
  return true;
}

bool TakeFolder(const std::wstring& folder, const wchar_t* rights, bool isInstalled,
                const SetupLog& log) {
  if (!IsPlainFolder(folder, log)) {
    return false;
  }
  const bool wasSafe = IsOwnedByAdministrators(folder) && !MayOrdinaryUsers(kFillRights, folder);
  const DWORD error = SetFolderRights(folder, rights);
  if (error != ERROR_SUCCESS) {
    log.Error(L"The rights of " + folder + L" cannot be set", error);
    return false;
  }
  // Left by an installation that was cut off. This installation did not make the folder.
  DeleteFileW((folder + kMadeMark).c_str());
  // Only now can nobody add anything any more.
  if (!wasSafe && isInstalled) {
    log.Info(folder + L" could be changed by ordinary users: look at what lies in it");
  } else if (!wasSafe && !IsEmpty(folder)) {
    log.Error(
        folder +
        L" is not empty, and ordinary users own it or could change it: what lies in it cannot "
        L"be trusted. Empty or remove it and install again");
    return false;
  }
  log.Info(folder + L" is there and has its rights now");
  return true;
}

// Makes the folder, and those above it that are missing; checks those above that are there.
bool PrepareFolder(const std::wstring& folder, const wchar_t* rights, bool isInstalled,
                   const SetupLog& log) {
  for (std::size_t end = folder.find(L'\\', 3); end != std::wstring::npos;
       end = folder.find(L'\\', end + 1)) {
    const std::wstring above = folder.substr(0, end);
    if (!Exists(above)) {
      if (!MakeFolder(above, kProgramFolderRights, log)) {
        return false;
      }
    } else if (!IsPlainFolder(above, log)) {
      return false;
    } else if (MayOrdinaryUsers(kMoveRights, above)) {
      log.Error(L"Ordinary users may move or delete " + above + L": choose a folder below another");
      return false;
    }
  }
  return Exists(folder) ? TakeFolder(folder, rights, isInstalled, log)
                        : MakeFolder(folder, rights, log);
}

std::array<std::wstring, 2> ClosedFolders(const InstallationFolders& folders) {
  return {folders.program + L"\\logs", folders.program + L"\\pending"};
}

// From the innermost, with the program folder last.
std::array<std::wstring, 4> AllFolders(const InstallationFolders& folders) {
  const auto closed = ClosedFolders(folders);
  return {closed[0], closed[1], folders.configuration, folders.program};
}

}  // namespace

bool AreUsableFolders(const InstallationFolders& folders, const SetupLog& log) {
  if (!IsUsable(folders.program, log) || !IsUsable(folders.configuration, log)) {
    return false;
  }
  const std::wstring inside = folders.configuration + L"\\";
  if (CompareStringOrdinal((folders.program + L"\\").substr(0, inside.size()).c_str(), -1,
                           inside.c_str(), -1, TRUE) == CSTR_EQUAL) {
    log.Error(folders.configuration +
              L" holds the programs: the configuration needs its own folder");
    return false;
  }
  return true;
}

bool MakeFolders(const InstallationFolders& folders, bool isInstalled, const SetupLog& log) {
  if (!PrepareFolder(folders.program, kProgramFolderRights, isInstalled, log)) {
    return false;
  }
  for (const std::wstring& folder : ClosedFolders(folders)) {
    if (!PrepareFolder(folder, kClosedFolderRights, isInstalled, log)) {
      return false;
    }
  }
  return PrepareFolder(folders.configuration, kClosedFolderRights, isInstalled, log);
}

void RemoveMadeFolders(const InstallationFolders& folders, const SetupLog& log) {
  for (const std::wstring& folder : AllFolders(folders)) {
    if (Exists(folder + kMadeMark)) {
      RemoveTree(folder);
      log.Info(folder + L" is removed again");
    }
  }
}

void KeepMadeFolders(const InstallationFolders& folders) {
  for (const std::wstring& folder : AllFolders(folders)) {
    DeleteFileW((folder + kMadeMark).c_str());
  }
}

void RemoveData(const InstallationFolders& folders, bool withConfiguration, const SetupLog& log) {
  for (const std::wstring& folder : ClosedFolders(folders)) {
    RemoveTree(folder);
  }
  RemoveTree(folders.program + L"\\update.work");
  if (withConfiguration) {
    // The folder may be shared with other programs: only what is the agent's own goes.
    DeleteFileW((folders.configuration + kConfigurationFile).c_str());
    log.Info(L"The configuration is removed");
  }
  RemoveDirectoryW(folders.configuration.c_str());
  RemoveDirectoryW(folders.program.c_str());
}
