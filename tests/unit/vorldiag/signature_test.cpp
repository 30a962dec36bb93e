// A signature is laid over this test's own program, as signing tools do it, and taken off again.
#include "tools/vorldiag/machine/signature.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "support/windows_api.h"

namespace {

IMAGE_NT_HEADERS64& HeadersOf(std::string& bytes) {
  auto* const dos = reinterpret_cast<IMAGE_DOS_HEADER*>(bytes.data());
  return *reinterpret_cast<IMAGE_NT_HEADERS64*>(bytes.data() + dos->e_lfanew);
}

// With the checksum that the linker wrote.
std::string OwnProgram() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::ifstream file(std::string(path, path + wcslen(path)), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Signed(std::string bytes) {
  constexpr std::size_t alignment = 8;
  bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
  IMAGE_NT_HEADERS64& headers = HeadersOf(bytes);
  const std::string certificates(1000, 'c');
  headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_SECURITY] = {
      static_cast<DWORD>(bytes.size()), static_cast<DWORD>(certificates.size())};
  headers.OptionalHeader.CheckSum = 0x12345;
  return bytes + certificates;
}

// Without the bytes in the message of a failure.
bool Has(const std::vector<std::string>& forms, const std::string& program) {
  return std::find(forms.begin(), forms.end(), program) != forms.end();
}

TEST(UnsignedForms, HaveTheFileWithItsLinkersCheckSum) {
  std::string program = OwnProgram();
  ASSERT_NE(HeadersOf(program).OptionalHeader.CheckSum, 0U);
  EXPECT_TRUE(Has(UnsignedForms(Signed(program)), program));
}

TEST(UnsignedForms, HaveTheFileWithoutCheckSum) {
  std::string program = OwnProgram();
  HeadersOf(program).OptionalHeader.CheckSum = 0;
  EXPECT_TRUE(Has(UnsignedForms(Signed(program)), program));
}

TEST(UnsignedForms, HaveAFileThatHadToBeFilledUp) {
  std::string program = OwnProgram() + "odd";
  HeadersOf(program).OptionalHeader.CheckSum = 0;
  EXPECT_TRUE(Has(UnsignedForms(Signed(program)), program));
}

TEST(UnsignedForms, DoNotHideAChange) {
  std::string program = OwnProgram();
  HeadersOf(program).OptionalHeader.CheckSum = 0;
  std::string changed = Signed(program);
  changed[program.size() / 2] ^= 1;
  EXPECT_FALSE(Has(UnsignedForms(changed), program));
}

TEST(UnsignedForms, AreNoneWithoutASignatureAtTheEnd) {
  const std::string program = OwnProgram();
  EXPECT_TRUE(UnsignedForms(program).empty());
  EXPECT_TRUE(UnsignedForms(Signed(program) + "more").empty());
  EXPECT_TRUE(UnsignedForms("MZ").empty());
  EXPECT_TRUE(UnsignedForms(std::string(200, '\xFF')).empty());
  std::string inHeaders = program;
  HeadersOf(inHeaders).OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_SECURITY] = {
      0, static_cast<DWORD>(program.size())};
  EXPECT_TRUE(UnsignedForms(inHeaders).empty());
}

}  // namespace
