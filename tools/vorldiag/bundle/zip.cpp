#include "tools/vorldiag/bundle/zip.h"

#include <zlib.h>

#include <limits>
#include <stdexcept>

#include "support/windows_api.h"

namespace {

constexpr std::uint16_t kVersion = 20;          // that can unpack it: deflate
constexpr std::uint16_t kNamesAreUtf8 = 0x800;  // flag
constexpr std::uint16_t kDeflated = 8;
constexpr std::uint32_t kLocalHeader = 0x04034B50;
constexpr std::uint32_t kCentralHeader = 0x02014B50;
constexpr std::uint32_t kEndOfCentral = 0x06054B50;
constexpr std::uint64_t kCheckSumOffset = 14;  // in the local header

void Put16(std::string& bytes, std::size_t value) {
  bytes += static_cast<char>(value & 0xFF);
  bytes += static_cast<char>(value >> 8 & 0xFF);
}

void Put32(std::string& bytes, std::uint32_t value) {
  Put16(bytes, value & 0xFFFF);
  Put16(bytes, value >> 16);
}

// What an entry's two headers have in common.
void PutEntry(std::string& bytes, std::uint32_t time, const ZipWriter::Entry& entry) {
  Put16(bytes, kVersion);
  Put16(bytes, kNamesAreUtf8);
  Put16(bytes, kDeflated);
  Put32(bytes, time);
  Put32(bytes, entry.checkSum);
  Put32(bytes, entry.packedSize);
  Put32(bytes, entry.size);
  Put16(bytes, entry.name.size());
  Put16(bytes, 0);  // no extra field
}

std::uint32_t Now() {
  SYSTEMTIME local{};
  FILETIME time{};
  WORD date = 0;
  WORD clock = 0;
  GetLocalTime(&local);
  SystemTimeToFileTime(&local, &time);
  FileTimeToDosDateTime(&time, &date, &clock);
  return (std::uint32_t{date} << 16) | clock;
}

std::uint32_t Checked(std::uint64_t size) {
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    throw std::runtime_error("a zip archive of more than 4 GB");
  }
  return static_cast<std::uint32_t>(size);
}

}  // namespace

ZipWriter::ZipWriter(OutputFile& file) : m_file(file), m_time(Now()) {}

ZipWriter::~ZipWriter() {
  if (m_stream) {
    deflateEnd(m_stream.get());
  }
}

void ZipWriter::Begin(const std::string& name) {
  Entry entry;
  entry.name = name;
  entry.offset = Checked(m_file.Size());
  std::string header;
  Put32(header, kLocalHeader);
  PutEntry(header, m_time, entry);
  m_file.Write(header + name);
  m_entries.push_back(std::move(entry));

  constexpr int rawStream = -MAX_WBITS;
  constexpr int memory = 8;
  m_stream = std::make_unique<z_stream_s>();
  if (deflateInit2(m_stream.get(), Z_DEFAULT_COMPRESSION, Z_DEFLATED, rawStream, memory,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    m_stream.reset();
    throw std::runtime_error("out of memory");
  }
}

void ZipWriter::Write(std::string_view bytes) {
  constexpr std::size_t most = std::size_t{1024} * 1024;
  Entry& entry = m_entries.back();
  for (; !bytes.empty(); bytes.remove_prefix(std::min(most, bytes.size()))) {
    const std::string_view part = bytes.substr(0, most);
    entry.checkSum = static_cast<std::uint32_t>(crc32(entry.checkSum,
                                                      reinterpret_cast<const Bytef*>(part.data()),
                                                      static_cast<uInt>(part.size())));
    entry.size = Checked(std::uint64_t{entry.size} + part.size());
    Deflate(part, Z_NO_FLUSH);
  }
}

void ZipWriter::End() {
  Deflate({}, Z_FINISH);
  deflateEnd(m_stream.get());
  m_stream.reset();
  const Entry& entry = m_entries.back();
  std::string sizes;
  Put32(sizes, entry.checkSum);
  Put32(sizes, entry.packedSize);
  Put32(sizes, entry.size);
  m_file.WriteAt(entry.offset + kCheckSumOffset, sizes);
}

void ZipWriter::Finish() {
  std::string central;
  for (const Entry& entry : m_entries) {
    Put32(central, kCentralHeader);
    Put16(central, kVersion);
    PutEntry(central, m_time, entry);
    Put16(central, 0);  // no comment
    Put16(central, 0);  // disk
    Put16(central, 0);  // attributes
    Put32(central, 0);
    Put32(central, entry.offset);
    central += entry.name;
  }
  const std::uint32_t offset = Checked(m_file.Size());
  const std::uint32_t size = Checked(central.size());
  Put32(central, kEndOfCentral);
  Put32(central, 0);  // disks
  Put16(central, m_entries.size());
  Put16(central, m_entries.size());
  Put32(central, size);
  Put32(central, offset);
  Put16(central, 0);  // no comment
  m_file.Write(central);
}

void ZipWriter::Deflate(std::string_view bytes, int flush) {
  unsigned char packed[64 * 1024];
  m_stream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  m_stream->avail_in = static_cast<uInt>(bytes.size());
  Entry& entry = m_entries.back();
  do {
    m_stream->next_out = packed;
    m_stream->avail_out = sizeof(packed);
    deflate(m_stream.get(), flush);
    const std::size_t size = sizeof(packed) - m_stream->avail_out;
    m_file.Write({reinterpret_cast<const char*>(packed), size});
    entry.packedSize = Checked(std::uint64_t{entry.packedSize} + size);
  } while (m_stream->avail_out == 0);
}
