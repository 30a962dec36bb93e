#include "companions/vlevtlog/torn_end.h"

#include <cstdint>

#include "companions/vlevtlog/trace_folder.h"

namespace {

// The longest that a torn line can be: the longest message and what surrounds it.
constexpr std::int64_t kTornLimit = std::int64_t{512} * 1024;

bool MoveTo(HANDLE file, std::int64_t offset) noexcept {
  LARGE_INTEGER position;
  position.QuadPart = offset;
  return SetFilePointerEx(file, position, nullptr, FILE_BEGIN) != FALSE;
}

bool ReadAt(HANDLE file, std::int64_t offset, char* bytes, DWORD count) noexcept {
  DWORD read = 0;
  return MoveTo(file, offset) && ReadFile(file, bytes, count, &read, nullptr) && read == count;
}

// The size of the file up to and with its last line end; 0 when there is none as far back as a
// line can reach, -1 when it cannot be read.
std::int64_t EndOfLastLine(HANDLE file, std::int64_t size) noexcept {
  constexpr std::int64_t kBlockSize = 4096;
  char block[kBlockSize];
  std::int64_t end = size;
  while (end > 0 && size - end < kTornLimit) {
    const std::int64_t start = end > kBlockSize ? end - kBlockSize : 0;
    const auto count = static_cast<DWORD>(end - start);
    if (!ReadAt(file, start, block, count)) {
      return -1;
    }
    for (DWORD i = count; i > 0; --i) {
      if (block[i - 1] == '\n') {
        return start + i;
      }
    }
    end = start;
  }
  return 0;
}

}  // namespace

void CutTornEnd(const wchar_t* path) noexcept {
  const FileHandle file =
      OpenTraceFolderFile(path, GENERIC_READ | GENERIC_WRITE, kShareAll, OPEN_EXISTING);
  LARGE_INTEGER size{};
  if (!file || !GetFileSizeEx(file.Get(), &size) || size.QuadPart == 0) {
    return;
  }
  const std::int64_t end = EndOfLastLine(file.Get(), size.QuadPart);
  if (end < 0 || end == size.QuadPart) {
    return;
  }
  if (end == 0 && size.QuadPart > kTornLimit) {
    DWORD written = 0;
    if (MoveTo(file.Get(), size.QuadPart)) {
      WriteFile(file.Get(), "\r\n", 2, &written, nullptr);
    }
  } else if (MoveTo(file.Get(), end)) {
    SetEndOfFile(file.Get());
  }
}
