// MD5 (RFC 1321) of buffers and files. Operations give 1 for success and 0 for failure, and neither
// trace nor throw. A digest is 16 bytes; file paths are null-terminated. Objects hold nothing and
// may be used from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/windows_api.h"

constexpr std::uint32_t kMd5DigestSize = 16;
constexpr std::uint32_t kMd5BlockSize = 64;

// The state of one computation. The caller fills it with zeros before MD5Init.
struct Md5Context {
  std::uint32_t count[2];                // bits so far, modulo 2^64, low word first
  unsigned char digest[kMd5DigestSize];  // the result, filled in by MD5Final
  unsigned char buffer[kMd5BlockSize];   // bytes not transformed yet
  std::uint32_t state[4];                // the chaining values A, B, C, D
};

static_assert(offsetof(Md5Context, count) == 0);
static_assert(offsetof(Md5Context, digest) == 8);
static_assert(offsetof(Md5Context, buffer) == 24);
static_assert(offsetof(Md5Context, state) == 88);
static_assert(sizeof(Md5Context) == 104);

class IMd5 {
 public:
  // The digest of a file's bytes. 0 for a null argument or a file that cannot be opened or read.
  virtual int CalculateFileMD5(const char* path, unsigned char* digest) = 0;

  // The digest of `length` bytes. 0 for a null argument, even when the length is 0.
  virtual int CalculateMD5(const unsigned char* data, std::uint32_t length,
                           unsigned char* digest) = 0;

  // Compare with the 16 bytes of `expected`: `*matches` becomes 1 when all are equal, else 0. The
  // result says whether the digest could be computed; when not, `*matches` stays as it was.
  virtual int VerifyFileMD5(const char* path, const unsigned char* expected,
                            std::uint32_t* matches) = 0;
  virtual int VerifyMD5(const unsigned char* data, std::uint32_t length,
                        const unsigned char* expected, std::uint32_t* matches) = 0;

  // The four steps: begin, take in bytes (any number of times), finish. 0 for a null argument or
  // when a transform fails.
  virtual int MD5Init(Md5Context* context) = 0;
  virtual int MD5Update(Md5Context* context, const unsigned char* data, std::uint32_t length) = 0;
  virtual int MD5Final(Md5Context* context) = 0;

  // Takes the 16 words of one block into the four chaining values. 0 for a null argument.
  virtual int MD5Transform(const std::uint32_t* words, std::uint32_t* state) = 0;

 protected:
  ~IMd5() = default;
};

class CMd5 : public IMd5 {
 public:
  int CalculateFileMD5(const char* path, unsigned char* digest) override;
  int CalculateMD5(const unsigned char* data, std::uint32_t length, unsigned char* digest) override;
  int VerifyFileMD5(const char* path, const unsigned char* expected,
                    std::uint32_t* matches) override;
  int VerifyMD5(const unsigned char* data, std::uint32_t length, const unsigned char* expected,
                std::uint32_t* matches) override;
  int MD5Init(Md5Context* context) override;
  int MD5Update(Md5Context* context, const unsigned char* data, std::uint32_t length) override;
  int MD5Final(Md5Context* context) override;
  int MD5Transform(const std::uint32_t* words, std::uint32_t* state) override;

  // After the eight operations, so that their places in the table stay as IMd5 has them.
  virtual ~CMd5() = default;

  int CalculateFileMD5W(const wchar_t* path, unsigned char* digest);

  // Hashes from the handle's current position to the end. The handle stays the caller's.
  int CalculateHandleMD5(HANDLE file, unsigned char* digest);

  // The same digests through CryptoAPI. The file may be shared with readers only.
  int CryptFileMD5W(const wchar_t* path, unsigned char* digest);
  int CryptFileMD5(const char* path, unsigned char* digest);
};

// The digest of a file: through CryptoAPI or, when that fails, through CMd5's own computation.
int GetFileMD5W(const wchar_t* path, unsigned char* digest);
int GetFileMD5(const char* path, unsigned char* digest);
