#include "companions/vlevtlog/spill_file.h"

#include <cwchar>
#include <iterator>

#include "companions/vlevtlog/bounded_lock.h"
#include "companions/vlevtlog/trace_folder.h"

namespace {

bool SetEnd(HANDLE file, std::uint64_t size) noexcept {
  LARGE_INTEGER position;
  position.QuadPart = static_cast<LONGLONG>(size);
  return SetFilePointerEx(file, position, nullptr, FILE_BEGIN) && SetEndOfFile(file);
}

}  // namespace

bool SpillFile::Write(const wchar_t* folder, std::string_view line, std::uint64_t fullSize,
                      const TraceFileResult& why) noexcept {
  const ExclusiveLock lock = TakeSoon(m_lock);
  if (lock == nullptr || (m_file == nullptr && !Open(folder))) {
    return false;
  }
  if (m_size != 0 && m_size + line.size() > fullSize) {
    return false;
  }
  const auto length = static_cast<DWORD>(line.size());
  DWORD written = 0;
  if (!WriteFile(m_file, line.data(), length, &written, nullptr) || written != length) {
    // No half line may stay.
    static_cast<void>(SetEnd(m_file, m_size));
    return false;
  }
  m_size += length;
  if (m_lines.fetch_add(1, std::memory_order_relaxed) == 0) {
    m_why = why;
  }
  return true;
}

bool SpillFile::Open(const wchar_t* folder) noexcept {
  // A process of this number may have left one, so the name says when, too.
  if (FAILED(StringCchPrintfW(m_name, std::size(m_name), L"%s%lu-%I64u.log", kSpillFilePrefix,
                              GetCurrentProcessId(), GetTickCount64()))) {
    return false;
  }
  FileHandle file = OpenTraceFolderFile(TracePath(folder, m_name).Get(), GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, CREATE_NEW);
  if (!file) {
    return false;
  }
  m_file = file.Release();
  m_size = 0;
  return true;
}

bool SpillFile::HandOver(Content& content) noexcept {
  const ExclusiveLock lock = TryToTake(m_lock);
  if (lock == nullptr) {
    return false;
  }
  static_cast<void>(StringCchCopyW(content.name, std::size(content.name), m_name));
  content.lines = m_lines.exchange(0, std::memory_order_relaxed);
  content.why = m_why;
  Close();
  return content.lines != 0;
}

void SpillFile::Close() noexcept {
  const HANDLE file = m_file;
  m_file = nullptr;
  if (file != nullptr) {
    CloseHandle(file);
  }
}
