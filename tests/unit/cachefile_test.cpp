// The cache file of the raw parameters: written, read and compared.
#include <gmock/gmock.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>

#include "tests/unit/cachefile_test.h"

using ::testing::ElementsAre;

namespace {

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

}  // namespace
