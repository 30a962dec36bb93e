#include "companions/vlevtlog/trace_folder.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <memory>

#include "companions/common/protected_access.h"

namespace {

constexpr wchar_t kFullFilePattern[] = L"vorltrace.*.log";
constexpr wchar_t kFullFilePrefix[] = L"vorltrace.";
constexpr wchar_t kFullFileFormat[] = L"vorltrace.%06u.log";
constexpr std::uint32_t kHighestNumber = 999'999'999;

struct CloseFind {
  using pointer = HANDLE;
  void operator()(HANDLE search) const noexcept { FindClose(search); }
};
using Search = std::unique_ptr<HANDLE, CloseFind>;

// Not a link, and of one name only: whoever can put a link into the folder must not choose the file
// that is written and cut.
bool IsPlain(HANDLE file) noexcept {
  BY_HANDLE_FILE_INFORMATION information;
  return GetFileInformationByHandle(file, &information) &&
         (information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 &&
         information.nNumberOfLinks <= 1;
}

// The number in the name of a full file; 0 for every other name.
std::uint32_t NumberIn(const wchar_t* name) noexcept {
  constexpr std::size_t prefixLength = std::size(kFullFilePrefix) - 1;
  if (_wcsnicmp(name, kFullFilePrefix, prefixLength) != 0) {
    return 0;
  }
  std::uint32_t number = 0;
  const wchar_t* at = name + prefixLength;
  for (; *at >= L'0' && *at <= L'9'; ++at) {
    if (number > kHighestNumber / 10) {
      return 0;
    }
    number = number * 10 + static_cast<std::uint32_t>(*at - L'0');
  }
  return _wcsicmp(at, L".log") == 0 ? number : 0;
}

// Calls `visit` with the number of each full file, in no order.
template <typename Visit>
void ForEachFullFile(const wchar_t* folder, Visit visit) noexcept {
  const TracePath pattern(folder, kFullFilePattern);
  WIN32_FIND_DATAW found;
  const HANDLE first = FindFirstFileW(pattern.Get(), &found);
  if (first == INVALID_HANDLE_VALUE) {
    return;
  }
  const Search search(first);
  do {
    const std::uint32_t number = NumberIn(found.cFileName);
    if (number != 0) {
      visit(number);
    }
  } while (FindNextFileW(search.get(), &found));
}

}  // namespace

TracePath::TracePath(const wchar_t* folder, const wchar_t* name) noexcept {
  if (folder == nullptr || FAILED(StringCchPrintfW(m_path, MAX_PATH, L"%s\\%s", folder, name))) {
    m_path[0] = 0;
  }
}

TracePath::TracePath(const wchar_t* folder, std::uint32_t number) noexcept {
  wchar_t name[32];
  // The longest number fits.
  static_cast<void>(StringCchPrintfW(name, std::size(name), kFullFileFormat, number));
  *this = TracePath(folder, name);
}

DWORD MakeTraceFolder(const wchar_t* folder) noexcept {
  if (folder == nullptr || folder[0] == 0) {
    return ERROR_PATH_NOT_FOUND;
  }
  const DWORD attributes = GetFileAttributesW(folder);
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    return ERROR_CANT_ACCESS_FILE;
  }
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return ERROR_SUCCESS;
  }
  SECURITY_ATTRIBUTES access = ProtectedAccess(ProtectedObject::kFolder);
  if (CreateDirectoryW(folder, &access)) {
    return ERROR_SUCCESS;
  }
  const DWORD error = GetLastError();
  // Another process may have been faster. That it is no folder shows in what follows.
  return error == ERROR_ALREADY_EXISTS ? ERROR_SUCCESS : error;
}

OwnedHandle OpenTraceFolderFile(const wchar_t* path, DWORD access, DWORD shareMode,
                                DWORD disposition) noexcept {
  const bool canMake = disposition != OPEN_EXISTING;
  SECURITY_ATTRIBUTES attributes = ProtectedAccess(ProtectedObject::kFile);
  OwnedHandle file(CreateFileW(path, access, shareMode, canMake ? &attributes : nullptr,
                               disposition, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT,
                               nullptr));
  if (file.get() == INVALID_HANDLE_VALUE) {
    static_cast<void>(file.release());
  }
  if (file != nullptr && !IsPlain(file.get())) {
    file.reset();
    SetLastError(ERROR_CANT_ACCESS_FILE);
  }
  return file;
}

std::uint32_t NextFileNumber(const wchar_t* folder) noexcept {
  std::uint32_t highest = 0;
  ForEachFullFile(folder, [&](std::uint32_t number) {
    // Nothing could be counted on from the last one.
    if (number < kHighestNumber) {
      highest = std::max(highest, number);
    }
  });
  return highest + 1;
}

void DeleteOldFiles(const wchar_t* folder, std::uint32_t count) noexcept {
  std::uint32_t tried = 0;
  for (;;) {
    std::uint32_t oldest = kHighestNumber + 1;
    std::uint32_t candidates = 0;
    ForEachFullFile(folder, [&](std::uint32_t number) {
      if (number > tried) {
        oldest = std::min(oldest, number);
        ++candidates;
      }
    });
    if (candidates <= count) {
      return;
    }
    static_cast<void>(DeleteFileW(TracePath(folder, oldest).Get()));
    tried = oldest;
  }
}
