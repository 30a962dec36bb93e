#include "companions/common/ini_file.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <optional>

#include "support/handle.h"

extern "C" __declspec(dllimport) LONG NTAPI RtlGetLastNtStatus();

namespace {

// Of a FILETIME.
constexpr ULONGLONG kTicksPerMillisecond = 10'000;
constexpr ULONGLONG kNewFolderTicks = 60'000 * kTicksPerMillisecond;

// Room for the longest folder that any library gives out.
constexpr std::size_t kIniPathSize = 1024;

// STATUS_DELETE_PENDING: the file was deleted, and somebody has it open still.
constexpr LONG kDeletePending = static_cast<LONG>(0xC0000056);

constexpr unsigned char kUtf16Mark[] = {0xFF, 0xFE};
constexpr unsigned char kUtf16BigEndianMark[] = {0xFE, 0xFF};
constexpr unsigned char kUtf8Mark[] = {0xEF, 0xBB, 0xBF};

// Cuts `mark` off the front of `bytes`; false when it is not there.
template <DWORD Size>
bool TakeMark(const unsigned char*& bytes, DWORD& count, const unsigned char (&mark)[Size]) {
  if (count < Size || std::memcmp(bytes, mark, Size) != 0) {
    return false;
  }
  bytes += Size;
  count -= Size;
  return true;
}

ULONGLONG ToNumber(const FILETIME& time) noexcept {
  return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

bool IsLessAgo(const FILETIME& time, DWORD milliseconds) noexcept {
  FILETIME now{};
  GetSystemTimeAsFileTime(&now);
  // A time to come wraps round to long ago.
  return ToNumber(now) - ToNumber(time) < milliseconds * kTicksPerMillisecond;
}

bool IsMissing(DWORD error) noexcept {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
         error == ERROR_INVALID_NAME || error == ERROR_BAD_PATHNAME ||
         error == ERROR_FILENAME_EXCED_RANGE;
}

bool IsSameState(const BY_HANDLE_FILE_INFORMATION& left,
                 const BY_HANDLE_FILE_INFORMATION& right) noexcept {
  return left.nFileSizeLow == right.nFileSizeLow && left.nFileSizeHigh == right.nFileSizeHigh &&
         ToNumber(left.ftLastWriteTime) == ToNumber(right.ftLastWriteTime);
}

// A piece of the text.
struct Span {
  const wchar_t* begin;
  const wchar_t* end;

  DWORD Length() const noexcept { return static_cast<DWORD>(end - begin); }
};

bool IsLineEnd(wchar_t character) noexcept { return character == L'\r' || character == L'\n'; }

// The end-of-file character of old editors counts as a blank.
bool IsBlank(wchar_t character) noexcept {
  return character == L' ' || character == L'\t' || character == L'\v' || character == L'\f' ||
         character == L'\x1A';
}

Span Trimmed(Span span) noexcept {
  while (span.begin != span.end && IsBlank(*span.begin)) {
    ++span.begin;
  }
  while (span.begin != span.end && IsBlank(span.end[-1])) {
    --span.end;
  }
  return span;
}

Span WithoutQuotes(Span span) noexcept {
  const bool isQuoted = span.Length() >= 2 && (*span.begin == L'"' || *span.begin == L'\'') &&
                        span.end[-1] == *span.begin;
  return isQuoted ? Span{span.begin + 1, span.end - 1} : span;
}

bool Is(Span span, const wchar_t* name) noexcept {
  return CompareStringOrdinal(span.begin, static_cast<int>(span.Length()), name, -1, TRUE) ==
         CSTR_EQUAL;
}

// Cuts the next line off `text`, without its end; `text` must not be empty.
Span TakeLine(Span& text) noexcept {
  const wchar_t* const end = std::find_if(text.begin, text.end, IsLineEnd);
  const Span line{text.begin, end};
  text.begin = end == text.end ? end : end + 1;
  return line;
}

// The name of the section that a line begins, blanks taken off; nothing when it begins none.
std::optional<Span> SectionName(Span line) noexcept {
  if (line.begin == line.end || *line.begin != L'[') {
    return std::nullopt;
  }
  const wchar_t* const close = std::find(line.begin, line.end, L']');
  return close == line.end ? std::nullopt : std::optional(Trimmed({line.begin + 1, close}));
}

// The value of the first key of that name in `text`; an empty one when there is none.
Span FindValue(Span text, const wchar_t* section, const wchar_t* key) noexcept {
  bool isInside = false;
  while (text.begin != text.end) {
    const Span line = Trimmed(TakeLine(text));
    if (line.begin == line.end || *line.begin == L';') {
      continue;
    }
    if (const std::optional<Span> name = SectionName(line)) {
      if (isInside) {
        break;
      }
      isInside = Is(*name, section);
      continue;
    }
    const wchar_t* const equals = std::find(line.begin, line.end, L'=');
    if (isInside && equals != line.end && Is(Trimmed({line.begin, equals}), key)) {
      return WithoutQuotes(Trimmed({equals + 1, line.end}));
    }
  }
  return {text.end, text.end};
}

}  // namespace

bool MeansBusy(DWORD error) noexcept {
  // A file that is being replaced by a new one is in this state for a moment. Windows' error for it
  // is the same as for a file that may not be read.
  return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION ||
         (error == ERROR_ACCESS_DENIED && RtlGetLastNtStatus() == kDeletePending);
}

bool HasFolderJustChanged(const wchar_t* path) noexcept {
  wchar_t folder[kIniPathSize];
  const wchar_t* const name = std::wcsrchr(path, L'\\');
  WIN32_FILE_ATTRIBUTE_DATA data{};
  return name != nullptr &&
         SUCCEEDED(
             StringCchCopyNW(folder, kIniPathSize, path, static_cast<std::size_t>(name - path))) &&
         GetFileAttributesExW(folder, GetFileExInfoStandard, &data) &&
         ToNumber(data.ftLastWriteTime) > ToNumber(data.ftCreationTime) + kNewFolderTicks &&
         IsLessAgo(data.ftLastWriteTime, kIniRestMilliseconds);
}

IniRead IniFile::Read(const wchar_t* path) noexcept {
  m_text.reset();
  m_length = 0;
  const FileHandle file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) {
    const DWORD error = GetLastError();
    return IsMissing(error) ? Fail(IniRead::kMissing, error)
                            : Fail(MeansBusy(error) ? IniRead::kBusy : IniRead::kFailed, error);
  }
  BY_HANDLE_FILE_INFORMATION before{};
  if (!GetFileInformationByHandle(file.Get(), &before)) {
    return Fail(IniRead::kFailed, GetLastError());
  }
  const DWORD size = before.nFileSizeLow;
  if (before.nFileSizeHigh != 0 || size > kLargestIniFile) {
    return Fail(IniRead::kTooLarge, ERROR_FILE_TOO_LARGE);
  }
  const HeapArray<unsigned char> bytes = Allocate<unsigned char>(size);
  if (!bytes) {
    return Fail(IniRead::kFailed, ERROR_NOT_ENOUGH_MEMORY);
  }
  DWORD count = 0;
  BY_HANDLE_FILE_INFORMATION after{};
  if (!ReadFile(file.Get(), bytes.get(), size, &count, nullptr) ||
      !GetFileInformationByHandle(file.Get(), &after)) {
    const DWORD error = GetLastError();
    return Fail(MeansBusy(error) ? IniRead::kBusy : IniRead::kFailed, error);
  }
  // Not every file system keeps writers away.
  if (count != size || !IsSameState(before, after)) {
    return Fail(IniRead::kBusy, ERROR_SHARING_VIOLATION);
  }
  m_written = after.ftLastWriteTime;
  const IniRead outcome = Decode(bytes.get(), count);
  if (outcome == IniRead::kDone && m_length == 0 && WasJustWritten(kIniRestMilliseconds)) {
    return Fail(IniRead::kBusy, ERROR_SHARING_VIOLATION);
  }
  return outcome;
}

