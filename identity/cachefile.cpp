#include "identity/cachefile.h"

#include <fcntl.h>
#include <io.h>
#include <mbstring.h>
#include <share.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "identity/crc32.h"
#include "identity/crtfile.h"
#include "support/windows_api.h"

namespace {

constexpr char kFileName[] = "hwcdata.dat";
constexpr std::size_t kPathSize = 260;

constexpr char kMagic[5] = {'Z', 'T', 'C', 'R', 'P'};

#pragma pack(push, 1)
struct CacheHeader {
  char magic[5];      // without terminator
  std::uint32_t crc;  // CRC-32 of everything after the header, as it stands in the file
};
#pragma pack(pop)

// The payload before scrambling: texts, each null-terminated in its field. The network addresses
// stand at the beginning; further ones run on into the fields after them.
constexpr std::size_t kBiosUuidOffset = 36;
constexpr std::size_t kSerialOffset = 73;

// How many addresses the payload can hold at all.
constexpr std::size_t kMaxAddresses = kCachePayloadSize / kMacAddressSize;

static_assert(offsetof(CacheHeader, crc) == 5);
static_assert(sizeof(CacheHeader) == 9);
static_assert(kBiosUuidOffset == 2 * kMacAddressSize);
static_assert(kSerialOffset == kBiosUuidOffset + kBiosUuidSize);
static_assert(kCachePayloadSize == kSerialOffset + kPrimaryHddSerialSize);
static_assert(sizeof(CacheHeader) + kCachePayloadSize == 182);

// Sizes of the chunks in which the file's CRC is computed.
constexpr unsigned kWriterChunkSize = 1024;
constexpr unsigned kReaderChunkSize = 260;

// Every operation below offers its failure to `lastError`.

bool Open(const std::string& folder, int flags, int permissions, FileDescriptor& file,
          FingerprintStatus& lastError) {
  char path[kPathSize];
  if (!lastError.Check(StringCchPrintfA(path, kPathSize, "%s%s", folder.c_str(), kFileName),
                       kStageOther)) {
    return false;
  }
  if (_sopen_s(file.Receive(), path, flags, _SH_DENYWR, permissions) != 0) {
    lastError.RecordFailure(errno, kStageOther);
    return false;
  }
  return true;
}

bool Write(const FileDescriptor& file, const void* data, unsigned size,
           FingerprintStatus& lastError) {
  if (_write(file.Get(), data, size) != static_cast<int>(size)) {
    lastError.RecordFailure(errno, kStageOther);
    return false;
  }
  return true;
}

bool Read(const FileDescriptor& file, void* data, unsigned size, FingerprintStatus& lastError) {
  if (_read(file.Get(), data, size) != static_cast<int>(size)) {
    lastError.RecordFailure(errno, kStageOther);
    return false;
  }
  return true;
}

bool Seek(const FileDescriptor& file, long offset) {
  return _lseek(file.Get(), offset, SEEK_SET) == offset;
}

// The CRC from the current position to the end of the file.
template <unsigned ChunkSize>
bool ComputeCrc(const FileDescriptor& file, std::uint32_t& crc) {
  std::uint32_t value = 0xFFFFFFFF;
  unsigned char chunk[ChunkSize];
  int length;
  while ((length = _read(file.Get(), chunk, ChunkSize)) > 0) {
    CCrc32().Update(chunk, length, &value);
  }
  crc = ~value;
  return length == 0;
}

// Exchanges the halves of every byte; done twice, everything is as before.
template <typename Byte>
void Scramble(Byte* payload) {
  std::transform(payload, payload + kCachePayloadSize, payload, [](Byte byte) {
    const auto value = static_cast<unsigned char>(byte);
    return static_cast<Byte>(value << 4 | value >> 4);
  });
}

// Texts first, addresses last: a third address is meant to end up over the BIOS UUID.
bool FillPayload(const RawParameters& record, char (&payload)[kCachePayloadSize],
                 FingerprintStatus& lastError) {
  const auto copy = [&](std::size_t offset, std::size_t size, const char* text) {
    return lastError.Check(StringCchCopyA(payload + offset, size, text), kStageOther);
  };
  if (!copy(kBiosUuidOffset, kBiosUuidSize, record.BiosUuid) ||
      !copy(kSerialOffset, kPrimaryHddSerialSize, record.PrimaryHddSerial)) {
    return false;
  }
  std::size_t i = 0;
  for (const std::string& address : record.MacAddressList) {
    if (i == kMaxAddresses) {
      break;
    }
    if (!copy(kMacAddressSize * i++, kMacAddressSize, address.c_str())) {
      return false;
    }
  }
  return true;
}

bool EqualIgnoringCase(const char* left, const unsigned char* right) {
  return _mbsicmp(reinterpret_cast<const unsigned char*>(left), right) == 0;
}

}  // namespace

bool WriteCache(const std::string& folder, const RawParameters& parameters,
                FingerprintStatus& lastError) {
  FileDescriptor file;
  if (!Open(folder, _O_RDWR | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE, file,
            lastError)) {
    return false;
  }
  CacheHeader header{};
  std::copy(std::begin(kMagic), std::end(kMagic), header.magic);
  if (!Write(file, &header, sizeof(header), lastError)) {
    return false;
  }
  char payload[kCachePayloadSize] = {};
  if (!FillPayload(parameters, payload, lastError)) {
    return false;
  }
  Scramble(payload);
  if (!Write(file, payload, kCachePayloadSize, lastError)) {
    return false;
  }
  // Of what has arrived in the file, not of what was meant to.
  std::uint32_t crc = 0;
  if (!Seek(file, sizeof(header)) || !ComputeCrc<kWriterChunkSize>(file, crc)) {
    return false;
  }
  header.crc = crc;
  return Seek(file, 0) && Write(file, &header, sizeof(header), lastError);
}

bool ReadCache(const std::string& folder, unsigned char* payload, FingerprintStatus& lastError) {
  if (payload == nullptr) {
    lastError.RecordFailure(0, kStageNullBuffer);
    return false;
  }
  FileDescriptor file;
  if (!Open(folder, _O_RDONLY | _O_BINARY, _S_IREAD, file, lastError)) {
    return false;
  }
  CacheHeader header;
  if (!Read(file, &header, sizeof(header), lastError) ||
      !std::equal(std::begin(kMagic), std::end(kMagic), header.magic)) {
    return false;
  }
  std::uint32_t crc = 0;
  if (!ComputeCrc<kReaderChunkSize>(file, crc) || crc != header.crc) {
    return false;
  }
  if (!Seek(file, sizeof(header)) || !Read(file, payload, kCachePayloadSize, lastError)) {
    return false;
  }
  file.Reset();
  Scramble(payload);
  return true;
}

bool IsCacheOf(const std::string& folder, const RawParameters& parameters,
               FingerprintStatus& lastError) {
  // One byte more than the file has ends every text, whatever the file holds.
  unsigned char payload[kCachePayloadSize + 1] = {};
  if (!ReadCache(folder, payload, lastError) ||
      !EqualIgnoringCase(parameters.BiosUuid, payload + kBiosUuidOffset) ||
      !EqualIgnoringCase(parameters.PrimaryHddSerial, payload + kSerialOffset)) {
    return false;
  }
  // What the file holds beyond this list is not looked at.
  std::size_t i = 0;
  for (const std::string& address : parameters.MacAddressList) {
    if (i == kMaxAddresses) {
      break;
    }
    if (!EqualIgnoringCase(address.c_str(), payload + kMacAddressSize * i++)) {
      return false;
    }
  }
  return true;
}
