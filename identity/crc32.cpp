#include "identity/crc32.h"

#include <fcntl.h>
#include <io.h>

#include <array>
#include <cstddef>
#include <cstdio>

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

constexpr std::array<std::uint32_t, 256> kTable = MakeTable();

std::uint32_t AddByte(std::uint32_t crc, unsigned char byte) noexcept {
  return kTable[(crc ^ byte) & 0xFF] ^ (crc >> 8);
}

std::uint32_t AddBytes(std::uint32_t crc, const unsigned char* data, int length) noexcept {
  for (int i = 0; i < length; ++i) {
    crc = AddByte(crc, data[i]);
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
