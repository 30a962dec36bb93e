#include "tools/vorldiag/machine/outputfile.h"

#include <algorithm>
#include <stdexcept>

#include "tools/vorldiag/text/utf8.h"

OutputFile::OutputFile(const std::string& path)
    : m_name(path), m_path(Wide(path)), m_part(m_path + L".part") {
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
  m_file.Reset();
  if (!MoveFileExW(m_part.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    const DWORD error = GetLastError();
    DeleteFileW(m_part.c_str());
    SetLastError(error);
    Fail();
  }
}

void OutputFile::Fail() const {
  throw std::runtime_error(m_name + ": " + ErrorText(GetLastError()));
}
