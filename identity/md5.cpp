#include "identity/md5.h"

// wincrypt.h reads the types of windows.h.
#include <wincrypt.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "identity/crtfile.h"
#include "support/textconv.h"

namespace {

constexpr std::uint32_t kBlockWords = 16;

// Files are hashed in chunks of this size.
constexpr std::uint32_t kFileChunkSize = 1024;

// A block is padded up to here; the bit count takes the rest.
constexpr std::uint32_t kPaddedSize = 56;

// The parts of 2^32 that abs(sin(i + 1)) makes, one for each of the 64 steps.
constexpr std::uint32_t kSines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391,
};

// How far each step of a round rotates; the four repeat.
constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

struct CryptProviderTraits {
  using Type = HCRYPTPROV;
  static Type Invalid() noexcept { return 0; }
  static void Close(Type provider) noexcept { CryptReleaseContext(provider, 0); }
};
using CryptProvider = UniqueHandle<CryptProviderTraits>;

struct CryptHashTraits {
  using Type = HCRYPTHASH;
  static Type Invalid() noexcept { return 0; }
  static void Close(Type hash) noexcept { CryptDestroyHash(hash); }
};
using CryptHash = UniqueHandle<CryptHashTraits>;

// The words of a block. They lie in memory as this processor holds them: low byte first.
static_assert(std::endian::native == std::endian::little);

void DecodeBlock(const unsigned char* block, std::uint32_t (&words)[kBlockWords]) noexcept {
  static_assert(sizeof(words) == kMd5BlockSize);
  std::memcpy(words, block, sizeof(words));
}

// One of the 64 steps on the chaining values A, B, C, D, of which each step changes another. What
// depends on the step alone is settled when compiling. The value that the step before this one has
// changed enters as late as it can, because everything waits for it: the second round adds the two
// parts of its selection, which have no bit in common, instead of joining them.
template <std::uint32_t kStep>
void Step(const std::uint32_t* words, std::uint32_t (&values)[4]) noexcept {
  constexpr std::uint32_t kRound = kStep / 16;
  constexpr std::uint32_t kFactors[4] = {1, 5, 3, 7};
  constexpr std::uint32_t kOffsets[4] = {0, 1, 5, 0};
  constexpr std::uint32_t kWord = (kFactors[kRound] * kStep + kOffsets[kRound]) % kBlockWords;
  std::uint32_t& a = values[(64 - kStep) % 4];
  const std::uint32_t b = values[(65 - kStep) % 4];
  const std::uint32_t c = values[(66 - kStep) % 4];
  const std::uint32_t d = values[(67 - kStep) % 4];
  std::uint32_t sum = a + words[kWord] + kSines[kStep];
  if constexpr (kRound == 0) {
    sum += d ^ (b & (c ^ d));
  } else if constexpr (kRound == 1) {
    sum += c & ~d;
    sum += b & d;
  } else if constexpr (kRound == 2) {
    sum += b ^ (c ^ d);
  } else {
    sum += c ^ (b | ~d);
  }
  a = b + std::rotl(sum, kShifts[kRound][kStep % 4]);
}

template <std::uint32_t... kSteps>
void AllSteps(const std::uint32_t* words, std::uint32_t (&values)[4],
              std::integer_sequence<std::uint32_t, kSteps...> /*steps*/) noexcept {
  (Step<kSteps>(words, values), ...);
}

void EncodeDigest(const std::uint32_t (&state)[4], unsigned char* digest) noexcept {
  for (std::uint32_t i = 0; i < kMd5DigestSize; ++i) {
    digest[i] = static_cast<unsigned char>(state[i / 4] >> (8 * (i % 4)));
  }
}

// Bytes that wait in the buffer for their block to fill up.
std::uint32_t BufferedBytes(const Md5Context& context) noexcept {
  return context.count[0] / 8 % kMd5BlockSize;
}

void AddToCount(Md5Context& context, std::uint32_t bytes) noexcept {
  const std::uint32_t low = context.count[0] + (bytes << 3);
  context.count[1] += (bytes >> 29) + (low < context.count[0] ? 1 : 0);
  context.count[0] = low;
}

int TransformBlock(IMd5& md5, Md5Context& context, const unsigned char* block) {
  std::uint32_t words[kBlockWords];
  DecodeBlock(block, words);
  return md5.MD5Transform(words, context.state);
}

