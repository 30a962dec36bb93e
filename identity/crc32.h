// CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320). Operations give 1 for success and 0 for
// failure, and neither trace nor throw. Null arguments give 0. May be used from any thread.
#pragma once

#include <cstdint>

class CCrc32 {
 public:
  // Takes `length` bytes into the running value `*crc`, which starts as 0xFFFFFFFF and is inverted
  // at the end to give the usual CRC-32; both are the caller's business. A length below 1 leaves it
  // unchanged.
  int Update(const unsigned char* data, int length, std::uint32_t* crc) const;

  // A buffer. The result is NOT inverted: it is the complement of what the forms below give for the
  // same bytes, and 0xFFFFFFFF for a length below 1.
  int Calculate(const unsigned char* data, int length, std::uint32_t* crc) const;

  // A text without its terminator. Inverted; 0 for an empty text.
  int CalculateString(const char* text, std::uint32_t* crc) const;

  // A file, read through a descriptor or a stream. Inverted; 0 for an empty file. Fail when the
  // file cannot be opened; a read error counts as the end of the file.
  int CalculateFile(const char* path, std::uint32_t* crc) const;
  int CalculateFileStream(const char* path, std::uint32_t* crc) const;
};
