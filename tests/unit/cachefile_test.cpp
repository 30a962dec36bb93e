#include <fcntl.h>
#include <gmock/gmock.h>
#include <io.h>
#include <share.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "identity/ztuuid.h"
#include "support/windows_api.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"

using ::testing::ElementsAre;
using ::testing::Test;

// The C runtime's own pointer, through which the product's calls go: no import of the executable.
extern "C" errno_t(__cdecl* __imp__sopen_s)(int*, const char*, int, int, int);

namespace {

constexpr std::size_t kHeaderSize = 9;
constexpr std::size_t kPayloadSize = 173;
constexpr std::size_t kFileSize = 182;

// What a failed copy into a field gives.
constexpr auto kDoesNotFit = static_cast<std::int32_t>(0x8007007A);

// A status that both keeps and shows what is recorded.
constexpr std::int32_t kSeedCode = 1;
constexpr std::uint32_t kSeedStage = 77;

constexpr char kMac1[] = "00-1a-2b-3c-4d-5e";
constexpr char kMac2[] = "00-1A-2B-3C-4D-5F";
constexpr char kBiosUuid[] = "4C4C4544-0042-3510-8054-B7C04F4D3032";
constexpr char kSerial[] = "S3Z9NB0K123456W ";

// The CRC of the scrambled payload of these values, computed by another program.
constexpr std::uint32_t kSampleCrc = 0xB34440B6;

std::uint32_t Crc(const ByteVector& bytes) {
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
ByteVector Header(std::uint32_t crc) {
  ByteVector header = {'Z', 'T', 'C', 'R', 'P'};
  for (int shift = 0; shift < 32; shift += 8) {
    header.push_back(static_cast<unsigned char>(crc >> shift));
  }
  return header;
}

// A file whose CRC matches what is behind its header.
ByteVector ValidFile(const ByteVector& behindHeader) {
  ByteVector file = Header(Crc(behindHeader));
  file.insert(file.end(), behindHeader.begin(), behindHeader.end());
  return file;
}

ByteVector Swapped(ByteVector bytes) {
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(byte % 16 * 16 + byte / 16);
  }
  return bytes;
}

void Put(ByteVector& payload, std::size_t offset, const std::string& text) {
  std::ranges::copy(text, payload.begin() + static_cast<std::ptrdiff_t>(offset));
}

// The payload of the sample values, not scrambled.
ByteVector SamplePayload() {
  ByteVector payload(kPayloadSize);
  Put(payload, 0, kMac1);
  Put(payload, 18, kMac2);
  Put(payload, 36, kBiosUuid);
  Put(payload, 73, kSerial);
  return payload;
}

// A text of 17 characters for the address of this place.
std::string Address(std::size_t place) { return "AA-BB-CC-DD-EE-" + std::to_string(10 + place); }

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
class CacheFile : public Test {
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

// --- Writing ---

TEST_F(CacheFile, HasItsLayoutToTheLastByte) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  ByteVector expected = Header(kSampleCrc);
  const ByteVector payload = Swapped(SamplePayload());
  expected.insert(expected.end(), payload.begin(), payload.end());
  EXPECT_EQ(expected.size(), kFileSize);
  EXPECT_EQ(ReadBytes(m_path), expected);
  EXPECT_EQ(TakeRecorded(), m_nothing);
}

TEST_F(CacheFile, OfAnEmptyRecordHoldsEmptyTexts) {
  CZTUUID empty;
  empty.CacheFolder = m_record.CacheFolder;
  EXPECT_TRUE(empty.WriteCacheFile());
  EXPECT_EQ(ReadBytes(m_path), ValidFile(ByteVector(kPayloadSize)));
  EXPECT_TRUE(empty.IsCacheCurrent());
}

TEST_F(CacheFile, ReplacesALongerOne) {
  WriteBytes(m_path, ByteVector(1000, 0xFF));
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_EQ(ReadBytes(m_path).size(), kFileSize);
  EXPECT_TRUE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, OfARecordWithoutFolderLiesInTheCurrentFolder) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(m_folder.Path());
  m_record.CacheFolder.clear();
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_TRUE(m_record.IsCacheCurrent());
  std::filesystem::current_path(before);
  EXPECT_EQ(ReadBytes(m_path).size(), kFileSize);
}