// Hashes what `read` delivers: it fills a chunk and returns the number of bytes, 0 at the end, less
// on failure.
template <typename Read>
int HashChunks(IMd5& md5, Read read, unsigned char* digest) {
  Md5Context context{};
  if (md5.MD5Init(&context) == 0) {
    return 0;
  }
  unsigned char chunk[kFileChunkSize];
  int length;
  while ((length = read(chunk)) > 0) {
    if (md5.MD5Update(&context, chunk, static_cast<std::uint32_t>(length)) == 0) {
      return 0;
    }
  }
  if (length < 0 || md5.MD5Final(&context) == 0) {
    return 0;
  }
  std::memcpy(digest, context.digest, kMd5DigestSize);
  return 1;
}

int HashDescriptor(IMd5& md5, const FileDescriptor& file, unsigned char* digest) {
  const auto read = [&file](unsigned char* chunk) {
    return _read(file.Get(), chunk, kFileChunkSize);
  };
  return file ? HashChunks(md5, read, digest) : 0;
}

// As _read: the number of bytes, 0 at the end, -1 on failure.
int ReadChunk(HANDLE file, unsigned char* chunk) noexcept {
  DWORD length = 0;
  return ReadFile(file, chunk, kFileChunkSize, &length, nullptr) != FALSE ? static_cast<int>(length)
                                                                          : -1;
}

std::uint32_t DigestsMatch(const unsigned char* left, const unsigned char* right) noexcept {
  return std::equal(left, left + kMd5DigestSize, right) ? 1 : 0;
}

}  // namespace

int CMd5::CalculateFileMD5(const char* path, unsigned char* digest) {
  if (path == nullptr || digest == nullptr) {
    return 0;
  }
  return HashDescriptor(*this, FileDescriptor(_open(path, _O_BINARY)), digest);
}

int CMd5::CalculateFileMD5W(const wchar_t* path, unsigned char* digest) {
  if (path == nullptr || digest == nullptr) {
    return 0;
  }
  return HashDescriptor(*this, FileDescriptor(_wopen(path, _O_BINARY)), digest);
}

int CMd5::CalculateHandleMD5(HANDLE file, unsigned char* digest) {
  if (file == nullptr || file == INVALID_HANDLE_VALUE || digest == nullptr) {
    return 0;
  }
  return HashChunks(
      *this, [file](unsigned char* chunk) { return ReadChunk(file, chunk); }, digest);
}

int CMd5::CalculateMD5(const unsigned char* data, std::uint32_t length, unsigned char* digest) {
  if (data == nullptr || digest == nullptr) {
    return 0;
  }
  Md5Context context{};
  if (MD5Init(&context) == 0 || MD5Update(&context, data, length) == 0 || MD5Final(&context) == 0) {
    return 0;
  }
  std::memcpy(digest, context.digest, kMd5DigestSize);
  return 1;
}

int CMd5::VerifyFileMD5(const char* path, const unsigned char* expected, std::uint32_t* matches) {
  if (path == nullptr || expected == nullptr || matches == nullptr) {
    return 0;
  }
  unsigned char digest[kMd5DigestSize];
  if (CalculateFileMD5(path, digest) == 0) {
    return 0;
  }
  *matches = DigestsMatch(digest, expected);
  return 1;
}

int CMd5::VerifyMD5(const unsigned char* data, std::uint32_t length, const unsigned char* expected,
                    std::uint32_t* matches) {
  if (data == nullptr || expected == nullptr || matches == nullptr) {
    return 0;
  }
  unsigned char digest[kMd5DigestSize];
  if (CalculateMD5(data, length, digest) == 0) {
    return 0;
  }
  *matches = DigestsMatch(digest, expected);
  return 1;
}

int CMd5::MD5Init(Md5Context* context) {
  if (context == nullptr) {
    return 0;
  }
  context->count[0] = 0;
  context->count[1] = 0;
  context->state[0] = 0x67452301;
  context->state[1] = 0xEFCDAB89;
  context->state[2] = 0x98BADCFE;
  context->state[3] = 0x10325476;
  return 1;
}

