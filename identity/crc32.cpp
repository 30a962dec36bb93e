#include "identity/crc32.h"

#include <fcntl.h>
#include <io.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

#include "identity/crtfile.h"

namespace {

constexpr std::uint32_t kPolynomial = 0xEDB88320;
constexpr std::uint32_t kStart = 0xFFFFFFFF;

// Files are read in chunks of this size.
constexpr int kChunkSize = 4096;

constexpr std::array<std::uint32_t, 256> MakeTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value & 1) != 0 ? kPolynomial ^ (value >> 1) : value >> 1;
    }
    table[i] = value;
  }
  return table;
}

// The number of bytes that are taken in at once. Their table entries can be read side by side; byte
// by byte, each would have to wait for the one before.
constexpr std::size_t kSliceSize = 16;

// Table 0 is the table of the CRC; table n has in each place what the CRC of that byte is after n
// more bytes of zero.
using Tables = std::array<std::array<std::uint32_t, 256>, kSliceSize>;

constexpr Tables MakeTables() {
  Tables tables{};
  tables[0] = MakeTable();
  for (std::size_t table = 1; table < kSliceSize; ++table) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t before = tables[table - 1][byte];
      tables[table][byte] = tables[0][before & 0xFF] ^ (before >> 8);
    }
  }
  return tables;
}

constexpr Tables kTables = MakeTables();

std::uint32_t AddByte(std::uint32_t crc, unsigned char byte) noexcept {
  return kTables[0][(crc ^ byte) & 0xFF] ^ (crc >> 8);
}

// The words of a slice. They lie in memory as this processor holds them: low byte first.
static_assert(std::endian::native == std::endian::little);

// One table for each byte. Which one is settled when compiling.
template <std::size_t... kBytes>
std::uint32_t LookUp(const std::uint32_t (&words)[kSliceSize / 4],
                     std::index_sequence<kBytes...> /*bytes*/) noexcept {
  return (kTables[kSliceSize - 1 - kBytes][words[kBytes / 4] >> (8 * (kBytes % 4)) & 0xFF] ^ ...);
}

std::uint32_t AddSlice(std::uint32_t crc, const unsigned char* data) noexcept {
  std::uint32_t words[kSliceSize / 4];
  std::memcpy(words, data, sizeof(words));
  words[0] ^= crc;
  return LookUp(words, std::make_index_sequence<kSliceSize>());
}

std::uint32_t AddBytes(std::uint32_t crc, const unsigned char* data, int length) noexcept {
  std::size_t left = length > 0 ? static_cast<std::size_t>(length) : 0;
  for (; left >= kSliceSize; left -= kSliceSize, data += kSliceSize) {
    crc = AddSlice(crc, data);
  }
  for (; left > 0; --left, ++data) {
    crc = AddByte(crc, *data);
  }
  return crc;
}

// The CRC of what `read` delivers: it fills a chunk and returns the number of bytes; 0 or less
// ends.
template <typename Read>
std::uint32_t ChunksCrc(Read read) {
  std::uint32_t value = kStart;
  unsigned char chunk[kChunkSize];
  int length;
  while ((length = read(chunk)) > 0) {
    value = AddBytes(value, chunk, length);
  }
  return ~value;
}

}  // namespace

int CCrc32::Update(const unsigned char* data, int length, std::uint32_t* crc) const {
  if (data == nullptr || crc == nullptr) {
    return 0;
  }
  *crc = AddBytes(*crc, data, length);
  return 1;
}

int CCrc32::Calculate(const unsigned char* data, int length, std::uint32_t* crc) const {
  if (data == nullptr || crc == nullptr) {
    return 0;
  }
  *crc = AddBytes(kStart, data, length);
  return 1;
}

int CCrc32::CalculateString(const char* text, std::uint32_t* crc) const {
  if (text == nullptr || crc == nullptr) {
    return 0;
  }
  std::uint32_t value = kStart;
  for (; *text != '\0'; ++text) {
    value = AddByte(value, static_cast<unsigned char>(*text));
  }
  *crc = ~value;
  return 1;
}

int CCrc32::CalculateFile(const char* path, std::uint32_t* crc) const {
  if (path == nullptr || crc == nullptr) {
    return 0;
  }
  const FileDescriptor file(_open(path, _O_BINARY, 0));
  if (!file) {
    return 0;
  }
  *crc = ChunksCrc([&file](unsigned char* chunk) { return _read(file.Get(), chunk, kChunkSize); });
  return 1;
}

int CCrc32::CalculateFileStream(const char* path, std::uint32_t* crc) const {
  if (path == nullptr || crc == nullptr) {
    return 0;
  }
  const FileStream file(std::fopen(path, "rb"));
  if (!file) {
    return 0;
  }
  *crc = ChunksCrc([&file](unsigned char* chunk) {
    return static_cast<int>(std::fread(chunk, 1, kChunkSize, file.Get()));
  });
  return 1;
}
