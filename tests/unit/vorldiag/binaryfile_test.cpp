// Programs whose bytes lead anywhere: this test's own program, changed.
#include "tools/vorldiag/machine/binaryfile.h"

#include <gmock/gmock.h>
#include <wincrypt.h>

#include <algorithm>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorldiag/program_bytes.h"

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr char kNoProgram[] = "it is no program or library";

class BinaryFileTest : public ::testing::Test {
 protected:
  BinaryFile Read(const std::string& bytes) const {
    const std::string path = folder.File("x.dll");
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    return ReadBinaryFile(std::filesystem::path(path).wstring());
  }
  std::string Damage(const std::string& bytes) const { return Read(bytes).damage; }

  const TempFolder folder;
};

// The smallest that has everything: headers, one section with the table of entries in it, and
// places that a test can change.
struct SmallLibrary {
  static constexpr DWORD kAddress = 0x1000;
  static constexpr DWORD kOffset = 0x400;
  static constexpr DWORD kSize = 0x200;

  SmallLibrary() {
    dos.e_magic = IMAGE_DOS_SIGNATURE;
    dos.e_lfanew = sizeof(dos);
    headers.Signature = IMAGE_NT_SIGNATURE;
    headers.FileHeader.Machine = IMAGE_FILE_MACHINE_AMD64;
    headers.FileHeader.NumberOfSections = 1;
    headers.FileHeader.SizeOfOptionalHeader = sizeof(headers.OptionalHeader);
    headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT] = {kAddress,
                                                                          sizeof(exports)};
    section.VirtualAddress = kAddress;
    section.PointerToRawData = kOffset;
    section.SizeOfRawData = kSize;
    exports.Base = 5;
    exports.NumberOfFunctions = 3;
    exports.AddressOfFunctions = kAddress + 0x100;
    exports.NumberOfNames = 1;
    exports.AddressOfNames = kAddress + 0x120;
  }

  std::string Bytes() const {
    std::string bytes(kOffset + kSize, '\0');
    const auto put = [&](std::size_t offset, const auto& item) {
      std::copy_n(reinterpret_cast<const char*>(&item), sizeof(item),
                  bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    };
    put(0, dos);
    put(sizeof(dos), headers);
    put(sizeof(dos) + sizeof(headers), section);
    put(kOffset, exports);
    put(kOffset + 0x100, functions);
    put(kOffset + 0x120, name);
    put(kOffset + 0x140, text);
    return bytes;
  }

  IMAGE_DOS_HEADER dos{};
  IMAGE_NT_HEADERS64 headers{};
  IMAGE_SECTION_HEADER section{};
  IMAGE_EXPORT_DIRECTORY exports{};
  DWORD functions[3] = {0x1000, 0, 0x1004};
  DWORD name = kAddress + 0x140;
  char text[6] = "Start";
};

TEST_F(BinaryFileTest, HasItsEntriesByNumberAndName) {
  const BinaryFile file = Read(SmallLibrary().Bytes());
  EXPECT_EQ(file.damage, "");
  EXPECT_THAT(file.ordinals, ::testing::ElementsAre(5, 7));
  EXPECT_THAT(file.functions, ::testing::ElementsAre("Start"));
  EXPECT_EQ(file.version, "");
  EXPECT_EQ(file.originalName, L"");
  EXPECT_THAT(file.unsignedSha256, IsEmpty());
  EXPECT_THAT(file.sha256, SizeIs(64));
}

