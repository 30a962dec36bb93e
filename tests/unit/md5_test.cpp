#include "identity/md5.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "support/handle.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/support/no_memory.h"
#include "tests/unit/hash_cases.h"

// After windows.h.
#include <wincrypt.h>

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;

namespace {

struct Digest {
  unsigned char bytes[16] = {};

  std::string Hex() const {
    std::string text;
    for (const unsigned char byte : bytes) {
      char digits[3];
      std::snprintf(digits, sizeof(digits), "%02x", byte);
      text += digits;
    }
    return text;
  }
};

const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

std::string HexOf(const std::string& message) {
  Digest digest;
  EXPECT_EQ(CMd5().CalculateMD5(Bytes(message.c_str()), static_cast<std::uint32_t>(message.size()),
                                digest.bytes),
            1);
  return digest.Hex();
}

constexpr char kAbcDigest[] = "900150983cd24fb0d6963f7d28e17f72";
constexpr char kEmptyDigest[] = "d41d8cd98f00b204e9800998ecf8427e";

// A file in a folder of its own; checks at the end that nobody left a descriptor open.
class Md5File : public ::testing::Test {
 protected:
  explicit Md5File(const ByteVector& bytes = {'a', 'b', 'c'}) { WriteBytes(m_path, bytes); }
  void TearDown() override { EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree); }

  const int m_lowestFree = LowestFreeDescriptor();
  TempFolder m_folder;
  std::string m_path = m_folder.File("hashed.bin");
  std::wstring m_widePath = (m_folder.Path() / L"hashed.bin").wstring();
  std::string m_missing = m_folder.File("missing.bin");
  std::wstring m_wideMissing = (m_folder.Path() / L"missing.bin").wstring();
  CMd5 m_md5;
  Digest m_digest;
};

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

// --- Arguments ---

TEST(Md5Arguments, NullsFail) {
  CMd5 md5;
  Md5Context context{};
  Digest digest;
  const unsigned char byte = 0;
  std::uint32_t flag = 7;
  const std::uint32_t words[16] = {};

  EXPECT_EQ(md5.CalculateMD5(nullptr, 0, digest.bytes), 0);
  EXPECT_EQ(md5.CalculateMD5(&byte, 1, nullptr), 0);
  EXPECT_EQ(md5.VerifyMD5(nullptr, 0, digest.bytes, &flag), 0);
  EXPECT_EQ(md5.VerifyMD5(&byte, 1, nullptr, &flag), 0);
  EXPECT_EQ(md5.VerifyMD5(&byte, 1, digest.bytes, nullptr), 0);
  EXPECT_EQ(md5.MD5Init(nullptr), 0);
  EXPECT_EQ(md5.MD5Update(nullptr, &byte, 1), 0);
  EXPECT_EQ(md5.MD5Update(&context, nullptr, 1), 0);
  EXPECT_EQ(md5.MD5Update(&context, nullptr, 0), 0);
  EXPECT_EQ(md5.MD5Final(nullptr), 0);
  EXPECT_EQ(md5.MD5Transform(nullptr, context.state), 0);
  EXPECT_EQ(md5.MD5Transform(words, nullptr), 0);
  EXPECT_EQ(flag, 7U);
}

