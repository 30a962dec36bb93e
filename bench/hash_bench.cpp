// How fast MD5 and CRC-32 are, against CryptoAPI and against the loop over one table. What is
// compared runs by turns, so that a busy machine slows all of it.
//
//   hash_bench [ROUNDS]    prints one line for each sample: figure, size, who, bytes a second
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "identity/crc32.h"
#include "identity/md5.h"

// After windows.h.
#include <wincrypt.h>

namespace {

constexpr int kDefaultRounds = 25;

// A sample is the fastest of some attempts that are short enough to be left alone by whatever else
// the machine does, and long enough for the clock.
constexpr int kAttempts = 8;
constexpr std::size_t kAttemptBytes = std::size_t{256} << 10;

constexpr std::size_t kSizes[] = {64, 256, 1024, 8192, 65536, 1 << 20, 8 << 20, 64 << 20};

// Keeps what was computed from being thrown away.
volatile std::uint32_t g_sink;

double Seconds() noexcept {
  LARGE_INTEGER now;
  LARGE_INTEGER frequency;
  QueryPerformanceCounter(&now);
  QueryPerformanceFrequency(&frequency);
  return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

std::uint32_t Ours(CMd5& md5, const unsigned char* data, std::size_t size) {
  unsigned char digest[kMd5DigestSize];
  md5.CalculateMD5(data, static_cast<std::uint32_t>(size), digest);
  return digest[0];
}

std::uint32_t CryptoApi(HCRYPTPROV provider, const unsigned char* data, std::size_t size) {
  HCRYPTHASH hash = 0;
  BYTE digest[kMd5DigestSize] = {};
  DWORD digestSize = sizeof(digest);
  CryptCreateHash(provider, CALG_MD5, 0, 0, &hash);
  CryptHashData(hash, data, static_cast<DWORD>(size), 0);
  CryptGetHashParam(hash, HP_HASHVAL, digest, &digestSize, 0);
  CryptDestroyHash(hash);
  return digest[0];
}

std::uint32_t OursCrc(const unsigned char* data, std::size_t size) {
  std::uint32_t crc = 0;
  CCrc32().Calculate(data, static_cast<int>(size), &crc);
  return crc;
}

std::array<std::uint32_t, 256> MakeTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value & 1) != 0 ? 0xEDB88320 ^ (value >> 1) : value >> 1;
    }
    table[i] = value;
  }
  return table;
}

std::uint32_t OneTableCrc(const unsigned char* data, std::size_t size) {
  static const std::array<std::uint32_t, 256> table = MakeTable();
  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < size; ++i) {
    crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  }
  return crc;
}

template <typename Hash>
void Sample(const char* figure, const char* who, std::size_t size, Hash hash) {
  const std::size_t times = std::max<std::size_t>(1, kAttemptBytes / size);
  double fastest = 0;
  for (int attempt = 0; attempt < (times > 1 ? kAttempts : 1); ++attempt) {
    const double start = Seconds();
    for (std::size_t i = 0; i < times; ++i) {
      g_sink = g_sink + hash();
    }
    fastest = std::max(fastest, static_cast<double>(times * size) / (Seconds() - start));
  }
  std::printf("%s %zu %s %.0f\n", figure, size, who, fastest);
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : kDefaultRounds;
  std::vector<unsigned char> data(*std::max_element(std::begin(kSizes), std::end(kSizes)));
  std::uint32_t value = 1;
  for (unsigned char& byte : data) {
    value = value * 1664525 + 1013904223;
    byte = static_cast<unsigned char>(value >> 24);
  }
  if (OursCrc(data.data(), 100003) != OneTableCrc(data.data(), 100003)) {
    std::printf("the two computations of the CRC differ\n");
    return 1;
  }

  CMd5 md5;
  HCRYPTPROV provider = 0;
  CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT);
  for (int round = 0; round < rounds; ++round) {
    for (const std::size_t size : kSizes) {
      const unsigned char* const bytes = data.data();
      Sample("md5", "ours", size, [&] { return Ours(md5, bytes, size); });
      Sample("md5", "cryptoapi", size, [&] { return CryptoApi(provider, bytes, size); });
      Sample("crc32", "ours", size, [&] { return OursCrc(bytes, size); });
      Sample("crc32", "one-table", size, [&] { return OneTableCrc(bytes, size); });
    }
  }
  CryptReleaseContext(provider, 0);
  return 0;
}
