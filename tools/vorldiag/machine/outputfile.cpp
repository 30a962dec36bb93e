#include "tools/vorldiag/machine/outputfile.h"

#include <algorithm>
#include <stdexcept>

#include "tools/vorldiag/text/utf8.h"

namespace {

// From this length on Windows takes a path in its extended form only, with the file beside it.
constexpr std::size_t kLongPath = 250;

// The longest name that a file can have.
constexpr std::size_t kLongestName = 255;
constexpr std::wstring_view kPart = L".part";

// As Windows takes it, however long it is.
std::wstring AnyLength(const std::wstring& path) {
  std::wstring whole(path.size() + MAX_PATH, L'\0');
  DWORD length = 0;
  // The folder that a path without one is in may be long, too.
  while ((length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(whole.size()), whole.data(),
                                    nullptr)) >= whole.size()) {
    whole.resize(length);
  }
  whole.resize(length);
  if (whole.size() < kLongPath || whole.compare(0, 4, L"\\\\?\\") == 0 ||
      whole.compare(0, 4, L"\\\\.\\") == 0) {
    return path;
  }
  return whole.compare(0, 2, L"\\\\") == 0 ? L"\\\\?\\UNC" + whole.substr(1) : L"\\\\?\\" + whole;
}

// What is written until the file is whole.
std::wstring PartOf(const std::wstring& path) {
  const std::size_t name = path.find_last_of(L"\\/") + 1;
  return path.substr(0, name + kLongestName - kPart.size()) + kPart.data();
}

bool HasTooLongName(const std::wstring& path) {
  return path.size() - (path.find_last_of(L"\\/") + 1) > kLongestName;
}

}  // namespace

OutputFile::OutputFile(const std::string& path)
    : m_name(path), m_path(AnyLength(Wide(path))), m_part(PartOf(m_path)) {
  // Otherwise found out only when all is written.
  if (HasTooLongName(m_path)) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    Fail();
  }
  // Not written through: whatever has that name, a link perhaps, goes.
  DeleteFileW(m_part.c_str());
  m_file.Reset(CreateFileW(m_part.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                           FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!m_file) {
    Fail();
  }
}

OutputFile::~OutputFile() {
  if (m_file) {
    m_file.Reset();
    DeleteFileW(m_part.c_str());
  }
}

void OutputFile::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    constexpr std::size_t most = std::size_t{1024} * 1024;
    DWORD written = 0;
    if (!WriteFile(m_file.Get(), bytes.data(), static_cast<DWORD>(std::min(most, bytes.size())),
                   &written, nullptr)) {
      Fail();
    }
    if (written == 0) {
      SetLastError(ERROR_WRITE_FAULT);
      Fail();
    }
    bytes.remove_prefix(written);
    m_size += written;
  }
}

void OutputFile::WriteAt(std::uint64_t offset, std::string_view bytes) {
  LARGE_INTEGER place{};
  place.QuadPart = static_cast<LONGLONG>(offset);
  const std::uint64_t size = m_size;
  if (!SetFilePointerEx(m_file.Get(), place, nullptr, FILE_BEGIN)) {
    Fail();
  }
  Write(bytes);
  m_size = size;
  if (!SetFilePointerEx(m_file.Get(), {}, nullptr, FILE_END)) {
    Fail();
  }
}

void OutputFile::Finish() {
  // What does not reach the disk is found out here, not by who opens the file.
  if (!FlushFileBuffers(m_file.Get())) {
    Fail();
  }
  m_file.Reset();
  if (!MoveFileExW(m_part.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    const DWORD error = GetLastError();
    DeleteFileW(m_part.c_str());
    SetLastError(error);
    Fail();
  }
}

void OutputFile::Fail() const {
  const DWORD error = GetLastError();
  throw std::runtime_error(m_name + " cannot be written: " + ErrorText(error));
}