TEST_F(Md5File, NullsFailBeforeAnythingIsOpened) {
  std::vector<std::string> opened;
  const CallPatch<struct OpenTag, int(const char*, int, int)> open(
      "msvcrt.dll", "_open", [&](const char*, int, int) { return opened.push_back("_open"), -1; });
  const CallPatch<struct OpenWideTag, int(const wchar_t*, int, int)> openWide(
      "msvcrt.dll", "_wopen",
      [&](const wchar_t*, int, int) { return opened.push_back("_wopen"), -1; });
  const CallPatch<struct AcquireTag, BOOL WINAPI(HCRYPTPROV*, LPCSTR, LPCSTR, DWORD, DWORD)>
      acquire("ADVAPI32.dll", "CryptAcquireContextA",
              [&](HCRYPTPROV*, LPCSTR, LPCSTR, DWORD, DWORD) {
                return opened.push_back("CryptAcquireContextA"), FALSE;
              });
  std::uint32_t flag = 7;

  EXPECT_EQ(m_md5.CalculateFileMD5(nullptr, m_digest.bytes), 0);
  EXPECT_EQ(m_md5.CalculateFileMD5(m_path.c_str(), nullptr), 0);
  EXPECT_EQ(m_md5.CalculateFileMD5W(nullptr, m_digest.bytes), 0);
  EXPECT_EQ(m_md5.CalculateFileMD5W(m_widePath.c_str(), nullptr), 0);
  EXPECT_EQ(m_md5.VerifyFileMD5(nullptr, m_digest.bytes, &flag), 0);
  EXPECT_EQ(m_md5.VerifyFileMD5(m_path.c_str(), nullptr, &flag), 0);
  EXPECT_EQ(m_md5.VerifyFileMD5(m_path.c_str(), m_digest.bytes, nullptr), 0);
  EXPECT_EQ(m_md5.CryptFileMD5(nullptr, m_digest.bytes), 0);
  EXPECT_EQ(m_md5.CryptFileMD5(m_path.c_str(), nullptr), 0);
  EXPECT_EQ(m_md5.CryptFileMD5W(nullptr, m_digest.bytes), 0);
  EXPECT_EQ(m_md5.CryptFileMD5W(m_widePath.c_str(), nullptr), 0);
  EXPECT_EQ(GetFileMD5(nullptr, m_digest.bytes), 0);
  EXPECT_EQ(GetFileMD5(m_path.c_str(), nullptr), 0);
  EXPECT_EQ(GetFileMD5W(nullptr, m_digest.bytes), 0);
  EXPECT_EQ(GetFileMD5W(m_widePath.c_str(), nullptr), 0);
  EXPECT_THAT(opened, IsEmpty());
  EXPECT_EQ(flag, 7U);
}