int CMd5::MD5Update(Md5Context* context, const unsigned char* data, std::uint32_t length) {
  if (context == nullptr || data == nullptr) {
    return 0;
  }
  std::uint32_t used = BufferedBytes(*context);
  AddToCount(*context, length);

  std::uint32_t taken = 0;
  if (used + std::uint64_t{length} >= kMd5BlockSize) {
    if (used > 0) {
      taken = kMd5BlockSize - used;
      std::memcpy(context->buffer + used, data, taken);
      used = 0;
      if (TransformBlock(*this, *context, context->buffer) == 0) {
        return 0;
      }
    }
    for (; length - taken >= kMd5BlockSize; taken += kMd5BlockSize) {
      if (TransformBlock(*this, *context, data + taken) == 0) {
        return 0;
      }
    }
  }
  std::memcpy(context->buffer + used, data + taken, length - taken);
  return 1;
}

int CMd5::MD5Final(Md5Context* context) {
  static constexpr unsigned char kPadding[kMd5BlockSize] = {0x80};
  if (context == nullptr) {
    return 0;
  }
  // The count of the message alone: padding runs through MD5Update and is counted too.
  const std::uint32_t count[2] = {context->count[0], context->count[1]};
  const std::uint32_t used = BufferedBytes(*context);
  const std::uint32_t end = used < kPaddedSize ? kPaddedSize : kMd5BlockSize + kPaddedSize;
  if (MD5Update(context, kPadding, end - used) == 0) {
    return 0;
  }
  std::uint32_t words[kBlockWords];
  DecodeBlock(context->buffer, words);
  words[14] = count[0];
  words[15] = count[1];
  if (MD5Transform(words, context->state) == 0) {
    return 0;
  }
  EncodeDigest(context->state, context->digest);
  return 1;
}

int CMd5::MD5Transform(const std::uint32_t* words, std::uint32_t* state) {
  if (words == nullptr || state == nullptr) {
    return 0;
  }
  std::uint32_t values[4] = {state[0], state[1], state[2], state[3]};
  AllSteps(words, values, std::make_integer_sequence<std::uint32_t, 64>());
  for (std::size_t i = 0; i < 4; ++i) {
    state[i] += values[i];
  }
  return 1;
}

int CMd5::CryptFileMD5W(const wchar_t* path, unsigned char* digest) {
  if (path == nullptr || digest == nullptr) {
    return 0;
  }
  CryptProvider provider;
  if (!CryptAcquireContextA(provider.Receive(), nullptr, nullptr, PROV_RSA_FULL,
                            CRYPT_VERIFYCONTEXT)) {
    return 0;
  }
  CryptHash hash;
  if (!CryptCreateHash(provider.Get(), CALG_MD5, 0, 0, hash.Receive())) {
    return 0;
  }
  const FileHandle file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) {
    return 0;
  }
  unsigned char chunk[kFileChunkSize];
  int length;
  while ((length = ReadChunk(file.Get(), chunk)) > 0) {
    if (!CryptHashData(hash.Get(), chunk, static_cast<DWORD>(length), 0)) {
      return 0;
    }
  }
  DWORD digestSize = kMd5DigestSize;
  return length == 0 && CryptGetHashParam(hash.Get(), HP_HASHVAL, digest, &digestSize, 0) ? 1 : 0;
}

int CMd5::CryptFileMD5(const char* path, unsigned char* digest) {
  if (path == nullptr || digest == nullptr) {
    return 0;
  }
  const int size = AnsiToWide(path, nullptr, 0);
  if (size == 0) {
    return 0;
  }
  const std::unique_ptr<wchar_t[]> widePath(new (std::nothrow)
                                                wchar_t[static_cast<std::size_t>(size)]);
  if (widePath == nullptr || AnsiToWide(path, widePath.get(), size) == 0) {
    return 0;
  }
  return CryptFileMD5W(widePath.get(), digest);
}

int GetFileMD5W(const wchar_t* path, unsigned char* digest) {
  CMd5 md5;
  return md5.CryptFileMD5W(path, digest) != 0 || md5.CalculateFileMD5W(path, digest) != 0 ? 1 : 0;
}

int GetFileMD5(const char* path, unsigned char* digest) {
  CMd5 md5;
  return md5.CryptFileMD5(path, digest) != 0 || md5.CalculateFileMD5(path, digest) != 0 ? 1 : 0;
}
