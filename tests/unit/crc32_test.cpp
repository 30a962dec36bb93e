#include "identity/crc32.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/hash_cases.h"

using ::testing::IsEmpty;
using ::testing::Test;
using ::testing::ValuesIn;
using ::testing::WithParamInterface;

namespace {

constexpr unsigned char kCheckText[] = "123456789";

// A value that no operation gives by chance.
constexpr std::uint32_t kUntouched = 0x12345678;

// The definition of the CRC, bit by bit.
std::uint32_t CrcByDefinition(const ByteVector& bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const unsigned char byte : bytes) {
    for (int bit = 0; bit < 8; ++bit) {
      const bool differs = ((crc ^ static_cast<std::uint32_t>(byte >> bit)) & 1) != 0;
      crc = (crc >> 1) ^ (differs ? 0xEDB88320 : 0);
    }
  }
  return crc ^ 0xFFFFFFFF;
}

class Crc32 : public Test {
 protected:
  const CCrc32 m_crc32{};
  std::uint32_t m_crc = kUntouched;
};

// A file in a folder of its own; checks at the end that nobody left a descriptor open.
class Crc32File : public Crc32 {
 protected:
  explicit Crc32File(const ByteVector& bytes = {}) { WriteBytes(m_path, bytes); }
  void TearDown() override { EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree); }

  const int m_lowestFree = LowestFreeDescriptor();
  TempFolder m_folder;
  std::string m_path = m_folder.File("summed.bin");
  std::string m_missing = m_folder.File("missing.bin");
};

// --- Known answers ---

TEST_F(Crc32, CheckValueIsInvertedInTheBufferForm) {
  EXPECT_EQ(m_crc32.Calculate(kCheckText, 9, &m_crc), 1);
  EXPECT_EQ(m_crc, 0x340BC6D9U);
}

TEST_F(Crc32, CheckValueOfTheStringForm) {
  EXPECT_EQ(m_crc32.CalculateString("123456789", &m_crc), 1);
  EXPECT_EQ(m_crc, 0xCBF43926U);
}

TEST_F(Crc32, CheckValueInPiecesThroughTheRunningForm) {
  for (int split = 0; split <= 9; ++split) {
    m_crc = 0xFFFFFFFF;
    EXPECT_EQ(m_crc32.Update(kCheckText, split, &m_crc), 1);
    EXPECT_EQ(m_crc32.Update(kCheckText + split, 9 - split, &m_crc), 1);
    EXPECT_EQ(m_crc, 0x340BC6D9U) << split;
  }
}

TEST_F(Crc32, EveryEntryOfTheTableFollowsFromThePolynomial) {
  for (int value = 0; value < 256; ++value) {
    const ByteVector bytes(1, static_cast<unsigned char>(value));
    EXPECT_EQ(m_crc32.Calculate(bytes.data(), 1, &m_crc), 1);
    EXPECT_EQ(~m_crc, CrcByDefinition(bytes)) << value;
  }
}

// Long input is taken in by slices of 16 bytes: every value in every place of one.
TEST_F(Crc32, EveryByteCountsInEveryPlaceOfASlice) {
  for (std::size_t place = 0; place < 16; ++place) {
    for (int value = 0; value < 256; ++value) {
      ByteVector bytes(16);
      bytes[place] = static_cast<unsigned char>(value);
      EXPECT_EQ(m_crc32.Calculate(bytes.data(), 16, &m_crc), 1);
      ASSERT_EQ(~m_crc, CrcByDefinition(bytes)) << value << " in place " << place;
    }
  }
}

TEST_F(Crc32, LengthsAroundTheSlicesFromAnyAddressFollowFromThePolynomial) {
  const ByteVector bytes = HashCase{100, nullptr, 0}.Bytes();
  for (std::size_t first = 0; first <= 16; ++first) {
    for (std::size_t length = 0; length <= 80; ++length) {
      const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(first);
      const ByteVector part(start, start + static_cast<std::ptrdiff_t>(length));
      EXPECT_EQ(m_crc32.Calculate(&bytes[first], static_cast<int>(length), &m_crc), 1);
      ASSERT_EQ(~m_crc, CrcByDefinition(part)) << length << " bytes from " << first;
    }
  }
}