TEST_F(CacheFile, AThirdAddressStandsOverTheBiosUuid) {
  m_record.MacAddressList.push_back(Address(2));
  EXPECT_TRUE(m_record.WriteCacheFile());
  ASSERT_TRUE(Read());
  ByteVector expected = SamplePayload();
  Put(expected, 36, Address(2) + '\0');
  EXPECT_EQ(m_payload, expected);
  EXPECT_FALSE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, AddressesBeyondTheNinthAreNeitherWrittenNorCompared) {
  m_record.MacAddressList.clear();
  ByteVector expected = SamplePayload();
  for (std::size_t i = 0; i < 10; ++i) {
    m_record.MacAddressList.push_back(Address(i));
    if (i < 9) {
      Put(expected, 18 * i, Address(i) + '\0');
    }
  }
  EXPECT_TRUE(m_record.WriteCacheFile());
  ASSERT_TRUE(Read());
  EXPECT_EQ(m_payload, expected);

  // A record whose texts are what the addresses have left of its fields.
  StringCchCopyA(m_record.BiosUuid, sizeof(m_record.BiosUuid), Address(2).c_str());
  StringCchCopyA(m_record.PrimaryHddSerial, sizeof(m_record.PrimaryHddSerial),
                 Address(4).c_str() + 1);
  EXPECT_TRUE(m_record.IsCacheCurrent());
  // The ninth counts still.
  *std::next(m_record.MacAddressList.begin(), 8) = Address(0);
  EXPECT_FALSE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, ATextThatDoesNotFitLeavesTheHeaderAlone) {
  const auto expectFailure = [this](const char* what, const std::function<void()>& spoil) {
    Fill(m_record);
    spoil();
    EXPECT_FALSE(m_record.WriteCacheFile()) << what;
    EXPECT_EQ(TakeRecorded(), Recorded(kDoesNotFit, 0)) << what;
    EXPECT_EQ(ReadBytes(m_path), Header(0)) << what;
    EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree) << what;
  };
  expectFailure("address 1", [this] { m_record.MacAddressList.front() += 'x'; });
  expectFailure("address 2", [this] { m_record.MacAddressList.back() += 'x'; });
  expectFailure("BIOS UUID", [this] { std::ranges::fill(m_record.BiosUuid, 'x'); });
  expectFailure("serial", [this] { std::ranges::fill(m_record.PrimaryHddSerial, 'x'); });
}

TEST_F(CacheFile, TextsThatJustFitAreWritten) {
  std::ranges::fill(m_record.PrimaryHddSerial, 's');
  m_record.PrimaryHddSerial[99] = '\0';
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_TRUE(m_record.IsCacheCurrent());
  ASSERT_TRUE(Read());
  EXPECT_EQ(m_payload[171], 's');
  EXPECT_EQ(m_payload[172], 0);
}

TEST_F(CacheFile, BytesThatTextModeWouldChangeArePreserved) {
  // Scrambled, these are a line feed, a carriage return and the mark of a text's end.
  StringCchCopyA(m_record.PrimaryHddSerial, sizeof(m_record.PrimaryHddSerial), "\xA0\xD0\xA0\xA1z");
  EXPECT_TRUE(m_record.WriteCacheFile());
  const ByteVector file = ReadBytes(m_path);
  ASSERT_EQ(file.size(), kFileSize);
  EXPECT_THAT(ByteVector(file.begin() + 9 + 73, file.begin() + 9 + 78),
              ElementsAre('\n', '\r', '\n', 0x1A, 0xA7));
  EXPECT_TRUE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, IsWritable) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_EQ(GetFileAttributesA(m_path.c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
}

TEST_F(CacheFile, IsReadWhereWritingIsForbidden) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  SetFileAttributesA(m_path.c_str(), FILE_ATTRIBUTE_READONLY);
  EXPECT_TRUE(m_record.IsCacheCurrent());
  SetFileAttributesA(m_path.c_str(), FILE_ATTRIBUTE_NORMAL);
}

// --- Reading ---

