// What the tests of the cache file share.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <io.h>
#include <share.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "identity/ztuuid.h"
#include "support/windows_api.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"

// The C runtime's own pointer, through which the product's calls go: no import of the executable.
extern "C" errno_t(__cdecl* __imp__sopen_s)(int*, const char*, int, int, int);

inline constexpr std::size_t kHeaderSize = 9;
inline constexpr std::size_t kPayloadSize = 173;
inline constexpr std::size_t kFileSize = 182;

// What a failed copy into a field gives.
inline constexpr auto kDoesNotFit = static_cast<std::int32_t>(0x8007007A);

// A status that both keeps and shows what is recorded.
inline constexpr std::int32_t kSeedCode = 1;
inline constexpr std::uint32_t kSeedStage = 77;

inline constexpr char kMac1[] = "00-1a-2b-3c-4d-5e";
inline constexpr char kMac2[] = "00-1A-2B-3C-4D-5F";
inline constexpr char kBiosUuid[] = "4C4C4544-0042-3510-8054-B7C04F4D3032";
inline constexpr char kSerial[] = "S3Z9NB0K123456W ";

// The CRC of the scrambled payload of these values, computed by another program.
inline constexpr std::uint32_t kSampleCrc = 0xB34440B6;

inline std::uint32_t Crc(const ByteVector& bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const unsigned char byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
  }
  return ~crc;
}

// The header with a CRC of this value.
inline ByteVector Header(std::uint32_t crc) {
  ByteVector header = {'Z', 'T', 'C', 'R', 'P'};
  for (int shift = 0; shift < 32; shift += 8) {
    header.push_back(static_cast<unsigned char>(crc >> shift));
  }
  return header;
}

// A file whose CRC matches what is behind its header.
inline ByteVector ValidFile(const ByteVector& behindHeader) {
  ByteVector file = Header(Crc(behindHeader));
  file.insert(file.end(), behindHeader.begin(), behindHeader.end());
  return file;
}

inline ByteVector Swapped(ByteVector bytes) {
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(byte % 16 * 16 + byte / 16);
  }
  return bytes;
}

inline void Put(ByteVector& payload, std::size_t offset, const std::string& text) {
  std::ranges::copy(text, payload.begin() + static_cast<std::ptrdiff_t>(offset));
}

// The payload of the sample values, not scrambled.
inline ByteVector SamplePayload() {
  ByteVector payload(kPayloadSize);
  Put(payload, 0, kMac1);
  Put(payload, 18, kMac2);
  Put(payload, 36, kBiosUuid);
  Put(payload, 73, kSerial);
  return payload;
}

// A text of 17 characters for the address of this place.
inline std::string Address(std::size_t place) {
  return "AA-BB-CC-DD-EE-" + std::to_string(10 + place);
}

// Sees the calls of _sopen_s as long as it lives: path, flags, sharing and permissions.
class OpenCalls {
 public:
  OpenCalls() {
    // The runtime looks the function up at its first call and then replaces the pointer.
    int file = -1;
    __imp__sopen_s(&file, "NUL", _O_RDONLY, _SH_DENYNO, 0);
    _close(file);
    s_calls().clear();
    s_original = std::exchange(__imp__sopen_s, &Record);
  }
  ~OpenCalls() { __imp__sopen_s = s_original; }
  OpenCalls(const OpenCalls&) = delete;
  OpenCalls& operator=(const OpenCalls&) = delete;

  const std::vector<std::string>& Calls() const { return s_calls(); }

 private:
  static std::vector<std::string>& s_calls() {
    static std::vector<std::string> calls;
    return calls;
  }
  static errno_t __cdecl Record(int* file, const char* path, int flags, int sharing,
                                int permissions) {
    char arguments[40];
    StringCchPrintfA(arguments, sizeof(arguments), " %x %x %x", flags, sharing, permissions);
    s_calls().push_back(path + std::string(arguments));
    return s_original(file, path, flags, sharing, permissions);
  }
  static inline errno_t(__cdecl* s_original)(int*, const char*, int, int, int) = nullptr;
};

using Recorded = std::pair<std::int32_t, std::uint32_t>;

// A record of the sample values whose folder is new and empty. Every test ends with a check that no
// descriptor was left open.
class CacheFile : public ::testing::Test {
 protected:
  CacheFile() {
    Fill(m_record);
    m_record.LastError = {kSeedCode, kSeedStage};
  }
  void TearDown() override { EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree); }

  void Fill(CZTUUID& record) const {
    record.MacAddressList = {kMac1, kMac2};
    StringCchCopyA(record.BiosUuid, sizeof(record.BiosUuid), kBiosUuid);
    StringCchCopyA(record.PrimaryHddSerial, sizeof(record.PrimaryHddSerial), kSerial);
    record.CacheFolder = m_folder.Path().string() + '\\';
  }

  // What was recorded since the last look.
  Recorded TakeRecorded() {
    const FingerprintStatus status = std::exchange(m_record.LastError, {kSeedCode, kSeedStage});
    return {status.ErrorCode, status.ErrorStage};
  }

  // The result of reading, and what was read.
  bool Read() {
    m_payload.assign(kPayloadSize, 0xEE);
    return m_record.ReadCacheFile(m_payload.data());
  }

  void ExpectInvalid(const ByteVector& file, const std::string& what) {
    WriteBytes(m_path, file);
    EXPECT_FALSE(Read()) << what;
    EXPECT_FALSE(m_record.IsCacheCurrent()) << what;
    ASSERT_EQ(LowestFreeDescriptor(), m_lowestFree) << what;
  }

  const int m_lowestFree = LowestFreeDescriptor();
  const Recorded m_nothing{kSeedCode, kSeedStage};
  TempFolder m_folder;
  std::string m_path = m_folder.File("hwcdata.dat");
  CZTUUID m_record;
  ByteVector m_payload;
};
