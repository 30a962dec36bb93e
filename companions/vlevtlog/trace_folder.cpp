#include "companions/vlevtlog/trace_folder.h"

#include <algorithm>
#include <cwchar>
#include <iterator>

#include "companions/common/protected_access.h"
#include "companions/common/protected_folder.h"
#include "companions/vlevtlog/torn_end.h"
#include "companions/vlevtlog/trace_options.h"

namespace {

constexpr wchar_t kPattern[] = L"vorltrace.*.log";
constexpr wchar_t kFullFilePrefix[] = L"vorltrace.";
constexpr int kFewestDigits = 6;
constexpr std::uint32_t kHighestNumber = 999'999'999;
constexpr int kMostCollisions = 10000;

// Not a link, and of one name only: whoever can put a link into the folder must not choose the file
// that is written and cut.
bool IsPlain(HANDLE file) noexcept {
  BY_HANDLE_FILE_INFORMATION information;
  return GetFileInformationByHandle(file, &information) &&
         (information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 &&
         information.nNumberOfLinks <= 1;
}

// Numbers in a circle, from 1 to the highest.
std::uint32_t InCircle(std::uint32_t number) noexcept {
  return number == 0 ? kHighestNumber : (number - 1) % kHighestNumber + 1;
}

// How many numbers were given after this one, `youngest` being the last.
std::uint32_t AgeOf(std::uint32_t number, std::uint32_t youngest) noexcept {
  return (youngest + kHighestNumber - number) % kHighestNumber;
}

// The number in the name of a full file; 0 for every other name.
std::uint32_t NumberIn(const wchar_t* name) noexcept {
  constexpr std::size_t prefixLength = std::size(kFullFilePrefix) - 1;
  if (_wcsnicmp(name, kFullFilePrefix, prefixLength) != 0) {
    return 0;
  }
  const wchar_t* const digits = name + prefixLength;
  const wchar_t* at = digits;
  std::uint32_t number = 0;
  for (; *at >= L'0' && *at <= L'9' && number <= kHighestNumber / 10; ++at) {
    number = number * 10 + static_cast<std::uint32_t>(*at - L'0');
  }
  const auto count = at - digits;
  // As this library writes it.
  const bool isOwn = count == kFewestDigits || (count > kFewestDigits && *digits != L'0');
  return isOwn && _wcsicmp(at, L".log") == 0 ? number : 0;
}

bool IsSpillFile(const wchar_t* name) noexcept {
  return _wcsnicmp(name, kSpillFilePrefix, std::size(kSpillFilePrefix) - 1) == 0;
}

bool IsEmpty(const wchar_t* path) noexcept {
  const FileHandle file = OpenTraceFolderFile(path, FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING);
  LARGE_INTEGER size;
  return file && GetFileSizeEx(file.Get(), &size) && size.QuadPart == 0;
}

// Calls `visit` with the name of each file beside the one being written, in no order.
template <typename Visit>
void ForEachFile(const wchar_t* folder, Visit visit) noexcept {
  WIN32_FIND_DATAW found;
  const FindHandle search(FindFirstFileW(TracePath(folder, kPattern).Get(), &found));
  if (!search) {
    return;
  }
  do {
    visit(found.cFileName);
  } while (FindNextFileW(search.Get(), &found));
}

// The youngest of a folder's full files, by age.
class Youngest {
 public:
  explicit Youngest(std::uint32_t count) noexcept : m_limit(std::min(count, kMostFiles)) {}

  // Takes in one file's age. Returns the age for which there is no room then, or kNone.
  std::uint32_t Add(std::uint32_t age) noexcept {
    if (m_count < m_limit) {
      m_ages[m_count++] = age;
      std::push_heap(m_ages, m_ages + m_count);
      return kNone;
    }
    if (m_count == 0 || age > m_ages[0]) {
      return age;
    }
    std::pop_heap(m_ages, m_ages + m_count);
    std::swap(age, m_ages[m_count - 1]);
    std::push_heap(m_ages, m_ages + m_count);
    return age;
  }

  static constexpr std::uint32_t kNone = static_cast<std::uint32_t>(-1);

 private:
  std::uint32_t m_limit;
  std::uint32_t m_count = 0;
  std::uint32_t m_ages[kMostFiles] = {};
};

constexpr DWORD kSubAuthorities = 6;
struct ServiceSid {
  BYTE revision;
  BYTE count;
  SID_IDENTIFIER_AUTHORITY authority;
  DWORD parts[kSubAuthorities];
};
// What installs Windows itself, and owns the folder of programs.
constexpr ServiceSid kTrustedInstaller = {
    SID_REVISION,
    kSubAuthorities,
    SECURITY_NT_AUTHORITY,
    {SECURITY_SERVICE_ID_BASE_RID, 956008885, 3418522649, 1831038044, 1853292631, 2271478464}};

bool IsOwnAccount(PSID account) noexcept {
  HANDLE opened = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened)) {
    return false;
  }
  const KernelHandle token(opened);
  alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  return GetTokenInformation(token.Get(), TokenUser, user, sizeof user, &size) &&
         EqualSid(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, account);
}

bool IsTrusted(PSID account) noexcept {
  ServiceSid installer = kTrustedInstaller;
  return IsWellKnownSid(account, WinLocalSystemSid) ||
         IsWellKnownSid(account, WinBuiltinAdministratorsSid) || EqualSid(account, &installer) ||
         IsOwnAccount(account);
}

