// Files of a fixed pattern with digests that other programs computed: hash_cases.py prints them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>

#include "tests/support/files.h"

struct HashCase {
  std::size_t size;
  const char* md5;
  std::uint32_t crc32;

  ByteVector Bytes() const {
    ByteVector bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
      bytes[i] = static_cast<unsigned char>(i * 31 + (i >> 8) * 7 + 11);
    }
    return bytes;
  }
};

inline std::ostream& operator<<(std::ostream& out, const HashCase& hashCase) {
  return out << hashCase.size << " bytes";
}

// Around the sizes of a block, of its padding and of the chunks in which files are read.
constexpr HashCase kHashCases[] = {
    {0, "d41d8cd98f00b204e9800998ecf8427e", 0x00000000},
    {1, "13c8ffd977013703a701cf8e11deac65", 0x45D03605},
    {55, "3f59cf692ca341c18a52628d247f122f", 0xC8596F18},
    {56, "2c91d6a13bc92b874679906c2658be7b", 0x0DAA5921},
    {63, "5d181cbe8e16a2cd125849da7ef2eec7", 0x6BB17F93},
    {64, "febf22ec40ae86478ee4ed145535892e", 0x640F73CF},
    {65, "03e9db4ac9ddc8cab447b6eb36577595", 0xD50B24E7},
    {1023, "947a06a70dd0832d37e85854e388a75e", 0xAE29BF53},
    {1024, "d3a4a6c8bb66f9ddd0cc2ca4240fd8bc", 0x57C9F6EA},
    {1025, "5239875dad6198b4fdd30ef89e625e57", 0x37809876},
    {4095, "15fd5a8c6eb13ac552b3ee2b82db4898", 0x99D10DFE},
    {4096, "fb926d92a7dae31ca5d72aed0284af17", 0x939F44E0},
    {4097, "96db69667ab28b3a771713150888007f", 0xB54C3A05},
    {1000003, "e2ae74ff5e7bfb911b3b293ef6b768a6", 0xE4C1BF69},
};