TEST_F(CacheFile, IsReadBackUnscrambled) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_TRUE(Read());
  EXPECT_EQ(m_payload, SamplePayload());
  EXPECT_EQ(TakeRecorded(), m_nothing);
}

TEST_F(CacheFile, APayloadChangedByOneBitFailsTheCrcCheck) {
  ByteVector file = ValidFile(Swapped(SamplePayload()));
  file[kHeaderSize + 40] ^= 0x10;
  ExpectInvalid(file, "one bit");
  EXPECT_EQ(TakeRecorded(), m_nothing);
}

TEST_F(CacheFile, EverySingleBitCounts) {
  const ByteVector valid = ValidFile(Swapped(SamplePayload()));
  ASSERT_EQ(valid.size(), kFileSize);
  for (std::size_t bit = 0; bit < kFileSize * 8; ++bit) {
    ByteVector file = valid;
    file[bit / 8] ^= static_cast<unsigned char>(1 << bit % 8);
    ExpectInvalid(file, "bit " + std::to_string(bit));
  }
  WriteBytes(m_path, valid);
  EXPECT_TRUE(m_record.IsCacheCurrent()) << "without any change";
}

TEST_F(CacheFile, EveryShorterLengthIsRefused) {
  const ByteVector valid = ValidFile(Swapped(SamplePayload()));
  for (std::size_t size = 0; size < kFileSize; ++size) {
    const ByteVector file(valid.begin(), valid.begin() + static_cast<std::ptrdiff_t>(size));
    ExpectInvalid(file, std::to_string(size) + " bytes");
  }
}

TEST_F(CacheFile, AShortPayloadWithAMatchingCrcFailsWhenItIsRead) {
  const ByteVector whole = Swapped(SamplePayload());
  for (std::size_t size = 0; size < kPayloadSize; ++size) {
    const ByteVector file =
        ValidFile(ByteVector(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    WriteBytes(m_path, file);
    errno = EILSEQ;
    EXPECT_FALSE(Read()) << size;
    // A recorded failure shows that the CRC check was passed.
    EXPECT_EQ(TakeRecorded(), Recorded(EILSEQ, 0)) << size;
    EXPECT_FALSE(m_record.IsCacheCurrent()) << size;
    TakeRecorded();
  }
}

TEST_F(CacheFile, ALongerFileWithAMatchingCrcIsRead) {
  ByteVector behindHeader = Swapped(SamplePayload());
  behindHeader.resize(3000, 0x5A);
  WriteBytes(m_path, ValidFile(behindHeader));
  EXPECT_TRUE(Read());
  EXPECT_EQ(m_payload, SamplePayload());
  EXPECT_TRUE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, AForeignFileIsRefusedSilently) {
  ByteVector file = ValidFile(Swapped(SamplePayload()));
  file[4] = 'Q';
  ExpectInvalid(file, "magic");
  EXPECT_EQ(TakeRecorded(), m_nothing);
}

TEST_F(CacheFile, AHeaderThatIsCutRecordsTheError) {
  WriteBytes(m_path, ByteVector(8, 'Z'));
  errno = EILSEQ;
  EXPECT_FALSE(Read());
  EXPECT_EQ(TakeRecorded(), Recorded(EILSEQ, 0));
}

TEST_F(CacheFile, ANullBufferRecordsStage11) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_FALSE(m_record.ReadCacheFile(nullptr));
  EXPECT_EQ(TakeRecorded(), Recorded(0, 11));
}

// --- Comparing ---

TEST_F(CacheFile, IsCurrentForTheRecordThatWroteIt) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_TRUE(m_record.IsCacheCurrent());
  EXPECT_EQ(TakeRecorded(), m_nothing);
}

TEST_F(CacheFile, LetterCaseDoesNotCount) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  _strlwr_s(m_record.BiosUuid, sizeof(m_record.BiosUuid));
  EXPECT_STRNE(m_record.BiosUuid, kBiosUuid);
  EXPECT_TRUE(m_record.IsCacheCurrent()) << "BIOS UUID";
  _strlwr_s(m_record.PrimaryHddSerial, sizeof(m_record.PrimaryHddSerial));
  EXPECT_STRNE(m_record.PrimaryHddSerial, kSerial);
  EXPECT_TRUE(m_record.IsCacheCurrent()) << "serial";
  m_record.MacAddressList = {"00-1A-2B-3C-4D-5E", "00-1a-2b-3c-4d-5f"};
  EXPECT_TRUE(m_record.IsCacheCurrent()) << "addresses";
}