bool LetsOthersWrite(PACL list) noexcept {
  constexpr DWORD writing = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD | DELETE |
                            WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(list, i, &entry)) {
      return false;
    }
    auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    if (allowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
        (allowed->Header.AceFlags & INHERIT_ONLY_ACE) == 0 && (allowed->Mask & writing) != 0 &&
        !IsTrusted(&allowed->SidStart)) {
      return true;
    }
  }
  return false;
}

}  // namespace

TracePath::TracePath(const wchar_t* folder, const wchar_t* name) noexcept {
  if (folder == nullptr || folder[0] == 0) {
    return;
  }
  const wchar_t* const prefix = folder[1] == L':' ? L"\\\\?\\" : L"";
  const wchar_t* const separator = name[0] != 0 ? L"\\" : L"";
  if (FAILED(StringCchPrintfW(m_path, std::size(m_path), L"%s%s%s%s", prefix, folder, separator,
                              name))) {
    m_path[0] = 0;
  }
}

TracePath::TracePath(const wchar_t* folder, std::uint32_t number) noexcept {
  wchar_t name[32];
  // The longest number fits.
  static_cast<void>(StringCchPrintfW(name, std::size(name), kFullFileFormat, number));
  *this = TracePath(folder, name);
}

DWORD MakeTraceFolder(const wchar_t* folder, bool& wasThere) noexcept {
  const TracePath path(folder);
  const DWORD attributes = GetFileAttributesW(path.Get());
  wasThere = attributes != INVALID_FILE_ATTRIBUTES;
  if (wasThere && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    return ERROR_CANT_ACCESS_FILE;
  }
  return path.Get()[0] == 0 ? DWORD{ERROR_PATH_NOT_FOUND} : MakeProtectedFolder(path.Get());
}

FileHandle OpenTraceFolderFile(const wchar_t* path, DWORD access, DWORD shareMode,
                               DWORD disposition) noexcept {
  const bool canMake = disposition != OPEN_EXISTING;
  SECURITY_ATTRIBUTES attributes = ProtectedAccess(ProtectedObject::kFile);
  FileHandle file(CreateFileW(path, access, shareMode, canMake ? &attributes : nullptr, disposition,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  DWORD error = GetLastError();
  if (file && !IsPlain(file.Get())) {
    file.Reset();
    error = ERROR_CANT_ACCESS_FILE;
  }
  SetLastError(error);
  return file;
}

bool IsOpenToOthers(const wchar_t* path) noexcept {
  constexpr DWORD largest = 4096;
  alignas(SECURITY_DESCRIPTOR) BYTE descriptor[largest];
  DWORD size = 0;
  PSID owner = nullptr;
  PACL list = nullptr;
  BOOL isDefault = FALSE;
  BOOL hasList = FALSE;
  if (!GetFileSecurityW(path, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, descriptor,
                        largest, &size) ||
      !GetSecurityDescriptorOwner(descriptor, &owner, &isDefault) ||
      !GetSecurityDescriptorDacl(descriptor, &hasList, &list, &isDefault)) {
    return false;
  }
  // No list at all lets everybody do everything, and the owner can always change it.
  return !hasList || list == nullptr || LetsOthersWrite(list) ||
         (owner != nullptr && !IsTrusted(owner));
}

std::uint32_t GiveNumber(const wchar_t* folder, const wchar_t* name,
                         std::atomic<std::uint32_t>& next) noexcept {
  const TracePath path(folder, name);
  std::uint32_t number = InCircle(next.load(std::memory_order_relaxed));
  for (int tries = 0; tries < kMostCollisions; ++tries) {
    if (MoveFileExW(path.Get(), TracePath(folder, number).Get(), 0)) {
      next.store(InCircle(number + 1), std::memory_order_relaxed);
      return number;
    }
    const DWORD error = GetLastError();
    if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS) {
      break;
    }
    number = InCircle(number + 1);
  }
  return 0;
}

void CountOn(const wchar_t* folder, std::atomic<std::uint32_t>& next) noexcept {
  std::uint32_t highest = 0;
  ForEachFile(folder, [&](const wchar_t* name) { highest = std::max(highest, NumberIn(name)); });
  const std::uint32_t first = InCircle(highest + 1);
  const std::uint32_t known = next.load(std::memory_order_relaxed);
  // A number is ahead of another one when it is less than half of the circle away.
  if (known == 0 || known > kHighestNumber || AgeOf(known, first) < kHighestNumber / 2) {
    next.store(first, std::memory_order_relaxed);
  }
}

void Tidy(const wchar_t* folder, std::atomic<std::uint32_t>& next, std::uint32_t count) noexcept {
  const std::uint32_t youngest = InCircle(next.load(std::memory_order_relaxed) - 1);
  Youngest kept(count);
  ForEachFile(folder, [&](const wchar_t* name) {
    const std::uint32_t number = NumberIn(name);
    if (number != 0) {
      const std::uint32_t age = kept.Add(AgeOf(number, youngest));
      if (age != Youngest::kNone) {
        const std::uint32_t oldest = InCircle((youngest + kHighestNumber - age) % kHighestNumber);
        static_cast<void>(DeleteFileW(TracePath(folder, oldest).Get()));
      }
    } else if (IsSpillFile(name)) {
      // Cannot be renamed or deleted while its process lives.
      const TracePath path(folder, name);
      if (IsEmpty(path.Get())) {
        static_cast<void>(DeleteFileW(path.Get()));
        return;
      }
      const std::uint32_t given = GiveNumber(folder, name, next);
      if (given != 0) {
        CutTornEnd(TracePath(folder, given).Get());
      }
    }
  });
}
