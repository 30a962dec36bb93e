#include "modules/vorlupd/filesystem.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "support/handle.h"

namespace {

struct Entry {
  std::wstring name;
  PathKind kind;
};

// Files on volumes with deduplication or compression have reparse points as well, which lead
// nowhere else. Where Windows does not give the tag, it is taken for that of a link.
PathKind KindOf(const WIN32_FIND_DATAW& found) noexcept {
  if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    const DWORD tag = found.dwReserved0;
    if (tag == 0 || IsReparseTagNameSurrogate(tag)) {
      return PathKind::kLink;
    }
  }
  return (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? PathKind::kFolder
                                                                  : PathKind::kFile;
}

// What `folder` holds, sorted by name, or nothing when it cannot be read.
std::optional<std::vector<Entry>> ReadFolder(const std::wstring& folder) {
  std::vector<Entry> entries;
  WIN32_FIND_DATAW found;
  const FindHandle search(FindFirstFileW((folder + L"\\*").c_str(), &found));
  if (!search) {
    return std::nullopt;
  }
  do {
    const std::wstring name = found.cFileName;
    if (name != L"." && name != L"..") {
      entries.push_back({name, KindOf(found)});
    }
  } while (FindNextFileW(search.Get(), &found));
  if (GetLastError() != ERROR_NO_MORE_FILES) {
    return std::nullopt;
  }
  std::sort(entries.begin(), entries.end(),
            [](const Entry& left, const Entry& right) { return left.name < right.name; });
  return entries;
}

// `level`: that of what lies in `folder`, from 0.
Listing ListFilesBelow(const std::wstring& folder, const std::wstring& prefix, unsigned level,
                       std::vector<std::wstring>& files) {
  if (level > kDeepestLevel) {
    return Listing::kTooDeep;
  }
  const std::optional<std::vector<Entry>> entries = ReadFolder(folder);
  if (!entries) {
    return Listing::kFailed;
  }
  for (const Entry& entry : *entries) {
    if (entry.kind == PathKind::kFile) {
      files.push_back(prefix + entry.name);
    } else if (entry.kind == PathKind::kFolder) {
      const Listing listing = ListFilesBelow(folder + L"\\" + entry.name,
                                             prefix + entry.name + L"\\", level + 1, files);
      if (listing != Listing::kComplete) {
        return listing;
      }
    } else {
      SetLastError(ERROR_CANT_ACCESS_FILE);
      return Listing::kFailed;
    }
  }
  return Listing::kComplete;
}

// One of the two is right for the link. Neither touches what it leads to.
bool RemoveLink(const std::wstring& link) noexcept {
  return RemoveDirectoryW(link.c_str()) || DeleteFileW(link.c_str());
}

bool RemoveTreeAt(const std::wstring& folder, unsigned level) {
  if (level > kDeepestLevel) {
    return false;
  }
  const std::optional<std::vector<Entry>> entries = ReadFolder(folder);
  if (!entries) {
    return ::KindOf(folder) == PathKind::kNothing;
  }
  bool isAllGone = true;
  for (const Entry& entry : *entries) {
    const std::wstring path = folder + L"\\" + entry.name;
    bool isGone = false;
    switch (entry.kind) {
      case PathKind::kFolder:
        isGone = RemoveTreeAt(path, level + 1);
        break;
      case PathKind::kFile:
        isGone = DeleteAnyFile(path);
        break;
      default:
        isGone = RemoveLink(path);
        break;
    }
    isAllGone = isAllGone && isGone;
  }
  return isAllGone && RemoveDirectoryW(folder.c_str());
}

void RemoveEmptyFoldersAt(const std::wstring& folder, unsigned level) {
  if (level > kDeepestLevel) {
    return;
  }
  const std::optional<std::vector<Entry>> entries = ReadFolder(folder);
  if (!entries) {
    return;
  }
  for (const Entry& entry : *entries) {
    if (entry.kind == PathKind::kFolder) {
      const std::wstring path = folder + L"\\" + entry.name;
      RemoveEmptyFoldersAt(path, level + 1);
      // This fails where a file is left, as it should.
      RemoveDirectoryW(path.c_str());
    }
  }
}

bool Flush(const std::wstring& path) noexcept {
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  return file && FlushFileBuffers(file.Get());
}

bool MeansInUse(DWORD error) noexcept {
  return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION ||
         error == ERROR_USER_MAPPED_FILE;
}

// Moves `file` to a free name in `aside`, which is made when it is missing; empty on failure.
std::wstring MoveAside(const std::wstring& file, const std::wstring& aside) {
  if (!CreateDirectoryW(aside.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
    return {};
  }
  for (unsigned number = 0;; ++number) {
    std::wstring target = aside + L"\\" + std::to_wstring(number);
    if (MoveFileExW(file.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH)) {
      return target;
    }
    if (GetLastError() != ERROR_ALREADY_EXISTS && GetLastError() != ERROR_FILE_EXISTS) {
      return {};
    }
  }
}

}  // namespace

std::wstring ExtendedLength(const std::wstring& path) {
  if (path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\")) {
    return path;
  }
  if (path.starts_with(L"\\\\")) {
    return L"\\\\?\\UNC" + path.substr(1);
  }
  return L"\\\\?\\" + path;
}

bool IsPlainRelativePath(const std::wstring& path) noexcept {
  constexpr wchar_t lastControlCharacter = 31;
  constexpr std::wstring_view forbidden = L"<>:\"/|?*";
  const std::wstring_view whole{path};
  std::size_t start = 0;
  while (true) {
    const std::size_t end = std::min(whole.find(L'\\', start), whole.size());
    const std::wstring_view name = whole.substr(start, end - start);
    if (name.empty() || name == L"." || name == L".." ||
        std::any_of(name.begin(), name.end(), [forbidden](wchar_t character) {
          return character <= lastControlCharacter || forbidden.find(character) != forbidden.npos;
        })) {
      return false;
    }
    if (end == whole.size()) {
      return true;
    }
    start = end + 1;
  }
}

PathKind KindOf(const std::wstring& path) noexcept {
  WIN32_FIND_DATAW found;
  const FindHandle search(FindFirstFileW(path.c_str(), &found));
  if (search) {
    return KindOf(found);
  }
  const DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? PathKind::kNothing
                                                                        : PathKind::kUnknown;
}

std::wstring NameOnDisk(const std::wstring& path) {
  WIN32_FIND_DATAW found;
  const FindHandle search(FindFirstFileW(path.c_str(), &found));
  return search ? found.cFileName : std::wstring();
}

Listing ListFiles(const std::wstring& folder, std::vector<std::wstring>& files) {
  return ListFilesBelow(folder, L"", 0, files);
}

bool CopyToDisk(const std::wstring& source, const std::wstring& target) noexcept {
  if (!CopyFileW(source.c_str(), target.c_str(), FALSE)) {
    return false;
  }
  // The copy has the attributes of its source; a read-only one cannot be opened for flushing.
  const DWORD attributes = GetFileAttributesW(target.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_READONLY) == 0) {
    return Flush(target);
  }
  return SetFileAttributesW(target.c_str(), FILE_ATTRIBUTE_NORMAL) && Flush(target) &&
         SetFileAttributesW(target.c_str(), attributes);
}