bool IniFile::WasJustWritten(DWORD milliseconds) const noexcept {
  return IsLessAgo(m_written, milliseconds);
}

DWORD IniFile::Value(const wchar_t* section, const wchar_t* key, wchar_t* value,
                     DWORD capacity) const noexcept {
  const Span text{m_text.get(), m_text.get() + m_length};
  const Span found = FindValue(text, section, key);
  const DWORD length = std::min(found.Length(), capacity - 1);
  std::copy_n(found.begin, length, value);
  value[length] = L'\0';
  return length;
}

SectionPlace IniFile::PlaceOf(const wchar_t* section) const noexcept {
  Span text{m_text.get(), m_text.get() + m_length};
  SectionPlace place = SectionPlace::kNowhere;
  while (text.begin != text.end && place != SectionPlace::kFollowed) {
    if (const std::optional<Span> name = SectionName(Trimmed(TakeLine(text)))) {
      if (place == SectionPlace::kLast) {
        place = SectionPlace::kFollowed;
      } else if (Is(*name, section)) {
        place = SectionPlace::kLast;
      }
    }
  }
  return place;
}

// Without values.
IniRead IniFile::Fail(IniRead outcome, DWORD error) noexcept {
  m_text.reset();
  m_length = 0;
  m_error = error;
  return outcome;
}