TEST_F(BinaryFileTest, ThatIsNoneIsSaidToBeNone) {
  EXPECT_EQ(Damage(""), kNoProgram);
  EXPECT_EQ(Damage("text"), kNoProgram);
  EXPECT_EQ(Damage(std::string(100, '\0')), kNoProgram);
  SmallLibrary library;
  EXPECT_EQ(Damage(library.Bytes().substr(0, 200)), kNoProgram);
  for (const LONG offset : {0x10000, -1}) {
    library.dos.e_lfanew = offset;
    EXPECT_EQ(Damage(library.Bytes()), kNoProgram) << offset;
  }
  library = {};
  library.headers.Signature = 0;
  EXPECT_EQ(Damage(library.Bytes()), kNoProgram);
  library = {};
  library.headers.FileHeader.Machine = IMAGE_FILE_MACHINE_I386;
  EXPECT_EQ(Damage(library.Bytes()), "it is not for 64-bit Windows");
}

TEST_F(BinaryFileTest, ThatIsCutOffIsIncomplete) {
  SmallLibrary library;
  std::string bytes = library.Bytes();
  bytes.pop_back();
  EXPECT_EQ(Damage(bytes), "it is incomplete");
  library.headers.FileHeader.NumberOfSections = 100;
  EXPECT_EQ(Damage(library.Bytes()), "it is incomplete");
  library = {};
  library.section.SizeOfRawData = 0xFFFFFFFF;
  EXPECT_EQ(Damage(library.Bytes()), "it is incomplete");
}

TEST_F(BinaryFileTest, WhoseEntriesLeadOutOfItHasNone) {
  const auto exportsOf = [](SmallLibrary& library) -> IMAGE_DATA_DIRECTORY& {
    return library.headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  };
  for (const DWORD address :
       {DWORD{0}, SmallLibrary::kAddress - 1, SmallLibrary::kAddress + SmallLibrary::kSize,
        SmallLibrary::kAddress + SmallLibrary::kSize - 1}) {
    SmallLibrary library;
    exportsOf(library).VirtualAddress = address;
    EXPECT_THAT(Read(library.Bytes()).ordinals, IsEmpty()) << address;
  }
  SmallLibrary library;
  exportsOf(library).Size = 0;
  EXPECT_THAT(Read(library.Bytes()).ordinals, IsEmpty());

  library = {};
  library.exports.AddressOfFunctions = 1;
  library.exports.AddressOfNames = 1;
  EXPECT_THAT(Read(library.Bytes()).ordinals, IsEmpty());
  EXPECT_THAT(Read(library.Bytes()).functions, IsEmpty());

  library = {};
  library.name = 1;
  EXPECT_THAT(Read(library.Bytes()).functions, ::testing::ElementsAre(""));
  // A name without an end.
  library = {};
  library.name = SmallLibrary::kAddress + SmallLibrary::kSize - 1;
  std::string bytes = library.Bytes();
  bytes.back() = 'x';
  EXPECT_THAT(Read(bytes).functions, ::testing::ElementsAre(""));
}

// Whatever the numbers say, reading ends.
TEST_F(BinaryFileTest, WithCountlessEntriesIsReadAsFarAsItGoes) {
  SmallLibrary library;
  library.exports.NumberOfFunctions = 0xFFFFFFFF;
  library.exports.NumberOfNames = 0xFFFFFFFF;
  EXPECT_THAT(Read(library.Bytes()).ordinals, Contains(WORD{7}));
}

TEST_F(BinaryFileTest, WithASignatureHasTheSumsFromBeforeIt) {
  const std::string program = SmallLibrary().Bytes();
  const std::vector<std::string> sums = Read(Signed(program)).unsignedSha256;
  EXPECT_THAT(sums, Contains(Sha256(program)));
}