TEST_F(CacheFile, EveryDifferenceCounts) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  m_record.BiosUuid[35] = '3';
  EXPECT_FALSE(m_record.IsCacheCurrent()) << "BIOS UUID";
  Fill(m_record);
  m_record.BiosUuid[0] = '\0';
  EXPECT_FALSE(m_record.IsCacheCurrent()) << "no BIOS UUID";
  Fill(m_record);
  m_record.PrimaryHddSerial[15] = '\0';
  EXPECT_FALSE(m_record.IsCacheCurrent()) << "serial";
  Fill(m_record);
  m_record.MacAddressList.front().back() = '0';
  EXPECT_FALSE(m_record.IsCacheCurrent()) << "first address";
  Fill(m_record);
  m_record.MacAddressList.back().back() = '0';
  EXPECT_FALSE(m_record.IsCacheCurrent()) << "second address";
  Fill(m_record);
  m_record.MacAddressList.reverse();
  EXPECT_FALSE(m_record.IsCacheCurrent()) << "order";
  Fill(m_record);
  EXPECT_TRUE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, AnEmptyListIgnoresTheAddresses) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  m_record.MacAddressList.clear();
  EXPECT_TRUE(m_record.IsCacheCurrent());
  m_record.BiosUuid[0] = 'F';
  EXPECT_FALSE(m_record.IsCacheCurrent()) << "the texts count still";
}

TEST_F(CacheFile, AddressesBeyondTheListAreNotLookedAt) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  m_record.MacAddressList.pop_back();
  EXPECT_TRUE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, AnAddressThatTheFileLacksIsADifference) {
  m_record.MacAddressList.pop_back();
  EXPECT_TRUE(m_record.WriteCacheFile());
  m_record.MacAddressList.push_back(kMac2);
  EXPECT_FALSE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, TextsWithoutEndAreComparedWithoutHarm) {
  ByteVector payload(kPayloadSize, 'x');
  WriteBytes(m_path, ValidFile(Swapped(payload)));
  EXPECT_TRUE(Read());
  EXPECT_FALSE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, AMissingFileIsNotCurrent) {
  EXPECT_FALSE(m_record.IsCacheCurrent());
  EXPECT_EQ(TakeRecorded(), Recorded(ENOENT, 0));
}

// --- Files that cannot be opened ---

TEST_F(CacheFile, AMissingFolderRecordsTheError) {
  m_record.CacheFolder += "missing\\";
  EXPECT_FALSE(m_record.WriteCacheFile());
  EXPECT_EQ(TakeRecorded(), Recorded(ENOENT, 0));
  EXPECT_FALSE(Read());
  EXPECT_EQ(TakeRecorded(), Recorded(ENOENT, 0));
}

TEST_F(CacheFile, AFolderOfItsNameRecordsTheError) {
  std::filesystem::create_directory(m_path);
  EXPECT_FALSE(m_record.WriteCacheFile());
  EXPECT_EQ(TakeRecorded(), Recorded(EACCES, 0));
  EXPECT_FALSE(Read());
  EXPECT_EQ(TakeRecorded(), Recorded(EACCES, 0));
}

TEST_F(CacheFile, APathOf259CharactersFits) {
  // The longest folder that can be made: 247 characters.
  const std::string parent = m_folder.Path().string() + '\\';
  const std::string folder = parent + std::string(247 - parent.size(), 'f');
  ASSERT_TRUE(std::filesystem::create_directory(folder));
  m_record.CacheFolder = folder + '\\';
  m_path = m_record.CacheFolder + "hwcdata.dat";
  ASSERT_EQ(m_path.size(), 259U);
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_TRUE(Read());
  EXPECT_EQ(m_payload, SamplePayload());
  EXPECT_EQ(TakeRecorded(), m_nothing);
  EXPECT_EQ(ReadBytes(m_path).size(), kFileSize);
}