IniRead IniFile::Decode(const unsigned char* bytes, DWORD count) noexcept {
  IniRead outcome = IniRead::kFailed;
  if (TakeMark(bytes, count, kUtf16Mark)) {
    outcome = DecodeWide(bytes, count, /*isBigEndian=*/false);
  } else if (TakeMark(bytes, count, kUtf16BigEndianMark)) {
    outcome = DecodeWide(bytes, count, /*isBigEndian=*/true);
  } else if (TakeMark(bytes, count, kUtf8Mark)) {
    outcome = DecodeNarrow(bytes, count, CP_UTF8);
  } else {
    outcome = DecodeNarrow(bytes, count, CP_ACP);
  }
  if (outcome == IniRead::kDone && std::wmemchr(m_text.get(), L'\0', m_length) != nullptr) {
    return Fail(IniRead::kNoText, ERROR_INVALID_DATA);
  }
  return outcome;
}

IniRead IniFile::DecodeNarrow(const unsigned char* bytes, DWORD count, UINT codePage) noexcept {
  // No code page has more characters than bytes.
  m_text = Allocate<wchar_t>(count);
  if (!m_text) {
    return Fail(IniRead::kFailed, ERROR_NOT_ENOUGH_MEMORY);
  }
  // ASCII is the same in every code page.
  if (std::all_of(bytes, bytes + count, [](unsigned char byte) { return byte < 0x80; })) {
    std::copy_n(bytes, count, m_text.get());
    m_length = count;
    return IniRead::kDone;
  }
  const int size = static_cast<int>(count);
  const int length = MultiByteToWideChar(codePage, 0, reinterpret_cast<const char*>(bytes), size,
                                         m_text.get(), size);
  if (length <= 0) {
    return Fail(IniRead::kFailed, GetLastError());
  }
  m_length = static_cast<DWORD>(length);
  return IniRead::kDone;
}

IniRead IniFile::DecodeWide(const unsigned char* bytes, DWORD count, bool isBigEndian) noexcept {
  m_length = static_cast<DWORD>(count / sizeof(wchar_t));
  m_text = Allocate<wchar_t>(m_length);
  if (!m_text) {
    return Fail(IniRead::kFailed, ERROR_NOT_ENOUGH_MEMORY);
  }
  std::memcpy(m_text.get(), bytes, m_length * sizeof(wchar_t));
  if (isBigEndian) {
    std::transform(m_text.get(), m_text.get() + m_length, m_text.get(), [](wchar_t character) {
      return static_cast<wchar_t>((character << 8 | character >> 8) & 0xFFFF);
    });
  }
  return IniRead::kDone;
}

void CutComment(wchar_t* value) noexcept {
  wchar_t* end = value + std::wcscspn(value, L";");
  while (end != value && (end[-1] == L' ' || end[-1] == L'\t')) {
    --end;
  }
  *end = L'\0';
}