TEST_F(Md5File, InvalidHandlesFail) {
  EXPECT_EQ(m_md5.CalculateHandleMD5(INVALID_HANDLE_VALUE, m_digest.bytes), 0);
  EXPECT_EQ(m_md5.CalculateHandleMD5(nullptr, m_digest.bytes), 0);
  const FileHandle file(CreateFileA(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  EXPECT_EQ(m_md5.CalculateHandleMD5(file.Get(), nullptr), 0);
}

// --- Verifying ---

TEST_F(Md5File, VerifyFindsEqualDigests) {
  ASSERT_EQ(m_md5.CalculateMD5(Bytes("abc"), 3, m_digest.bytes), 1);
  std::uint32_t matches = 7;
  EXPECT_EQ(m_md5.VerifyMD5(Bytes("abc"), 3, m_digest.bytes, &matches), 1);
  EXPECT_EQ(matches, 1U);
  matches = 7;
  EXPECT_EQ(m_md5.VerifyFileMD5(m_path.c_str(), m_digest.bytes, &matches), 1);
  EXPECT_EQ(matches, 1U);
}

TEST_F(Md5File, VerifyWithAWrongDigestSucceedsWithTheFlagZero) {
  ASSERT_EQ(m_md5.CalculateMD5(Bytes("abc"), 3, m_digest.bytes), 1);
  for (unsigned char& byte : m_digest.bytes) {
    byte ^= 0x80;
    std::uint32_t matches = 7;
    EXPECT_EQ(m_md5.VerifyMD5(Bytes("abc"), 3, m_digest.bytes, &matches), 1);
    EXPECT_EQ(matches, 0U);
    matches = 7;
    EXPECT_EQ(m_md5.VerifyFileMD5(m_path.c_str(), m_digest.bytes, &matches), 1);
    EXPECT_EQ(matches, 0U);
    byte ^= 0x80;
  }
}

// --- Files ---

TEST_F(Md5File, AMissingFileFailsInEveryForm) {
  std::uint32_t matches = 7;
  EXPECT_EQ(m_md5.CalculateFileMD5(m_missing.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(m_md5.CalculateFileMD5W(m_wideMissing.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(m_md5.VerifyFileMD5(m_missing.c_str(), m_digest.bytes, &matches), 0);
  EXPECT_EQ(m_md5.CryptFileMD5(m_missing.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(m_md5.CryptFileMD5W(m_wideMissing.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(GetFileMD5(m_missing.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(GetFileMD5W(m_wideMissing.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(matches, 7U);
}

TEST_F(Md5File, AnEmptyFileGivesTheDigestOfTheEmptyMessage) {
  WriteBytes(m_path, {});
  EXPECT_EQ(m_md5.CalculateFileMD5(m_path.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kEmptyDigest);
}

TEST_F(Md5File, HandleIsReadFromItsPositionAndStaysOpen) {
  WriteBytes(m_path, {'x', 'y', 'a', 'b', 'c'});
  const FileHandle file(CreateFileA(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  SetFilePointer(file.Get(), 2, nullptr, FILE_BEGIN);
  EXPECT_EQ(m_md5.CalculateHandleMD5(file.Get(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
  EXPECT_EQ(SetFilePointer(file.Get(), 0, nullptr, FILE_CURRENT), 5U);
}

TEST_F(Md5File, HandleWithoutReadAccessFails) {
  const FileHandle file(
      CreateFileA(m_path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_EQ(m_md5.CalculateHandleMD5(file.Get(), m_digest.bytes), 0);
}

TEST_F(Md5File, FilesAreOpenedBinaryAndReadInChunksOf1024Bytes) {
  WriteBytes(m_path, ByteVector(2500));
  std::vector<int> flags;
  std::vector<unsigned> sizes;
  const CallPatch<struct OpenTag, int(const char*, int, int)> open(
      "msvcrt.dll", "_open", [&](const char* path, int flag, int mode) {
        return flags.push_back(flag), open.CallOriginal(path, flag, mode);
      });
  const CallPatch<struct OpenWideTag, int(const wchar_t*, int, int)> openWide(
      "msvcrt.dll", "_wopen", [&](const wchar_t* path, int flag, int mode) {
        return flags.push_back(flag), openWide.CallOriginal(path, flag, mode);
      });
  const CallPatch<struct ReadTag, int(int, void*, unsigned)> read(
      "msvcrt.dll", "_read", [&](int file, void* data, unsigned size) {
        return sizes.push_back(size), read.CallOriginal(file, data, size);
      });
  EXPECT_EQ(m_md5.CalculateFileMD5(m_path.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_md5.CalculateFileMD5W(m_widePath.c_str(), m_digest.bytes), 1);
  EXPECT_THAT(flags, ElementsAre(0x8000, 0x8000));
  EXPECT_EQ(sizes, std::vector<unsigned>(8, 1024));
}

TEST_F(Md5File, AFailedReadFailsAndClosesTheFile) {
  WriteBytes(m_path, ByteVector(2500));
  for (const int failAt : {1, 2, 3, 4}) {
    int calls = 0;
    const CallPatch<struct ReadTag, int(int, void*, unsigned)> read(
        "msvcrt.dll", "_read", [&](int file, void* data, unsigned size) {
          return ++calls % 4 == failAt % 4 ? -1 : read.CallOriginal(file, data, size);
        });
    EXPECT_EQ(m_md5.CalculateFileMD5(m_path.c_str(), m_digest.bytes), 0);
    EXPECT_EQ(calls, failAt);
    calls = 0;
    EXPECT_EQ(m_md5.CalculateFileMD5W(m_widePath.c_str(), m_digest.bytes), 0);
    EXPECT_EQ(LowestFreeDescriptor(), m_lowestFree);
  }
}

// --- CryptoAPI ---

// Sees every call that the CryptoAPI form makes, makes one of them fail on demand, and knows what
// is still held.
class CryptoCalls {
 public:
  std::string m_failing;
  std::vector<std::string> m_calls;
  int m_held = 0;

 private:
  bool Fails(const std::string& call) {
    m_calls.push_back(call);
    return call.substr(0, call.find('(')) == m_failing;
  }
  BOOL Opened(BOOL result) {
    m_held += result != FALSE ? 1 : 0;
    return result;
  }
  BOOL Closed(const char* call) {
    m_calls.push_back(call);
    --m_held;
    return TRUE;
  }
  static std::string Hex(DWORD value) {
    char text[16];
    std::snprintf(text, sizeof(text), "%lX", value);
    return text;
  }

  CallPatch<struct AcquireTag, BOOL WINAPI(HCRYPTPROV*, LPCSTR, LPCSTR, DWORD, DWORD)> m_acquire{
      "ADVAPI32.dll", "CryptAcquireContextA",
      [this](HCRYPTPROV* provider, LPCSTR container, LPCSTR name, DWORD type, DWORD flags) {
        EXPECT_EQ(container, nullptr);
        EXPECT_EQ(name, nullptr);
        return !Fails("acquire(" + Hex(type) + " " + Hex(flags) + ")") &&
               Opened(m_acquire.CallOriginal(provider, container, name, type, flags));
      }};
  CallPatch<struct CreateHashTag, BOOL WINAPI(HCRYPTPROV, ALG_ID, HCRYPTKEY, DWORD, HCRYPTHASH*)>
      m_createHash{
          "ADVAPI32.dll", "CryptCreateHash",
          [this](HCRYPTPROV provider, ALG_ID algorithm, HCRYPTKEY key, DWORD flags,
                 HCRYPTHASH* hash) {
            EXPECT_EQ(key, 0U);
            EXPECT_EQ(flags, 0U);
            return !Fails("create(" + Hex(algorithm) + ")") &&
                   Opened(m_createHash.CallOriginal(provider, algorithm, key, flags, hash));
          }};
  CallPatch<struct CreateFileTag,
            HANDLE WINAPI(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE)>
      m_createFile{"KERNEL32.dll", "CreateFileW",
                   [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD flags, HANDLE like) {
                     EXPECT_EQ(security, nullptr);
                     EXPECT_EQ(like, nullptr);
                     if (Fails("file(" + Hex(access) + " " + Hex(share) + " " + Hex(disposition) +
                               " " + Hex(flags) + ")")) {
                       return INVALID_HANDLE_VALUE;
                     }
                     const HANDLE file = m_createFile.CallOriginal(path, access, share, security,
                                                                   disposition, flags, like);
                     Opened(file != INVALID_HANDLE_VALUE);
                     return file;
                   }};
  CallPatch<struct ReadFileTag, BOOL WINAPI(HANDLE, void*, DWORD, DWORD*, OVERLAPPED*)> m_readFile{
      "KERNEL32.dll", "ReadFile",
      [this](HANDLE file, void* data, DWORD size, DWORD* read, OVERLAPPED* overlapped) {
        return !Fails("read(" + std::to_string(size) + ")") &&
               m_readFile.CallOriginal(file, data, size, read, overlapped);
      }};
  CallPatch<struct HashDataTag, BOOL WINAPI(HCRYPTHASH, const BYTE*, DWORD, DWORD)> m_hashData{
      "ADVAPI32.dll", "CryptHashData",
      [this](HCRYPTHASH hash, const BYTE* data, DWORD size, DWORD flags) {
        EXPECT_EQ(flags, 0U);
        return !Fails("hash(" + std::to_string(size) + ")") &&
               m_hashData.CallOriginal(hash, data, size, flags);
      }};
  CallPatch<struct GetParamTag, BOOL WINAPI(HCRYPTHASH, DWORD, BYTE*, DWORD*, DWORD)> m_getParam{
      "ADVAPI32.dll", "CryptGetHashParam",
      [this](HCRYPTHASH hash, DWORD parameter, BYTE* data, DWORD* size, DWORD flags) {
        EXPECT_EQ(flags, 0U);
        return !Fails("get(" + Hex(parameter) + " " + std::to_string(*size) + ")") &&
               m_getParam.CallOriginal(hash, parameter, data, size, flags);
      }};
  CallPatch<struct CloseTag, BOOL WINAPI(HANDLE)> m_close{
      "KERNEL32.dll", "CloseHandle",
      [this](HANDLE handle) { return m_close.CallOriginal(handle) && Closed("close"); }};
  CallPatch<struct DestroyTag, BOOL WINAPI(HCRYPTHASH)> m_destroy{
      "ADVAPI32.dll", "CryptDestroyHash",
      [this](HCRYPTHASH hash) { return m_destroy.CallOriginal(hash) && Closed("destroy"); }};
  CallPatch<struct ReleaseTag, BOOL WINAPI(HCRYPTPROV, DWORD)> m_release{
      "ADVAPI32.dll", "CryptReleaseContext", [this](HCRYPTPROV provider, DWORD flags) {
        EXPECT_EQ(flags, 0U);
        return m_release.CallOriginal(provider, flags) && Closed("release");
      }};
};

TEST_F(Md5File, CryptoApiIsAskedForMd5InChunksOf1024Bytes) {
  WriteBytes(m_path, ByteVector(1500));
  const CryptoCalls calls;
  EXPECT_EQ(m_md5.CryptFileMD5W(m_widePath.c_str(), m_digest.bytes), 1);
  EXPECT_THAT(calls.m_calls,
              ElementsAre("acquire(1 F0000000)", "create(8003)", "file(80000000 1 3 8000000)",
                          "read(1024)", "hash(1024)", "read(1024)", "hash(476)", "read(1024)",
                          "get(2 16)", "close", "destroy", "release"));
}

TEST_F(Md5File, EveryCryptoApiStepThatFailsReleasesWhatWasMade) {
  for (const char* const failing : {"acquire", "create", "file", "read", "hash", "get"}) {
    CryptoCalls calls;
    calls.m_failing = failing;
    EXPECT_EQ(m_md5.CryptFileMD5W(m_widePath.c_str(), m_digest.bytes), 0) << failing;
    EXPECT_EQ(m_md5.CryptFileMD5(m_path.c_str(), m_digest.bytes), 0) << failing;
    EXPECT_EQ(calls.m_held, 0) << failing;
  }
}

TEST_F(Md5File, HandleFormFailsWithItsReadAndClosesNothing) {
  const FileHandle file(CreateFileA(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  CryptoCalls calls;
  calls.m_failing = "read";
  EXPECT_EQ(m_md5.CalculateHandleMD5(file.Get(), m_digest.bytes), 0);
  EXPECT_THAT(calls.m_calls, ElementsAre("read(1024)"));
}

TEST_F(Md5File, NarrowPathIsConvertedWithTheAnsiCodePage) {
  // 0 stands for a call that is not failed.
  for (const int failAt : {0, 1, 2}) {
    std::vector<int> sizes;
    const CallPatch<struct ConvertTag, int WINAPI(UINT, DWORD, LPCSTR, int, LPWSTR, int)> convert(
        "KERNEL32.dll", "MultiByteToWideChar",
        [&](UINT codePage, DWORD flags, LPCSTR text, int length, LPWSTR wide, int size) {
          EXPECT_EQ(codePage, 0U);
          EXPECT_EQ(flags, 1U);
          EXPECT_EQ(text, m_path.c_str());
          EXPECT_EQ(length, -1);
          sizes.push_back(size);
          if (static_cast<int>(sizes.size()) == failAt) {
            SetLastError(ERROR_NO_UNICODE_TRANSLATION);
            return 0;
          }
          return convert.CallOriginal(codePage, flags, text, length, wide, size);
        });
    EXPECT_EQ(m_md5.CryptFileMD5(m_path.c_str(), m_digest.bytes), failAt == 0 ? 1 : 0);
    if (failAt != 1) {
      EXPECT_THAT(sizes, ElementsAre(0, static_cast<int>(m_path.size()) + 1));
    }
  }
}

TEST_F(Md5File, NarrowPathFailsWithoutMemoryForItsWideForm) {
  const NoMemoryFor noMemory((m_path.size() + 1) * sizeof(wchar_t));
  EXPECT_EQ(m_md5.CryptFileMD5(m_path.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(GetFileMD5(m_path.c_str(), m_digest.bytes), 1) << "which needs none";
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
}

// --- The free functions ---

TEST_F(Md5File, FileFunctionsComputeThemselvesWhenCryptoApiFails) {
  CryptoCalls calls;
  calls.m_failing = "acquire";
  EXPECT_EQ(GetFileMD5(m_path.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
  m_digest = {};
  EXPECT_EQ(GetFileMD5W(m_widePath.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
}

TEST_F(Md5File, FileFunctionsPreferCryptoApi) {
  std::vector<std::string> opened;
  const CallPatch<struct OpenTag, int(const char*, int, int)> open(
      "msvcrt.dll", "_open", [&](const char*, int, int) { return opened.push_back("_open"), -1; });
  const CallPatch<struct OpenWideTag, int(const wchar_t*, int, int)> openWide(
      "msvcrt.dll", "_wopen",
      [&](const wchar_t*, int, int) { return opened.push_back("_wopen"), -1; });
  const CryptoCalls calls;
  EXPECT_EQ(GetFileMD5(m_path.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
  EXPECT_EQ(std::ranges::count(calls.m_calls, "acquire(1 F0000000)"), 1);
  m_digest = {};
  EXPECT_EQ(GetFileMD5W(m_widePath.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
  EXPECT_EQ(std::ranges::count(calls.m_calls, "acquire(1 F0000000)"), 2);
  EXPECT_THAT(opened, IsEmpty());
}

TEST_F(Md5File, AFileThatSomebodyWritesIsHashedWithoutCryptoApi) {
  const FileHandle writer(CreateFileA(m_path.c_str(), GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                      nullptr));
  EXPECT_EQ(m_md5.CryptFileMD5(m_path.c_str(), m_digest.bytes), 0);
  EXPECT_EQ(GetFileMD5(m_path.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
}

}  // namespace