TEST_F(CacheFile, APathOf260CharactersIsTooLong) {
  m_record.CacheFolder.assign(260 - 11, 'f');
  EXPECT_FALSE(m_record.WriteCacheFile());
  EXPECT_EQ(TakeRecorded(), Recorded(kDoesNotFit, 0));
  EXPECT_FALSE(Read());
  EXPECT_EQ(TakeRecorded(), Recorded(kDoesNotFit, 0));
  EXPECT_FALSE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, FailuresAreRecordedOnlyOverAPairOfNonZeros) {
  m_record.CacheFolder += "missing\\";
  for (const Recorded& before : {Recorded(0, 0), Recorded(5, 0), Recorded(0, 5)}) {
    m_record.LastError = {before.first, before.second};
    EXPECT_FALSE(m_record.WriteCacheFile());
    EXPECT_FALSE(Read());
    EXPECT_FALSE(m_record.ReadCacheFile(nullptr));
    EXPECT_EQ(TakeRecorded(), before);
  }
}

// --- How it is opened ---

TEST_F(CacheFile, IsOpenedForItsWriterAndItsReaderWithoutOtherWriters) {
  const OpenCalls calls;
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_TRUE(Read());
  EXPECT_TRUE(m_record.IsCacheCurrent());
  const std::string read = m_path + " 8000 20 100";
  EXPECT_THAT(calls.Calls(), ElementsAre(m_path + " 8302 20 180", read, read));
}

// --- Sharing ---

TEST_F(CacheFile, ASecondWriterIsShutOut) {
  CZTUUID second;
  Fill(second);
  second.LastError = {kSeedCode, kSeedStage};
  bool isInside = false;
  int attempts = 0;
  const CallPatch<struct WriteTag, int(int, const void*, unsigned)> write(
      "msvcrt.dll", "_write", [&](int file, const void* data, unsigned size) {
        // Once at each step of the first writer.
        if (!std::exchange(isInside, true)) {
          EXPECT_FALSE(second.WriteCacheFile());
          EXPECT_EQ(second.LastError.ErrorCode, EACCES);
          EXPECT_EQ(second.LastError.ErrorStage, 0U);
          second.LastError = {kSeedCode, kSeedStage};
          ++attempts;
          isInside = false;
        }
        return write.CallOriginal(file, data, size);
      });
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_EQ(attempts, 3);
  EXPECT_TRUE(m_record.IsCacheCurrent());
}

TEST_F(CacheFile, AWriterIsShutOutWhileAReaderReads) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  CZTUUID writer;
  Fill(writer);
  CZTUUID otherReader;
  Fill(otherReader);
  bool isInside = false;
  int attempts = 0;
  const CallPatch<struct ReadTag, int(int, void*, unsigned)> read(
      "msvcrt.dll", "_read", [&](int file, void* data, unsigned size) {
        if (!std::exchange(isInside, true)) {
          EXPECT_FALSE(writer.WriteCacheFile());
          EXPECT_TRUE(otherReader.IsCacheCurrent()) << "readers do not mind each other";
          ++attempts;
          isInside = false;
        }
        return read.CallOriginal(file, data, size);
      });
  EXPECT_TRUE(m_record.IsCacheCurrent());
  // The header, the CRC to the end of the file, the payload.
  EXPECT_EQ(attempts, 4);
}

// --- Steps that fail ---

// The header, the payload, the header again.
TEST_F(CacheFile, EveryShortWriteFailsAndRecordsTheError) {
  const std::vector<unsigned> sizes = {kHeaderSize, kPayloadSize, kHeaderSize};
  for (std::size_t failAt = 0; failAt < sizes.size(); ++failAt) {
    for (const bool isError : {false, true}) {
      std::vector<unsigned> calls;
      const CallPatch<struct WriteTag, int(int, const void*, unsigned)> write(
          "msvcrt.dll", "_write", [&](int file, const void* data, unsigned size) {
            calls.push_back(size);
            if (calls.size() != failAt + 1) {
              return write.CallOriginal(file, data, size);
            }
            const int written = isError ? -1 : write.CallOriginal(file, data, size - 1);
            errno = ENOSPC;
            return written;
          });
      EXPECT_FALSE(m_record.WriteCacheFile()) << failAt;
      EXPECT_EQ(TakeRecorded(), Recorded(ENOSPC, 0)) << failAt;
      EXPECT_EQ(calls, std::vector<unsigned>(
                           sizes.begin(), sizes.begin() + static_cast<std::ptrdiff_t>(failAt + 1)));
      EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree);
      EXPECT_FALSE(failAt < 2 && m_record.IsCacheCurrent()) << "no valid file is left behind";
      TakeRecorded();
    }
  }
}

