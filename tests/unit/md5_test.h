// What the tests of MD5 share.
#pragma once

#include "identity/md5.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
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

inline const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

inline std::string HexOf(const std::string& message) {
  Digest digest;
  EXPECT_EQ(CMd5().CalculateMD5(Bytes(message.c_str()), static_cast<std::uint32_t>(message.size()),
                                digest.bytes),
            1);
  return digest.Hex();
}

inline constexpr char kAbcDigest[] = "900150983cd24fb0d6963f7d28e17f72";
inline constexpr char kEmptyDigest[] = "d41d8cd98f00b204e9800998ecf8427e";

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