std::string WideBytes(std::wstring_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

std::string FixedVersion() {
  VS_FIXEDFILEINFO info{};
  info.dwSignature = 0xFEEF04BD;
  info.dwFileVersionMS = 0x00010002;
  info.dwFileVersionLS = 0x00030004;
  return {reinterpret_cast<const char*>(&info), sizeof(info)};
}

TEST_F(BinaryFileTest, HasTheVersionOfItsResource) {
  using namespace std::string_literals;
  const std::string key = WideBytes(L"VS_VERSION_INFO");
  const std::string padding(4, '\0');
  EXPECT_EQ(Read(key + padding + FixedVersion()).version, "1.2.3.4");
  // The key among other texts of the program.
  EXPECT_EQ(Read(key + std::string(100, 'x') + key + padding + FixedVersion()).version, "1.2.3.4");
  EXPECT_EQ(Read(key + std::string(9, '\0') + FixedVersion()).version, "");
  EXPECT_EQ(Read(key + padding + FixedVersion().substr(1)).version, "");
  EXPECT_EQ(Read(key + std::string(200, 'x')).version, "");

  const std::string resource = key + padding + FixedVersion();
  const std::string name = WideBytes(L"OriginalFilename\0"s);
  EXPECT_EQ(Read(resource + name + WideBytes(L"\0x.dll\0y"s)).originalName, L"x.dll");
  EXPECT_EQ(Read(resource + name + WideBytes(L"x.dll")).originalName, L"x.dll");
  EXPECT_EQ(Read(resource + name).originalName, L"");
  EXPECT_EQ(Read(resource).originalName, L"");
  EXPECT_EQ(Read(name + WideBytes(L"x.dll")).originalName, L"");
  EXPECT_THAT(Read(resource + name + WideBytes(std::wstring(1000, L'x'))).originalName,
              SizeIs(MAX_PATH));
}

TEST_F(BinaryFileTest, ThatCannotBeReadSaysWhy) {
  const std::filesystem::path none = folder.Path() / "none";
  EXPECT_EQ(ReadBinaryFile(none.wstring()).error, DWORD{ERROR_FILE_NOT_FOUND});
  const CallPatch<struct SizeTag, BOOL WINAPI(HANDLE, LARGE_INTEGER*)> size(
      "KERNEL32.dll", "GetFileSizeEx", [](HANDLE, LARGE_INTEGER* bytes) {
        bytes->QuadPart = LONGLONG{256} * 1024 * 1024 + 1;
        return TRUE;
      });
  EXPECT_EQ(Read("x").error, DWORD{ERROR_FILE_TOO_LARGE});
}

TEST(Sha256, OfBytesIsThatOfEverybody) {
  EXPECT_EQ(Sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256, IsEmptyWithoutWindowsProvider) {
  {
    const CallPatch<struct ProviderTag,
                    BOOL WINAPI(HCRYPTPROV*, const wchar_t*, const wchar_t*, DWORD, DWORD)>
        provider("ADVAPI32.dll", "CryptAcquireContextW",
                 [](HCRYPTPROV*, const wchar_t*, const wchar_t*, DWORD, DWORD) { return FALSE; });
    EXPECT_EQ(Sha256("abc"), "");
  }
  {
    const CallPatch<struct HashTag, BOOL WINAPI(HCRYPTPROV, ALG_ID, HCRYPTKEY, DWORD, HCRYPTHASH*)>
        hash("ADVAPI32.dll", "CryptCreateHash",
             [](HCRYPTPROV, ALG_ID, HCRYPTKEY, DWORD, HCRYPTHASH*) { return FALSE; });
    EXPECT_EQ(Sha256("abc"), "");
  }
  {
    const CallPatch<struct DataTag, BOOL WINAPI(HCRYPTHASH, const BYTE*, DWORD, DWORD)> data(
        "ADVAPI32.dll", "CryptHashData",
        [](HCRYPTHASH, const BYTE*, DWORD, DWORD) { return FALSE; });
    EXPECT_EQ(Sha256("abc"), "");
  }
  const CallPatch<struct ValueTag, BOOL WINAPI(HCRYPTHASH, DWORD, BYTE*, DWORD*, DWORD)> value(
      "ADVAPI32.dll", "CryptGetHashParam",
      [](HCRYPTHASH, DWORD, BYTE*, DWORD*, DWORD) { return FALSE; });
  EXPECT_EQ(Sha256("abc"), "");
}

}  // namespace