// To the payload for its CRC, to the beginning for the header.
TEST_F(CacheFile, EverySeekOfTheWriterThatFailsFails) {
  for (const std::size_t failAt : {1U, 2U}) {
    std::vector<long> offsets;
    const CallPatch<struct SeekTag, long(int, long, int)> seek(
        "msvcrt.dll", "_lseek", [&](int file, long offset, int origin) {
          EXPECT_EQ(origin, SEEK_SET);
          offsets.push_back(offset);
          return offsets.size() == failAt ? offset + 1 : seek.CallOriginal(file, offset, origin);
        });
    EXPECT_FALSE(m_record.WriteCacheFile()) << failAt;
    EXPECT_EQ(TakeRecorded(), m_nothing);
    EXPECT_EQ(offsets.back(), failAt == 1 ? 9 : 0);
    EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree);
  }
}

TEST_F(CacheFile, AWriterThatCannotReadBackFails) {
  const CallPatch<struct ReadTag, int(int, void*, unsigned)> read("msvcrt.dll", "_read",
                                                                  [&](int, void*, unsigned size) {
                                                                    EXPECT_EQ(size, 1024U);
                                                                    return -1;
                                                                  });
  EXPECT_FALSE(m_record.WriteCacheFile());
  EXPECT_EQ(TakeRecorded(), m_nothing);
}

TEST_F(CacheFile, TheCrcIsThatOfWhatHasArrivedInTheFile) {
  int calls = 0;
  const CallPatch<struct WriteTag, int(int, const void*, unsigned)> write(
      "msvcrt.dll", "_write", [&](int file, const void* data, unsigned size) {
        if (++calls != 2) {
          return write.CallOriginal(file, data, size);
        }
        const ByteVector other(size, 0x11);
        return write.CallOriginal(file, other.data(), size);
      });
  EXPECT_TRUE(m_record.WriteCacheFile());
  EXPECT_EQ(ReadBytes(m_path), ValidFile(ByteVector(kPayloadSize, 0x11)));
}

TEST_F(CacheFile, EveryReadThatFailsFails) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  // The header; the CRC, to the end of the file; the payload.
  const std::vector<unsigned> sizes = {kHeaderSize, 260, 260, kPayloadSize};
  for (std::size_t failAt = 1; failAt <= sizes.size(); ++failAt) {
    std::vector<unsigned> calls;
    const CallPatch<struct ReadTag, int(int, void*, unsigned)> read(
        "msvcrt.dll", "_read", [&](int file, void* data, unsigned size) {
          calls.push_back(size);
          if (calls.size() != failAt) {
            return read.CallOriginal(file, data, size);
          }
          errno = EIO;
          return -1;
        });
    EXPECT_FALSE(Read()) << failAt;
    EXPECT_EQ(calls, std::vector<unsigned>(sizes.begin(),
                                           sizes.begin() + static_cast<std::ptrdiff_t>(failAt)));
    const bool isRecorded = failAt == 1 || failAt == 4;
    EXPECT_EQ(TakeRecorded(), isRecorded ? Recorded(EIO, 0) : m_nothing) << failAt;
    EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree);
  }
}

TEST_F(CacheFile, ASeekOfTheReaderThatFailsFails) {
  EXPECT_TRUE(m_record.WriteCacheFile());
  const CallPatch<struct SeekTag, long(int, long, int)> seek("msvcrt.dll", "_lseek",
                                                             [&](int, long offset, int origin) {
                                                               EXPECT_EQ(offset, 9);
                                                               EXPECT_EQ(origin, SEEK_SET);
                                                               return -1L;
                                                             });
  EXPECT_FALSE(Read());
  EXPECT_EQ(TakeRecorded(), m_nothing);
}

}  // namespace
