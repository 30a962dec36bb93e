// The forms of MD5 that read files, and what all forms refuse.
#include <gmock/gmock.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/unit/md5_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Opens no file through the C runtime, and says which function was to.
struct CRuntimeFiles {
  std::vector<std::string> opened;
  CallPatch<struct OpenTag, int(const char*, int, int)> open{
      "msvcrt.dll", "_open",
      [this](const char*, int, int) { return opened.push_back("_open"), -1; }};
  CallPatch<struct OpenWideTag, int(const wchar_t*, int, int)> openWide{
      "msvcrt.dll", "_wopen",
      [this](const wchar_t*, int, int) { return opened.push_back("_wopen"), -1; }};
};

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
  CRuntimeFiles files;
  const CallPatch<struct AcquireTag, BOOL WINAPI(HCRYPTPROV*, LPCSTR, LPCSTR, DWORD, DWORD)>
      acquire("ADVAPI32.dll", "CryptAcquireContextA",
              [&](HCRYPTPROV*, LPCSTR, LPCSTR, DWORD, DWORD) {
                return files.opened.push_back("CryptAcquireContextA"), FALSE;
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
  EXPECT_THAT(files.opened, IsEmpty());
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
  CRuntimeFiles files;
  const CryptoCalls calls;
  EXPECT_EQ(GetFileMD5(m_path.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
  EXPECT_EQ(std::ranges::count(calls.m_calls, "acquire(1 F0000000)"), 1);
  m_digest = {};
  EXPECT_EQ(GetFileMD5W(m_widePath.c_str(), m_digest.bytes), 1);
  EXPECT_EQ(m_digest.Hex(), kAbcDigest);
  EXPECT_EQ(std::ranges::count(calls.m_calls, "acquire(1 F0000000)"), 2);
  EXPECT_THAT(files.opened, IsEmpty());
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