TEST_F(Crc32, TheRunningFormMayBeSplitAnywhere) {
  const ByteVector bytes = HashCase{100, nullptr, 0}.Bytes();
  for (int split = 0; split <= 100; ++split) {
    m_crc = 0xFFFFFFFF;
    EXPECT_EQ(m_crc32.Update(bytes.data(), split, &m_crc), 1);
    EXPECT_EQ(m_crc32.Update(bytes.data() + split, 100 - split, &m_crc), 1);
    ASSERT_EQ(~m_crc, CrcByDefinition(bytes)) << split;
  }
}

TEST_F(Crc32, StringsOfHighCharactersAreBytes) {
  EXPECT_EQ(m_crc32.CalculateString("\xFF\x80\x7F", &m_crc), 1);
  EXPECT_EQ(m_crc, CrcByDefinition({0xFF, 0x80, 0x7F}));
}

class Crc32Size : public Crc32File, public WithParamInterface<HashCase> {
 protected:
  Crc32Size() : Crc32File(GetParam().Bytes()) {}
};

TEST_P(Crc32Size, EveryFormGivesTheCrcThatOtherProgramsGive) {
  ByteVector bytes = GetParam().Bytes();
  const int size = static_cast<int>(bytes.size());
  bytes.push_back(0);
  EXPECT_EQ(m_crc32.Calculate(bytes.data(), size, &m_crc), 1);
  EXPECT_EQ(~m_crc, GetParam().crc32);

  m_crc = kUntouched;
  EXPECT_EQ(m_crc32.CalculateFile(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, GetParam().crc32);

  m_crc = kUntouched;
  EXPECT_EQ(m_crc32.CalculateFileStream(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, GetParam().crc32);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Crc32Size, ValuesIn(kHashCases),
                         [](const auto& test) { return std::to_string(test.param.size); });

// --- Empty input ---

TEST_F(Crc32, LengthsBelowOneGiveTheStartValueInTheBufferForm) {
  for (const int length : {0, -1, -2147483647 - 1}) {
    m_crc = kUntouched;
    EXPECT_EQ(m_crc32.Calculate(kCheckText, length, &m_crc), 1);
    EXPECT_EQ(m_crc, 0xFFFFFFFFU);
  }
}

TEST_F(Crc32, LengthsBelowOneLeaveTheRunningValueUnchanged) {
  for (const int length : {0, -1, -2147483647 - 1}) {
    EXPECT_EQ(m_crc32.Update(kCheckText, length, &m_crc), 1);
    EXPECT_EQ(m_crc, kUntouched);
  }
}

TEST_F(Crc32, AnEmptyTextGivesZero) {
  EXPECT_EQ(m_crc32.CalculateString("", &m_crc), 1);
  EXPECT_EQ(m_crc, 0U);
}

TEST_F(Crc32File, AnEmptyFileGivesZero) {
  EXPECT_EQ(m_crc32.CalculateFile(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, 0U);
  m_crc = kUntouched;
  EXPECT_EQ(m_crc32.CalculateFileStream(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, 0U);
}

// --- Failures ---

TEST_F(Crc32, NullsFail) {
  EXPECT_EQ(m_crc32.Update(nullptr, 1, &m_crc), 0);
  EXPECT_EQ(m_crc32.Update(nullptr, 0, &m_crc), 0);
  EXPECT_EQ(m_crc32.Update(kCheckText, 9, nullptr), 0);
  EXPECT_EQ(m_crc32.Calculate(nullptr, 1, &m_crc), 0);
  EXPECT_EQ(m_crc32.Calculate(nullptr, 0, &m_crc), 0);
  EXPECT_EQ(m_crc32.Calculate(kCheckText, 9, nullptr), 0);
  EXPECT_EQ(m_crc32.CalculateString(nullptr, &m_crc), 0);
  EXPECT_EQ(m_crc32.CalculateString("1", nullptr), 0);
  EXPECT_EQ(m_crc, kUntouched);
}

TEST_F(Crc32File, NullsFailBeforeAnythingIsOpened) {
  std::vector<std::string> opened;
  const CallPatch<struct OpenTag, int(const char*, int, int)> open(
      "msvcrt.dll", "_open", [&](const char*, int, int) { return opened.push_back("_open"), -1; });
  const CallPatch<struct StreamTag, std::FILE*(const char*, const char*)> stream(
      "msvcrt.dll", "fopen",
      [&](const char*, const char*) { return opened.push_back("fopen"), nullptr; });
  EXPECT_EQ(m_crc32.CalculateFile(nullptr, &m_crc), 0);
  EXPECT_EQ(m_crc32.CalculateFile(m_path.c_str(), nullptr), 0);
  EXPECT_EQ(m_crc32.CalculateFileStream(nullptr, &m_crc), 0);
  EXPECT_EQ(m_crc32.CalculateFileStream(m_path.c_str(), nullptr), 0);
  EXPECT_THAT(opened, IsEmpty());
}

TEST_F(Crc32File, AMissingFileFails) {
  EXPECT_EQ(m_crc32.CalculateFile(m_missing.c_str(), &m_crc), 0);
  EXPECT_EQ(m_crc32.CalculateFileStream(m_missing.c_str(), &m_crc), 0);
  EXPECT_EQ(m_crc, kUntouched);
}

TEST_F(Crc32File, AFolderFails) {
  const std::string folder = m_folder.Path().string();
  EXPECT_EQ(m_crc32.CalculateFile(folder.c_str(), &m_crc), 0);
  EXPECT_EQ(m_crc32.CalculateFileStream(folder.c_str(), &m_crc), 0);
}

// --- How files are read ---

TEST_F(Crc32File, DescriptorIsOpenedBinaryAndReadInChunksOf4096Bytes) {
  WriteBytes(m_path, ByteVector(5000));
  std::vector<unsigned> sizes;
  const CallPatch<struct OpenTag, int(const char*, int, int)> open(
      "msvcrt.dll", "_open", [&](const char* path, int flags, int mode) {
        EXPECT_EQ(flags, 0x8000);
        EXPECT_EQ(mode, 0);
        return open.CallOriginal(path, flags, mode);
      });
  const CallPatch<struct ReadTag, int(int, void*, unsigned)> read(
      "msvcrt.dll", "_read", [&](int file, void* data, unsigned size) {
        return sizes.push_back(size), read.CallOriginal(file, data, size);
      });
  EXPECT_EQ(m_crc32.CalculateFile(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, CrcByDefinition(ByteVector(5000)));
  EXPECT_EQ(sizes, std::vector<unsigned>(3, 4096));
}

TEST_F(Crc32File, StreamIsOpenedBinaryAndReadInChunksOf4096Bytes) {
  WriteBytes(m_path, ByteVector(5000));
  std::vector<std::size_t> sizes;
  const CallPatch<struct StreamTag, std::FILE*(const char*, const char*)> stream(
      "msvcrt.dll", "fopen", [&](const char* path, const char* mode) {
        EXPECT_STREQ(mode, "rb");
        return stream.CallOriginal(path, mode);
      });
  const CallPatch<struct ReadTag, std::size_t(void*, std::size_t, std::size_t, std::FILE*)> read(
      "msvcrt.dll", "fread", [&](void* data, std::size_t size, std::size_t count, std::FILE* file) {
        return sizes.push_back(size * count), read.CallOriginal(data, size, count, file);
      });
  EXPECT_EQ(m_crc32.CalculateFileStream(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, CrcByDefinition(ByteVector(5000)));
  EXPECT_EQ(sizes, std::vector<std::size_t>(3, 4096));
}

TEST_F(Crc32File, AFirstReadThatYieldsNothingGivesZeroAndSuccess) {
  WriteBytes(m_path, {1, 2, 3});
  const CallPatch<struct ReadTag, int(int, void*, unsigned)> read(
      "msvcrt.dll", "_read", [](int, void*, unsigned) { return -1; });
  EXPECT_EQ(m_crc32.CalculateFile(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, 0U);

  const CallPatch<struct StreamReadTag, std::size_t(void*, std::size_t, std::size_t, std::FILE*)>
      streamRead("msvcrt.dll", "fread",
                 [](void*, std::size_t, std::size_t, std::FILE*) { return std::size_t{0}; });
  m_crc = kUntouched;
  EXPECT_EQ(m_crc32.CalculateFileStream(m_path.c_str(), &m_crc), 1);
  EXPECT_EQ(m_crc, 0U);
}

TEST_F(Crc32File, AReadErrorEndsTheFile) {
  ByteVector bytes(5000, 0xA5);
  WriteBytes(m_path, bytes);
  int calls = 0;
  const CallPatch<struct ReadTag, int(int, void*, unsigned)> read(
      "msvcrt.dll", "_read", [&](int file, void* data, unsigned size) {
        return ++calls == 1 ? read.CallOriginal(file, data, size) : -1;
      });
  EXPECT_EQ(m_crc32.CalculateFile(m_path.c_str(), &m_crc), 1);
  bytes.resize(4096);
  EXPECT_EQ(m_crc, CrcByDefinition(bytes));
}

}  // namespace
