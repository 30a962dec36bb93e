// Files that the commands write.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "support/handle.h"

// A file that a command is told to write. It is written beside its place and takes that when it is
// whole. Until then, and when something fails, a file that was there before stays.
class OutputFile {
 public:
  // Throws std::runtime_error, as all functions here, with the path and Windows' reason.
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void Write(std::string_view bytes);
  // Overwrites what was written at `offset`.
  void WriteAt(std::uint64_t offset, std::string_view bytes);
  std::uint64_t Size() const { return m_size; }
  void Finish();

 private:
  [[noreturn]] void Fail() const;

  std::string m_name;  // as the user wrote it
  std::wstring m_path;
  std::wstring m_part;
  FileHandle m_file;
  std::uint64_t m_size = 0;
};
