// Cache files that cannot be opened, that others hold, and steps that fail.
#include <gmock/gmock.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/cachefile_test.h"

using ::testing::ElementsAre;

namespace {

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
