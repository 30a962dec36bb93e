#include "identity/osversion.h"

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

#include "tests/unit/osversion_test.h"

using ::testing::ElementsAre;

namespace {

// --- The version record ---

TEST_F(OsVersion, RecordComesFromRtlGetVersion) {
  m_system.spMajor = 2;
  OSVERSIONINFOEXW record{};
  EXPECT_TRUE(GetOSVersionInfo(record));
  EXPECT_EQ(record.dwOSVersionInfoSize, 284U);
  EXPECT_EQ(record.dwMajorVersion, 10U);
  EXPECT_EQ(record.dwBuildNumber, 19045U);
  EXPECT_EQ(record.wServicePackMajor, 2U);
  EXPECT_EQ(record.wProductType, kWorkstation);
  EXPECT_THAT(m_bound, ElementsAre("RtlGetVersion"));
  EXPECT_TRUE(m_getVersionExCalls.empty());
}

TEST_F(OsVersion, RecordComesFromGetVersionExWhenRtlGetVersionIsMissing) {
  m_missing = {"RtlGetVersion"};
  OSVERSIONINFOEXW record{};
  EXPECT_TRUE(GetOSVersionInfo(record));
  EXPECT_EQ(record.dwMajorVersion, 10U);
  EXPECT_EQ(record.wProductType, kWorkstation);
  EXPECT_THAT(m_getVersionExCalls, ElementsAre(284U));
}

TEST_F(OsVersion, RecordComesFromGetVersionExWhenRtlGetVersionFails) {
  m_getVersionStatus = kUnsuccessful;
  OSVERSIONINFOEXW record{};
  EXPECT_TRUE(GetOSVersionInfo(record));
  EXPECT_EQ(record.dwMajorVersion, 10U);
  EXPECT_THAT(m_getVersionExCalls, ElementsAre(284U));
}

TEST_F(OsVersion, OldSystemsGiveTheShortRecord) {
  m_getVersionStatus = kUnsuccessful;
  m_getVersionExSizes = {276};
  m_system.major = 4;
  m_system.suites = kEnterprise;
  OSVERSIONINFOEXW record{};
  EXPECT_TRUE(GetOSVersionInfo(record));
  EXPECT_THAT(m_getVersionExCalls, ElementsAre(284U, 276U));
  EXPECT_EQ(record.dwOSVersionInfoSize, 276U);
  EXPECT_EQ(record.dwMajorVersion, 4U);
  EXPECT_EQ(record.wSuiteMask, 0U);
  EXPECT_EQ(record.wProductType, 0U);
}

TEST_F(OsVersion, EveryQuestionToTheRecordFailsWithIt) {
  m_missing = {"RtlGetVersion"};
  m_getVersionExSizes = {};
  OSVERSIONINFOEXW record{};
  record.dwBuildNumber = 7;
  bool answer = true;
  int number = 7;
  WORD major = 7;
  WORD minor = 7;
  DWORD type = 7;
  EXPECT_FALSE(GetOSVersionInfo(record));
  EXPECT_FALSE(GetVersionIndex(number));
  EXPECT_FALSE(GetPlatform(number));
  EXPECT_FALSE(IsWin9x(answer));
  EXPECT_FALSE(IsWinNT(answer));
  EXPECT_FALSE(IsServer(answer));
  EXPECT_FALSE(GetServicePack(major, minor));
  EXPECT_FALSE(GetProductType(type));
  EXPECT_EQ(record.dwBuildNumber, 7U);
  EXPECT_TRUE(answer);
  EXPECT_EQ(number, 7);
  EXPECT_EQ(major, 7);
  EXPECT_EQ(minor, 7);
  EXPECT_EQ(type, 7U);
}

// --- The processor ---

TEST_F(OsVersion, NativeProcessorsOf64Bits) {
  for (const WORD architecture : {kIa64, kAlpha64, kAmd64, kIa32OnWin64}) {
    m_system.architecture = architecture;
    EXPECT_TRUE(IsNative64Bit()) << architecture;
  }
  for (const WORD architecture : {WORD{0}, WORD{1}, WORD{5}, WORD{8}, WORD{11}, kArm64}) {
    m_system.architecture = architecture;
    EXPECT_FALSE(IsNative64Bit()) << architecture;
  }
}

TEST_F(OsVersion, NoNative64BitProcessorWithoutTheFunctionThatTells) {
  m_missing = {"GetNativeSystemInfo"};
  EXPECT_FALSE(IsNative64Bit());
}

TEST_F(OsVersion, FunctionsAreMissingWhereTheirLibraryIs) {
  const CallPatch<struct ModuleTag, HMODULE WINAPI(const char*)> module(
      "KERNEL32.dll", "GetModuleHandleA", [](const char*) { return nullptr; });
  bool answer = true;
  EXPECT_FALSE(IsNative64Bit());
  EXPECT_FALSE(IsVersionEqual(1, answer));
  EXPECT_TRUE(answer);
}

TEST_F(OsVersion, FunctionsAreLookedUpInTheirLibraries) {
  std::vector<std::string> modules;
  const CallPatch<struct ModuleTag, HMODULE WINAPI(const char*)> module(
      "KERNEL32.dll", "GetModuleHandleA",
      [&](const char* name) { return modules.push_back(name), module.CallOriginal(name); });
  bool answer = false;
  DWORD type = 0;
  EXPECT_TRUE(IsNative64Bit());
  EXPECT_TRUE(IsVersionEqual(8, answer));
  EXPECT_TRUE(GetProductType(type));
  EXPECT_THAT(modules, ElementsAre("Kernel32.dll", "Ntdll.dll", "Ntdll.dll", "Kernel32.dll"));
  EXPECT_THAT(m_bound, ElementsAre("GetNativeSystemInfo", "RtlVerifyVersionInfo", "RtlGetVersion",
                                   "GetProductInfo"));
}

TEST_F(OsVersion, PhysicalAddressExtensionIsProcessorFeature9) {
  BOOL present = TRUE;
  const CallPatch<struct FeatureTag, BOOL WINAPI(DWORD)> feature(
      "KERNEL32.dll", "IsProcessorFeaturePresent",
      [&](DWORD number) { return number == 9 ? present : !present; });
  bool answer = false;
  EXPECT_TRUE(IsPAEEnabled(answer));
  EXPECT_TRUE(answer);
  present = FALSE;
  EXPECT_TRUE(IsPAEEnabled(answer));
  EXPECT_FALSE(answer);
}

// --- Comparisons ---

TEST_F(OsVersion, IndicesNameTheirVersions) {
  for (const auto& [index, version] : kVersions) {
    m_verifyCalls.clear();
    bool answer = false;
    EXPECT_TRUE(IsVersionEqual(index, answer));
    EXPECT_TRUE(IsVersionOrGreater(index, answer));
    EXPECT_TRUE(IsVersionLess(index, 0, 0, answer));
    ASSERT_EQ(m_verifyCalls.size(), 3U);
    for (const VerifyCall& call : m_verifyCalls) {
      EXPECT_EQ(Version(call.version.dwMajorVersion, call.version.dwMinorVersion), version)
          << index;
    }
  }
}

TEST_F(OsVersion, IndexOfXpDependsOnTheProcessor) {
  bool answer = false;
  m_system.major = 5;
  m_system.minor = 1;
  m_system.architecture = kIntel;
  EXPECT_TRUE(IsVersionEqual(2, answer));
  EXPECT_TRUE(answer);
  EXPECT_TRUE(IsWinXPOrGreater(answer));
  EXPECT_TRUE(answer);

  m_system.architecture = kAmd64;
  EXPECT_TRUE(IsVersionEqual(2, answer));
  EXPECT_FALSE(answer);
  EXPECT_TRUE(IsWinXPOrGreater(answer));
  EXPECT_FALSE(answer);
}

TEST_F(OsVersion, ComparisonsAskForTheirFieldsAndConditions) {
  bool answer = false;
  EXPECT_TRUE(IsVersionEqual(8, answer));
  EXPECT_TRUE(IsVersionOrGreater(8, answer));
  EXPECT_TRUE(IsVersionLess(8, 3, 4, answer));
  EXPECT_TRUE(IsServicePackOrGreater(5, 6, answer));
  ASSERT_EQ(m_verifyCalls.size(), 4U);

  // Three bits for each field: minor version 0, major version 1, service pack's minor 4, major 5.
  EXPECT_EQ(m_verifyCalls[0].fields, 0x3U);
  EXPECT_EQ(m_verifyCalls[0].conditions, 011U);
  EXPECT_EQ(m_verifyCalls[1].fields, 0x3U);
  EXPECT_EQ(m_verifyCalls[1].conditions, 033U);
  EXPECT_EQ(m_verifyCalls[2].fields, 0x33U);
  EXPECT_EQ(m_verifyCalls[2].conditions, 0440044U);
  EXPECT_EQ(m_verifyCalls[2].version.wServicePackMajor, 3U);
  EXPECT_EQ(m_verifyCalls[2].version.wServicePackMinor, 4U);
  EXPECT_EQ(m_verifyCalls[3].fields, 0x30U);
  EXPECT_EQ(m_verifyCalls[3].conditions, 0330000U);
  EXPECT_EQ(m_verifyCalls[3].version.wServicePackMajor, 5U);
  EXPECT_EQ(m_verifyCalls[3].version.wServicePackMinor, 6U);
}

TEST_F(OsVersion, ComparisonsAnswerByTheStatus) {
  bool answer = false;
  m_verifyStatus = kSuccess;
  EXPECT_TRUE(IsVersionEqual(4, answer));
  EXPECT_TRUE(answer);
  m_verifyStatus = kRevisionMismatch;
  EXPECT_TRUE(IsVersionEqual(4, answer));
  EXPECT_FALSE(answer);
}

TEST_F(OsVersion, ComparisonsFailWithAnyOtherStatusAndWithoutTheFunction) {
  const auto expectFailures = [] {
    bool answer = true;
    EXPECT_FALSE(IsVersionEqual(4, answer));
    EXPECT_FALSE(IsVersionOrGreater(4, answer));
    EXPECT_FALSE(IsVersionLess(4, 0, 0, answer));
    EXPECT_FALSE(IsServicePackOrGreater(0, 0, answer));
    EXPECT_FALSE(IsWin2000OrGreater(answer));
    EXPECT_FALSE(IsWinXPOrGreater(answer));
    EXPECT_TRUE(answer);
  };
  // STATUS_INVALID_PARAMETER among them.
  for (const LONG status : {kUnsuccessful, static_cast<LONG>(0xC000000D)}) {
    m_verifyStatus = status;
    expectFailures();
  }
  m_verifyStatus.reset();
  m_missing = {"RtlVerifyVersionInfo"};
  expectFailures();
}

TEST_F(OsVersion, ServicePacksCount) {
  m_system = {2, 6, 1, 7601, kWorkstation, 0, kAmd64, 0, 1, 0};
  bool answer = false;
  EXPECT_TRUE(IsServicePackOrGreater(1, 0, answer));
  EXPECT_TRUE(answer);
  EXPECT_TRUE(IsServicePackOrGreater(1, 1, answer));
  EXPECT_FALSE(answer);
  EXPECT_TRUE(IsVersionLess(5, 2, 0, answer));
  EXPECT_TRUE(answer);
  EXPECT_TRUE(IsVersionLess(5, 1, 0, answer));
  EXPECT_FALSE(answer);
  EXPECT_TRUE(IsVersionLess(6, 0, 0, answer));
  EXPECT_TRUE(answer);

  WORD major = 7;
  WORD minor = 7;
  EXPECT_TRUE(GetServicePack(major, minor));
  EXPECT_EQ(major, 1U);
  EXPECT_EQ(minor, 0U);
}

TEST_F(OsVersion, Windows2000IsTheFirstOfItsKind) {
  bool answer = true;
  m_system.major = 4;
  EXPECT_TRUE(IsWin2000OrGreater(answer));
  EXPECT_FALSE(answer);
  m_system.major = 5;
  EXPECT_TRUE(IsWin2000OrGreater(answer));
  EXPECT_TRUE(answer);
}

// --- Index, platform, product ---

TEST_F(OsVersion, EveryVersionHasItsIndex) {
  const std::map<Version, int> expected = {{{5, 0}, 1}, {{5, 1}, 2}, {{6, 0}, 4},  {{6, 1}, 5},
                                           {{6, 2}, 6}, {{6, 3}, 7}, {{10, 0}, 8}, {{10, 5}, 8}};
  for (const auto& [version, index] : expected) {
    m_system.major = version.first;
    m_system.minor = version.second;
    int answer = 0;
    EXPECT_TRUE(GetVersionIndex(answer));
    EXPECT_EQ(answer, index) << version.first << '.' << version.second;
  }
}

TEST_F(OsVersion, IndexOfVersion52IsThatOfXpForPlainWorkstations) {
  m_system.major = 5;
  m_system.minor = 2;
  int answer = 0;
  EXPECT_TRUE(GetVersionIndex(answer));
  EXPECT_EQ(answer, 2);
  m_system.serverR2 = 1;
  EXPECT_TRUE(GetVersionIndex(answer));
  EXPECT_EQ(answer, 3);
  m_system.serverR2 = 0;
  m_system.productType = kServer;
  EXPECT_TRUE(GetVersionIndex(answer));
  EXPECT_EQ(answer, 3);
}

TEST_F(OsVersion, OtherVersionsHaveNoIndex) {
  for (const Version& version : {Version{4, 0}, {5, 3}, {6, 4}, {7, 0}, {9, 0}, {11, 0}}) {
    m_system.major = version.first;
    m_system.minor = version.second;
    int answer = 77;
    EXPECT_FALSE(GetVersionIndex(answer)) << version.first << '.' << version.second;
    EXPECT_EQ(answer, 77);
  }
}

TEST_F(OsVersion, PlatformsAreToldApart) {
  for (const DWORD platform : {0U, 1U, 2U, 3U}) {
    m_system.platform = platform;
    int answer = 77;
    bool is9x = false;
    bool isNt = false;
    EXPECT_TRUE(GetPlatform(answer));
    EXPECT_TRUE(IsWin9x(is9x));
    EXPECT_TRUE(IsWinNT(isNt));
    EXPECT_EQ(answer, platform == 3 ? 0 : static_cast<int>(platform));
    EXPECT_EQ(is9x, platform == 1);
    EXPECT_EQ(isNt, platform == 2);
  }
}

TEST_F(OsVersion, DomainControllersAreServers) {
  for (const BYTE type : {BYTE{0}, kWorkstation, kDomainController, kServer, BYTE{4}}) {
    m_system.productType = type;
    bool answer = false;
    EXPECT_TRUE(IsServer(answer));
    EXPECT_EQ(answer, type == 2 || type == 3) << static_cast<int>(type);
  }
}

TEST_F(OsVersion, ProductTypeComesFromGetProductInfoSinceVersion6) {
  m_system = {2, 6, 1, 7601, kServer, 0, kAmd64, 0, 3, 4};
  DWORD type = 0;
  EXPECT_TRUE(GetProductType(type));
  EXPECT_EQ(type, 48U);
  EXPECT_THAT(m_productInfoCall, ElementsAre(6U, 1U, 3U, 4U));
}

TEST_F(OsVersion, ProductTypeComesFromTheRecordBeforeVersion6) {
  m_system = {2, 5, 2, 3790, kServer, 0, kAmd64, 0};
  DWORD type = 0;
  EXPECT_TRUE(GetProductType(type));
  EXPECT_EQ(type, 3U);
  EXPECT_TRUE(m_productInfoCall.empty());
}

TEST_F(OsVersion, ProductTypeFailsWithGetProductInfo) {
  DWORD type = 77;
  m_productInfo = 0;
  EXPECT_FALSE(GetProductType(type));
  m_missing = {"GetProductInfo"};
  EXPECT_FALSE(GetProductType(type));
  EXPECT_EQ(type, 77U);
}

}  // namespace
