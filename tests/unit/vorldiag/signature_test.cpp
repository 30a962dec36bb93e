// A signature is laid over this test's own program, as signing tools do it, and taken off again.
#include "tools/vorldiag/machine/signature.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "tests/unit/vorldiag/program_bytes.h"

namespace {

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
