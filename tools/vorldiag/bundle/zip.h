// Archives in the zip format.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/vorldiag/machine/outputfile.h"

struct z_stream_s;

// Writes a zip archive of less than 4 GB: its entries one after another, then Finish, which leaves
// finishing the file to the caller. Throws std::runtime_error.
class ZipWriter {
 public:
  explicit ZipWriter(OutputFile& file);
  ~ZipWriter();
  ZipWriter(const ZipWriter&) = delete;
  ZipWriter& operator=(const ZipWriter&) = delete;

  // `name` in UTF-8, with slashes.
  void Begin(const std::string& name);
  void Write(std::string_view bytes);
  void End();
  void Finish();

  struct Entry {
    std::string name;
    std::uint32_t checkSum = 0;
    std::uint32_t packedSize = 0;
    std::uint32_t size = 0;
    std::uint32_t offset = 0;
  };
  const std::vector<Entry>& Entries() const { return m_entries; }

 private:
  void Deflate(std::string_view bytes, int flush);

  OutputFile& m_file;
  std::vector<Entry> m_entries;
  std::uint32_t m_time;  // of all entries, as the format has it
  std::unique_ptr<z_stream_s> m_stream;
};
