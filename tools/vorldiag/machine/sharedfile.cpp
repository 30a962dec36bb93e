#include "tools/vorldiag/machine/sharedfile.h"

#include <algorithm>

FileHandle OpenShared(const std::wstring& path) {
  return FileHandle(CreateFileW(path.c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
}

DWORD ReadSharedFile(const std::wstring& path, std::uint64_t largest, std::string& bytes) {
  bytes.clear();
  const FileHandle file = OpenShared(path);
  LARGE_INTEGER size{};
  if (!file || !GetFileSizeEx(file.Get(), &size)) {
    return GetLastError();
  }
  if (static_cast<std::uint64_t>(size.QuadPart) > largest) {
    return ERROR_FILE_TOO_LARGE;
  }
  bytes.resize(static_cast<std::size_t>(size.QuadPart));
  std::size_t done = 0;
  while (done < bytes.size()) {
    constexpr std::size_t most = std::size_t{1024} * 1024;
    DWORD read = 0;
    if (!ReadFile(file.Get(), bytes.data() + done,
                  static_cast<DWORD>(std::min(most, bytes.size() - done)), &read, nullptr)) {
      return GetLastError();
    }
    if (read == 0) {
      break;
    }
    done += read;
  }
  bytes.resize(done);
  return ERROR_SUCCESS;
}