bool MakeParents(const std::wstring& root, const std::wstring& relativePath) {
  for (std::size_t end = relativePath.find(L'\\'); end != std::wstring::npos;
       end = relativePath.find(L'\\', end + 1)) {
    const std::wstring folder = root + L"\\" + relativePath.substr(0, end);
    if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
      return false;
    }
  }
  return true;
}

bool PutInPlace(const std::wstring& source, const std::wstring& target, const std::wstring& aside) {
  if (MoveFileExW(source.c_str(), target.c_str(),
                  MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    return true;
  }
  if (!MeansInUse(GetLastError())) {
    return false;
  }
  const std::wstring former = MoveAside(target, aside);
  if (former.empty()) {
    return false;
  }
  if (MoveFileExW(source.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH)) {
    return true;
  }
  const LastErrorKeeper keeper;
  MoveFileExW(former.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH);
  return false;
}

bool RemoveFile(const std::wstring& file, const std::wstring& aside) {
  return DeleteAnyFile(file) || (MeansInUse(GetLastError()) && !MoveAside(file, aside).empty());
}

bool DeleteAnyFile(const std::wstring& file) noexcept {
  if (DeleteFileW(file.c_str())) {
    return true;
  }
  DWORD error = GetLastError();
  const DWORD attributes = GetFileAttributesW(file.c_str());
  if (error == ERROR_ACCESS_DENIED && attributes != INVALID_FILE_ATTRIBUTES &&
      (attributes & FILE_ATTRIBUTE_READONLY) != 0) {
    SetFileAttributesW(file.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY});
    if (DeleteFileW(file.c_str())) {
      return true;
    }
    error = GetLastError();
    SetFileAttributesW(file.c_str(), attributes);
  }
  SetLastError(error);
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

bool RemoveTree(const std::wstring& folder) {
  return KindOf(folder) == PathKind::kLink ? RemoveLink(folder) : RemoveTreeAt(folder, 0);
}

void RemoveEmptyFolders(const std::wstring& folder) { RemoveEmptyFoldersAt(folder, 0); }
