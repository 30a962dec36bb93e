// Who may write the trace's folder, and the numbers of its full files.
#include "companions/vlevtlog/trace_folder.h"

#include <gmock/gmock.h>

#include <cstring>
#include <fstream>
#include <string>

#include "tests/unit/trace_log_test.h"

using ::testing::ElementsAre;

namespace {

// What IsOpenToOthers makes of a security descriptor, whatever the file system can keep of it.
bool IsOpen(PSECURITY_DESCRIPTOR descriptor) {
  const CallPatch<struct SecurityTag, BOOL WINAPI(const wchar_t*, SECURITY_INFORMATION,
                                                  PSECURITY_DESCRIPTOR, DWORD, DWORD*)>
      patch("ADVAPI32.dll", "GetFileSecurityW",
            [&](const wchar_t*, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR copy, DWORD size,
                DWORD* needed) -> BOOL {
              *needed = GetSecurityDescriptorLength(descriptor);
              EXPECT_LE(*needed, size);
              std::memcpy(copy, descriptor, *needed);
              return TRUE;
            });
  return IsOpenToOthers(L"C:\\any");
}

bool IsOpen(const wchar_t* text) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1,
                                                                   &descriptor, nullptr))
      << GetLastError();
  const bool isOpen = descriptor != nullptr && IsOpen(descriptor);
  LocalFree(descriptor);
  return isOpen;
}

TEST(TraceFolder, IsOpenToOthersWhoseRightsLetThemWrite) {
  EXPECT_FALSE(IsOpen(L"O:SYG:SYD:P(A;;FA;;;SY)(A;;FA;;;BA)"));
  EXPECT_TRUE(IsOpen(L"O:SYG:SYD:P(A;;FA;;;SY)(A;;FA;;;WD)"));
  for (const wchar_t* right : {L"GA", L"GW", L"WD", L"WO", L"SD", L"0x2", L"0x4", L"0x40"}) {
    const std::wstring entry = std::wstring(L"O:SYG:SYD:P(A;;") + right + L";;;BU)";
    EXPECT_TRUE(IsOpen(entry.c_str())) << fs::path(entry);
  }
  for (const wchar_t* right : {L"FR", L"FX", L"GR", L"RC", L"0x10", L"0x100"}) {
    const std::wstring entry = std::wstring(L"O:SYG:SYD:P(A;;") + right + L";;;BU)";
    EXPECT_FALSE(IsOpen(entry.c_str())) << fs::path(entry);
  }
}

TEST(TraceFolder, IsNotOpenByWhatTakesRightsOrIsForOtherThingsOnly) {
  EXPECT_FALSE(IsOpen(L"O:SYG:SYD:P(D;;FA;;;WD)(A;;FA;;;SY)"));
  EXPECT_FALSE(IsOpen(L"O:SYG:SYD:P(A;OICIIO;FA;;;WD)(A;;FA;;;SY)"));
  EXPECT_TRUE(IsOpen(L"O:SYG:SYD:P(A;OICI;FA;;;WD)(A;;FA;;;SY)"));
}

// The owner can always give himself rights.
TEST(TraceFolder, IsOpenToItsOwnerUnlessHeIsTrusted) {
  EXPECT_TRUE(IsOpen(L"O:BUG:SYD:P(A;;FA;;;SY)"));
  EXPECT_FALSE(IsOpen(L"O:BAG:SYD:P(A;;FA;;;SY)"));
  EXPECT_FALSE(IsOpen(
      L"O:S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464G:SYD:P(A;;FA;;;SY)"));
  EXPECT_TRUE(IsOpen(
      L"O:S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478465G:SYD:P(A;;FA;;;SY)"));
  EXPECT_FALSE(IsOpen(L"D:P(A;;FA;;;SY)"));
}

TEST(TraceFolder, IsOpenToEverybodyWithoutAListOfRights) {
  EXPECT_TRUE(IsOpen(L"O:SYG:SY"));
  SECURITY_DESCRIPTOR descriptor;
  ASSERT_TRUE(InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION));
  ASSERT_TRUE(SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE));
  BYTE whole[SECURITY_DESCRIPTOR_MIN_LENGTH] = {};
  DWORD size = sizeof whole;
  ASSERT_TRUE(MakeSelfRelativeSD(&descriptor, whole, &size));
  EXPECT_TRUE(IsOpen(whole));
}

TEST(TraceFolder, PathIsEmptyWhereItWouldBeTooLong) {
  const std::wstring longest = L"C:\\" + std::wstring(kLongestFolder, L'x');
  EXPECT_EQ(std::wstring(TracePath(longest.c_str(), L"vorltrace.log").Get()),
            L"\\\\?\\" + longest + L"\\vorltrace.log");
  const std::wstring longer = L"C:\\" + std::wstring(1000, L'x');
  EXPECT_EQ(std::wstring(TracePath(longer.c_str(), L"vorltrace.log").Get()), L"");
  EXPECT_EQ(std::wstring(TracePath(nullptr).Get()), L"");
  EXPECT_EQ(std::wstring(TracePath(L"").Get()), L"");
}

// As when somebody copies an old file back while the product runs.
TEST_F(TraceLogTest, LeavesAFileAloneThatHasTheNextNumber) {
  Configure("FileSizeKB=4\nFiles=10\n");
  const std::string filler(4000, 'x');
  Log(2, "%s", filler.c_str());
  Log(2, "%s", filler.c_str());
  std::ofstream(Logs() / "vorltrace.000002.log") << "foreign";
  std::ofstream(Logs() / "vorltrace.000003.log") << "foreign";
  Log(2, "third");
  EXPECT_EQ(Content("vorltrace.000002.log"), "foreign");
  EXPECT_EQ(Content("vorltrace.000003.log"), "foreign");
  EXPECT_THAT(Messages("vorltrace.000004.log"), ElementsAre(filler));
  EXPECT_THAT(Messages(), ElementsAre("third"));
}

}  // namespace
