#include "identity/md5.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "tests/unit/md5_test.h"

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ValuesIn;

namespace {

// --- Known answers ---

TEST(Md5, Rfc1321Suite) {
  EXPECT_EQ(HexOf(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(HexOf("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(HexOf("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(HexOf("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(HexOf("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(HexOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(HexOf("1234567890123456789012345678901234567890"
                  "1234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, ThreeBytesAbcGiveTheRfcDigest) { EXPECT_EQ(HexOf("abc"), kAbcDigest); }

TEST(Md5, BufferOfNoBytesGivesTheDigestOfTheEmptyMessage) {
  EXPECT_EQ(HexOf(std::string()), kEmptyDigest);
}

class Md5Size : public Md5File, public ::testing::WithParamInterface<HashCase> {
 protected:
  Md5Size() : Md5File(GetParam().Bytes()) {}

  // What a form of the computation answered, as text.
  std::string Outcome(int result) {
    const std::string text = m_digest.Hex();
    m_digest = {};
    return result == 1 ? text : "failed";
  }
};

TEST_P(Md5Size, EveryFormGivesTheDigestThatOtherProgramsGive) {
  const std::string expected = GetParam().md5;
  // A byte more, so that a buffer of no bytes has an address too.
  ByteVector bytes = GetParam().Bytes();
  const auto size = static_cast<std::uint32_t>(bytes.size());
  bytes.push_back(0);

  EXPECT_EQ(Outcome(m_md5.CalculateMD5(bytes.data(), size, m_digest.bytes)), expected);
  EXPECT_EQ(Outcome(m_md5.CalculateFileMD5(m_path.c_str(), m_digest.bytes)), expected);
  EXPECT_EQ(Outcome(m_md5.CalculateFileMD5W(m_widePath.c_str(), m_digest.bytes)), expected);
  EXPECT_EQ(Outcome(m_md5.CryptFileMD5(m_path.c_str(), m_digest.bytes)), expected);
  EXPECT_EQ(Outcome(m_md5.CryptFileMD5W(m_widePath.c_str(), m_digest.bytes)), expected);
  EXPECT_EQ(Outcome(GetFileMD5(m_path.c_str(), m_digest.bytes)), expected);
  EXPECT_EQ(Outcome(GetFileMD5W(m_widePath.c_str(), m_digest.bytes)), expected);

  const FileHandle file(CreateFileA(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  EXPECT_EQ(Outcome(m_md5.CalculateHandleMD5(file.Get(), m_digest.bytes)), expected);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Md5Size, ValuesIn(kHashCases),
                         [](const auto& test) { return std::to_string(test.param.size); });

// --- The four steps ---

TEST(Md5Steps, SplittingTheInputChangesNothing) {
  const ByteVector bytes = HashCase{200, nullptr, 0}.Bytes();
  CMd5 md5;
  Digest whole;
  ASSERT_EQ(md5.CalculateMD5(bytes.data(), 200, whole.bytes), 1);
  for (std::uint32_t first = 0; first <= 200; ++first) {
    for (const std::uint32_t second : {0U, 1U, 63U, 64U, 65U}) {
      if (first + second > 200) {
        continue;
      }
      Md5Context context{};
      md5.MD5Init(&context);
      EXPECT_EQ(md5.MD5Update(&context, bytes.data(), first), 1);
      EXPECT_EQ(md5.MD5Update(&context, bytes.data() + first, second), 1);
      EXPECT_EQ(md5.MD5Update(&context, bytes.data() + first + second, 200 - first - second), 1);
      EXPECT_EQ(md5.MD5Final(&context), 1);
      ASSERT_EQ(std::memcmp(context.digest, whole.bytes, 16), 0) << first << " + " << second;
    }
  }
}

TEST(Md5Steps, TheMessageMayLieAtAnyAddress) {
  for (std::uint32_t length = 0; length <= 200; ++length) {
    const ByteVector message = HashCase{length + 1, nullptr, 0}.Bytes();
    CMd5 md5;
    Digest expected;
    ASSERT_EQ(md5.CalculateMD5(message.data(), length, expected.bytes), 1);
    for (std::size_t shift = 1; shift < 8; ++shift) {
      ByteVector shifted(shift + message.size());
      std::copy(message.begin(), message.end(), &shifted[shift]);
      Digest digest;
      ASSERT_EQ(md5.CalculateMD5(&shifted[shift], length, digest.bytes), 1);
      ASSERT_EQ(digest.Hex(), expected.Hex()) << length << " bytes, shifted by " << shift;
    }
  }
}

TEST(Md5Steps, InitSetsTheChainingValuesAndClearsTheCount) {
  Md5Context context{};
  context.count[0] = 1;
  context.count[1] = 2;
  EXPECT_EQ(CMd5().MD5Init(&context), 1);
  EXPECT_THAT(context.count, Each(0U));
  EXPECT_THAT(context.state, ElementsAre(0x67452301U, 0xEFCDAB89U, 0x98BADCFEU, 0x10325476U));
}

TEST(Md5Steps, UpdateKeepsUnfinishedBlocksAndCountsBits) {
  CMd5 md5;
  Md5Context context{};
  md5.MD5Init(&context);
  EXPECT_EQ(md5.MD5Update(&context, Bytes("abc"), 3), 1);
  EXPECT_THAT(context.count, ElementsAre(24U, 0U));
  EXPECT_EQ(std::memcmp(context.buffer, "abc", 4), 0);
  EXPECT_EQ(context.state[0], 0x67452301U) << "nothing to transform yet";
}

TEST(Md5Steps, BitCountCarriesIntoTheHighWord) {
  CMd5 md5;
  Md5Context context{};
  md5.MD5Init(&context);
  context.count[0] = 0xFFFFFFF8;
  EXPECT_EQ(md5.MD5Update(&context, Bytes("a"), 1), 1);
  EXPECT_THAT(context.count, ElementsAre(0U, 1U));
}

// Stands in for the transform: records what it is given and fails at a chosen call.
class RecordingMd5 : public CMd5 {
 public:
  int MD5Transform(const std::uint32_t* words, std::uint32_t* state) override {
    m_blocks.emplace_back(words, words + 16);
    m_states.push_back(state);
    return static_cast<int>(m_blocks.size()) != m_failAt ? CMd5::MD5Transform(words, state) : 0;
  }

  int m_failAt = 0;
  std::vector<std::vector<std::uint32_t>> m_blocks;
  std::vector<std::uint32_t*> m_states;
};

TEST(Md5Steps, LengthsOfHalfAGigabyteCountInTheHighWord) {
  // The transform stops the update at the first block, before bytes are needed that are not there.
  RecordingMd5 md5;
  md5.m_failAt = 1;
  const ByteVector block(64);
  Md5Context context{};
  md5.MD5Init(&context);
  EXPECT_EQ(md5.MD5Update(&context, block.data(), 0xA0000000), 0);
  EXPECT_THAT(context.count, ElementsAre(0U, 5U));
}

TEST(Md5Steps, TransformIsAVirtualStepThatTakesWordsThenState) {
  ByteVector bytes(64 + 3);
  std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
  RecordingMd5 md5;
  Md5Context context{};
  md5.MD5Init(&context);
  EXPECT_EQ(md5.MD5Update(&context, bytes.data(), 67), 1);
  ASSERT_EQ(md5.m_blocks.size(), 1U);
  EXPECT_EQ(md5.m_blocks[0][0], 0x04030201U);
  EXPECT_EQ(md5.m_blocks[0][15], 0x403F3E3DU);

  EXPECT_EQ(md5.MD5Final(&context), 1);
  EXPECT_THAT(md5.m_states, ElementsAre(context.state, context.state));
  ASSERT_EQ(md5.m_blocks.size(), 2U);
  EXPECT_THAT(md5.m_blocks[1],
              ElementsAre(0x80434241U, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 67U * 8, 0U));
}

TEST(Md5Steps, PaddingOf56BytesFillsABlockOfItsOwn) {
  const ByteVector bytes(56, 0xFF);
  RecordingMd5 md5;
  Digest digest;
  EXPECT_EQ(md5.CalculateMD5(bytes.data(), 56, digest.bytes), 1);
  ASSERT_EQ(md5.m_blocks.size(), 2U);
  EXPECT_EQ(md5.m_blocks[0][14], 0x00000080U);
  EXPECT_THAT(md5.m_blocks[1], ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 56U * 8, 0U));
}

// The padding is no step of its own: it runs through the update as the message does.
TEST(Md5Steps, PaddingRunsThroughTheVirtualUpdate) {
  class Updates : public CMd5 {
   public:
    int MD5Update(Md5Context* context, const unsigned char* data, std::uint32_t length) override {
      m_updates.emplace_back(data, data + length);
      return static_cast<int>(m_updates.size()) != m_failAt ? CMd5::MD5Update(context, data, length)
                                                            : 0;
    }

    int m_failAt = 0;
    std::vector<ByteVector> m_updates;
  };
  struct Case {
    std::uint32_t size;
    std::size_t padding;
  };
  for (const Case& message : {Case{0, 56}, {3, 53}, {55, 1}, {56, 64}, {63, 57}, {64, 56}}) {
    const ByteVector bytes(64);
    Updates md5;
    Digest digest;
    EXPECT_EQ(md5.CalculateMD5(bytes.data(), message.size, digest.bytes), 1) << message.size;
    ASSERT_EQ(md5.m_updates.size(), 2U) << message.size;
    ByteVector padding(message.padding);
    padding[0] = 0x80;
    EXPECT_EQ(md5.m_updates[1], padding) << message.size;

    Updates failing;
    failing.m_failAt = 2;
    EXPECT_EQ(failing.CalculateMD5(bytes.data(), message.size, digest.bytes), 0) << message.size;
  }
}

TEST(Md5Steps, CountEntersTheLastBlockLowWordFirst) {
  RecordingMd5 md5;
  Md5Context context{};
  md5.MD5Init(&context);
  context.count[0] = 0xFFFFFE00;
  context.count[1] = 7;
  EXPECT_EQ(md5.MD5Final(&context), 1);
  ASSERT_EQ(md5.m_blocks.size(), 1U);
  EXPECT_EQ(md5.m_blocks[0][14], 0xFFFFFE00U);
  EXPECT_EQ(md5.m_blocks[0][15], 7U);
}

TEST(Md5Steps, AFailedTransformFailsEveryOperation) {
  const ByteVector bytes(130);
  // Message of 130 bytes: two blocks in the update, one in the final step.
  for (const int failAt : {1, 2, 3}) {
    RecordingMd5 md5;
    md5.m_failAt = failAt;
    Digest digest;
    EXPECT_EQ(md5.CalculateMD5(bytes.data(), 130, digest.bytes), 0) << failAt;
    EXPECT_EQ(digest.Hex(), std::string(32, '0'));
  }
  // A buffer that an update has to complete.
  RecordingMd5 md5;
  md5.m_failAt = 1;
  Md5Context context{};
  md5.MD5Init(&context);
  EXPECT_EQ(md5.MD5Update(&context, bytes.data(), 60), 1);
  EXPECT_EQ(md5.MD5Update(&context, bytes.data(), 4), 0);
  // Padding that completes a block.
  md5 = RecordingMd5();
  md5.m_failAt = 1;
  md5.MD5Init(&context);
  EXPECT_EQ(md5.MD5Update(&context, bytes.data(), 60), 1);
  EXPECT_EQ(md5.MD5Final(&context), 0);
}

TEST_F(Md5File, AFailedTransformFailsTheFileForms) {
  for (const int failAt : {1, 2}) {
    WriteBytes(m_path, ByteVector(64));
    RecordingMd5 md5;
    md5.m_failAt = failAt;
    EXPECT_EQ(md5.CalculateFileMD5(m_path.c_str(), m_digest.bytes), 0) << failAt;
  }
}

// The buffer form runs the other steps as virtual operations too.
TEST(Md5Steps, BufferFormRunsInitUpdateAndFinal) {
  class Steps : public CMd5 {
   public:
    int MD5Init(Md5Context* context) override {
      m_steps.push_back("init");
      m_wasClear = std::string(reinterpret_cast<const char*>(context), sizeof(*context)) ==
                   std::string(104, '\0');
      return Answer("init");
    }
    int MD5Update(Md5Context*, const unsigned char*, std::uint32_t length) override {
      m_steps.push_back("update " + std::to_string(length));
      return Answer("update");
    }
    int MD5Final(Md5Context*) override {
      m_steps.push_back("final");
      return Answer("final");
    }
    int Answer(const std::string& step) const { return step != m_failing ? 1 : 0; }

    std::string m_failing;
    bool m_wasClear = false;
    std::vector<std::string> m_steps;
  };
  Digest digest;
  const ByteVector bytes(100);
  Steps all;
  EXPECT_EQ(all.CalculateMD5(bytes.data(), 100, digest.bytes), 1);
  EXPECT_THAT(all.m_steps, ElementsAre("init", "update 100", "final"));
  EXPECT_TRUE(all.m_wasClear);
  for (const char* const failing : {"init", "update", "final"}) {
    Steps steps;
    steps.m_failing = failing;
    EXPECT_EQ(steps.CalculateMD5(bytes.data(), 100, digest.bytes), 0) << failing;
  }
}

// Other modules may call an IMd5 by the place of an operation in its table.
TEST(Md5Steps, OperationsStandInTheTableInTheirPublishedOrder) {
  class Numbered : public CMd5 {
   public:
    int CalculateFileMD5(const char*, unsigned char*) override { return 0; }
    int CalculateMD5(const unsigned char*, std::uint32_t, unsigned char*) override { return 1; }
    int VerifyFileMD5(const char*, const unsigned char*, std::uint32_t*) override { return 2; }
    int VerifyMD5(const unsigned char*, std::uint32_t, const unsigned char*,
                  std::uint32_t*) override {
      return 3;
    }
    int MD5Init(Md5Context*) override { return 4; }
    int MD5Update(Md5Context*, const unsigned char*, std::uint32_t) override { return 5; }
    int MD5Final(Md5Context*) override { return 6; }
    int MD5Transform(const std::uint32_t*, std::uint32_t*) override { return 7; }
  };
  using Operation = int(IMd5*, void*, void*, void*, void*);
  Numbered numbered;
  IMd5* const object = &numbered;
  Operation** table = nullptr;
  std::memcpy(&table, object, sizeof(table));
  for (int slot = 0; slot < 8; ++slot) {
    EXPECT_EQ(table[slot](object, nullptr, nullptr, nullptr, nullptr), slot);
  }
}

}  // namespace
