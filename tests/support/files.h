// Folders and files of tests.
#pragma once

#include <fcntl.h>
#include <io.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/handle.h"

using ByteVector = std::vector<unsigned char>;

// A new folder that is removed with everything in it. No other process has one of this name.
class TempFolder {
 public:
  TempFolder() {
    static int counter = 0;
    m_path = std::filesystem::temp_directory_path() /
             ("vorltest_" + std::to_string(GetCurrentProcessId()) + "_" +
              std::to_string(GetTickCount64()) + "_" + std::to_string(counter++));
    std::filesystem::create_directory(m_path);
  }
  ~TempFolder() {
    std::error_code ignored;
    // What is read-only could not be removed.
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_path, ignored)) {
      SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
    }
    std::filesystem::remove_all(m_path, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::filesystem::path& Path() const { return m_path; }

  // The path of a file in the folder, which need not exist.
  std::string File(const std::string& name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

// Sets when a file was written last, in units of 100 ns since 1601.
inline void SetWriteTime(const std::filesystem::path& path, ULONGLONG time) {
  // Attributes may be written whatever others share.
  const FileHandle file(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  const FILETIME written{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
  if (!file || !SetFileTime(file.Get(), nullptr, nullptr, &written)) {
    throw std::filesystem::filesystem_error("SetFileTime", path, std::error_code());
  }
}

inline ULONGLONG SystemTime() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return (ULONGLONG{now.dwHighDateTime} << 32) | now.dwLowDateTime;
}

// Makes a file one that was written an hour ago: nobody is in the middle of writing it anew.
inline void LetRest(const std::filesystem::path& path) {
  constexpr ULONGLONG hour = ULONGLONG{3600} * 10'000'000;
  SetWriteTime(path, SystemTime() - hour);
}

inline void WriteBytes(const std::string& path, const ByteVector& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

inline ByteVector ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return ByteVector(std::istreambuf_iterator<char>(in), {});
}

// The runtime gives out the lowest free descriptor, so this grows with every file left open.
inline int LowestFreeDescriptor() {
  const int descriptor = _open("NUL", _O_RDONLY | _O_BINARY);
  _close(descriptor);
  return descriptor;
}
