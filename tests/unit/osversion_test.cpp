#include "identity/osversion.h"

#include "identity/oscode.h"
#include "identity/osnames.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/handle.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/support/start_process.h"

using ::testing::ElementsAre;
using ::testing::Test;
using ::testing::TestWithParam;
using ::testing::ValuesIn;
using ::testing::WithParamInterface;

namespace {

constexpr LONG kSuccess = 0;
constexpr LONG kRevisionMismatch = static_cast<LONG>(0xC0000059);
constexpr LONG kUnsuccessful = static_cast<LONG>(0xC0000001);

constexpr BYTE kWorkstation = 1;
constexpr BYTE kDomainController = 2;
constexpr BYTE kServer = 3;

constexpr WORD kIntel = 0;
constexpr WORD kIa64 = 6;
constexpr WORD kAlpha64 = 7;
constexpr WORD kAmd64 = 9;
constexpr WORD kIa32OnWin64 = 10;
constexpr WORD kArm64 = 12;

// What the system answers, as far as the questions go.
struct FakeSystem {
  DWORD platform = 2;
  DWORD major = 10;
  DWORD minor = 0;
  DWORD build = 19045;
  BYTE productType = kWorkstation;
  WORD suites = 0;
  WORD architecture = kAmd64;
  int serverR2 = 0;
  WORD spMajor = 0;
  WORD spMinor = 0;
};

// What a comparison was asked for.
struct VerifyCall {
  OSVERSIONINFOEXW version;
  ULONG fields;
  ULONGLONG conditions;
};

// Puts a FakeSystem in the place of the real one: answers GetProcAddress for the functions that are
// bound by name, and replaces the imported ones.
class OsVersion : public Test {
 public:
  OsVersion() { s_test = this; }
  ~OsVersion() override { s_test = nullptr; }

 protected:
  static inline OsVersion* s_test = nullptr;

  FakeSystem m_system;
  // Functions that the system does not have.
  std::vector<std::string> m_missing;
  // Set: what the function answers instead.
  std::optional<LONG> m_getVersionStatus;
  std::optional<LONG> m_verifyStatus;
  // Sizes that GetVersionExW takes.
  std::vector<DWORD> m_getVersionExSizes = {284, 276};
  DWORD m_productInfo = 48;

  std::vector<std::string> m_bound;
  std::vector<DWORD> m_getVersionExCalls;
  std::vector<VerifyCall> m_verifyCalls;
  std::vector<DWORD> m_productInfoCall;

 private:
  // Fills in what a record of this size has room for.
  void Answer(OSVERSIONINFOEXW* record) const {
    record->dwMajorVersion = m_system.major;
    record->dwMinorVersion = m_system.minor;
    record->dwBuildNumber = m_system.build;
    record->dwPlatformId = m_system.platform;
    if (record->dwOSVersionInfoSize == 284) {
      record->wServicePackMajor = m_system.spMajor;
      record->wServicePackMinor = m_system.spMinor;
      record->wSuiteMask = m_system.suites;
      record->wProductType = m_system.productType;
    }
  }

  static LONG WINAPI FakeRtlGetVersion(OSVERSIONINFOEXW* record) {
    EXPECT_EQ(record->dwOSVersionInfoSize, 284U);
    // Also when it fails, so that leftovers would show.
    s_test->Answer(record);
    return s_test->m_getVersionStatus.value_or(kSuccess);
  }

  // Compares field by field, the most important first, as the system does.
  static LONG WINAPI FakeRtlVerifyVersionInfo(OSVERSIONINFOEXW* version, ULONG fields,
                                              ULONGLONG conditions) {
    EXPECT_EQ(version->dwOSVersionInfoSize, 284U);
    s_test->m_verifyCalls.push_back({*version, fields, conditions});
    if (s_test->m_verifyStatus.has_value()) {
      return *s_test->m_verifyStatus;
    }
    const FakeSystem& system = s_test->m_system;
    std::vector<DWORD> running;
    std::vector<DWORD> wanted;
    const auto compare = [&](ULONG field, DWORD left, DWORD right) {
      if ((fields & field) != 0) {
        running.push_back(left);
        wanted.push_back(right);
      }
    };
    compare(VER_MAJORVERSION, system.major, version->dwMajorVersion);
    compare(VER_MINORVERSION, system.minor, version->dwMinorVersion);
    compare(VER_SERVICEPACKMAJOR, system.spMajor, version->wServicePackMajor);
    compare(VER_SERVICEPACKMINOR, system.spMinor, version->wServicePackMinor);
    // Tests ask for one condition in all fields; the minor version and the service pack's minor
    // number have the lowest places.
    const auto condition = ((fields & VER_MINORVERSION) != 0 ? conditions : conditions >> 12) & 7;
    const bool matches = condition == VER_EQUAL           ? running == wanted
                         : condition == VER_GREATER_EQUAL ? running >= wanted
                         : condition == VER_LESS          ? running < wanted
                                                          : false;
    return matches ? kSuccess : kRevisionMismatch;
  }

  static void WINAPI FakeGetNativeSystemInfo(SYSTEM_INFO* info) {
    info->wProcessorArchitecture = s_test->m_system.architecture;
  }

  static BOOL WINAPI FakeGetProductInfo(DWORD major, DWORD minor, DWORD spMajor, DWORD spMinor,
                                        DWORD* type) {
    s_test->m_productInfoCall = {major, minor, spMajor, spMinor};
    *type = s_test->m_productInfo;
    return s_test->m_productInfo != 0 ? TRUE : FALSE;
  }

  FARPROC Bind(HMODULE module, const char* name) {
    static const std::map<std::string, void*> kFakes = {
        {"RtlGetVersion", reinterpret_cast<void*>(&FakeRtlGetVersion)},
        {"RtlVerifyVersionInfo", reinterpret_cast<void*>(&FakeRtlVerifyVersionInfo)},
        {"GetNativeSystemInfo", reinterpret_cast<void*>(&FakeGetNativeSystemInfo)},
        {"GetProductInfo", reinterpret_cast<void*>(&FakeGetProductInfo)}};
    const auto fake = kFakes.find(name);
    if (fake == kFakes.end()) {
      return m_getProcAddress.CallOriginal(module, name);
    }
    m_bound.push_back(name);
    // The name must be a real one of that library.
    EXPECT_NE(m_getProcAddress.CallOriginal(module, name), nullptr) << name;
    const bool isMissing = std::ranges::find(m_missing, name) != m_missing.end();
    return isMissing ? nullptr : reinterpret_cast<FARPROC>(fake->second);
  }

  CallPatch<struct BindTag, FARPROC WINAPI(HMODULE, const char*)> m_getProcAddress{
      "KERNEL32.dll", "GetProcAddress",
      [this](HMODULE module, const char* name) { return Bind(module, name); }};
  CallPatch<struct VersionExTag, BOOL WINAPI(OSVERSIONINFOEXW*)> m_getVersionEx{
      "KERNEL32.dll", "GetVersionExW", [this](OSVERSIONINFOEXW* record) {
        const DWORD size = record->dwOSVersionInfoSize;
        m_getVersionExCalls.push_back(size);
        if (std::ranges::find(m_getVersionExSizes, size) == m_getVersionExSizes.end()) {
          return FALSE;
        }
        Answer(record);
        return TRUE;
      }};
  CallPatch<struct MetricsTag, int WINAPI(int)> m_getSystemMetrics{"USER32.dll", "GetSystemMetrics",
                                                                   [this](int metric) {
                                                                     EXPECT_EQ(metric, 89);
                                                                     return m_system.serverR2;
                                                                   }};
};

// --- The code of the running system ---

struct CodeRow {
  const char* name;
  FakeSystem system;
  std::uint32_t code;
};

std::ostream& operator<<(std::ostream& out, const CodeRow& row) { return out << row.name; }

constexpr WORD kEnterprise = 0x2;
constexpr WORD kDatacenter = 0x80;
constexpr WORD kPersonal = 0x200;
constexpr WORD kBlade = 0x400;

// platform, major, minor, build, product type, suites, architecture, SM_SERVERR2
const CodeRow kCodeRows[] = {
    {"Windows95", {1, 4, 0, 950, 0, 0, kIntel, 0}, 50023},
    {"Windows98", {1, 4, 10, 1998, 0, 0, kIntel, 0}, 50024},
    {"WindowsMillennium", {1, 4, 90, 3000, 0, 0, kIntel, 0}, 50025},
    {"Platform1OfOtherMinor", {1, 4, 3, 1214, 0, 0, kIntel, 0}, 0},
    {"Platform1OfOtherMajor", {1, 5, 0, 2195, kWorkstation, 0, kIntel, 0}, 0},
    {"Platform0", {0, 3, 51, 0, 0, 0, kIntel, 0}, 0},
    {"Platform3", {3, 10, 0, 19045, kWorkstation, 0, kAmd64, 0}, 0},

    {"Windows10", {2, 10, 0, 19045, kWorkstation, 0, kIntel, 0}, 50041},
    {"Windows10x64", {2, 10, 0, 19045, kWorkstation, 0, kAmd64, 0}, 50042},
    {"Windows10LastBuild", {2, 10, 0, 21999, kWorkstation, 0, kIntel, 0}, 50041},
    {"Windows10x64LastBuild", {2, 10, 0, 21999, kWorkstation, 0, kAmd64, 0}, 50042},
    {"Windows11FirstBuild", {2, 10, 0, 22000, kWorkstation, 0, kIntel, 0}, 50048},
    {"Windows11x64FirstBuild", {2, 10, 0, 22000, kWorkstation, 0, kAmd64, 0}, 50049},
    {"Windows11x64Later", {2, 10, 0, 26100, kWorkstation, 0, kAmd64, 0}, 50049},
    {"Windows10Arm64CountsAs32Bit", {2, 10, 0, 19045, kWorkstation, 0, kArm64, 0}, 50041},
    {"Server2016", {2, 10, 0, 14393, kServer, 0, kAmd64, 0}, 50043},
    {"Server2016LastBuild", {2, 10, 0, 17622, kServer, 0, kAmd64, 0}, 50043},
    {"Server2019FirstBuild", {2, 10, 0, 17623, kServer, 0, kAmd64, 0}, 50046},
    {"Server2019LastBuild", {2, 10, 0, 20284, kServer, 0, kAmd64, 0}, 50046},
    {"Server2022FirstBuild", {2, 10, 0, 20285, kServer, 0, kAmd64, 0}, 50047},
    {"Server2022DomainController", {2, 10, 0, 20348, kDomainController, 0, kAmd64, 0}, 50047},
    {"Server10Of32BitFallsThrough", {2, 10, 0, 20348, kServer, 0, kIntel, 0}, 0},

    {"Windows81", {2, 6, 3, 9600, kWorkstation, 0, kIntel, 0}, 50038},
    {"Windows81x64", {2, 6, 3, 9600, kWorkstation, 0, kAmd64, 0}, 50039},
    {"Server2012R2x64", {2, 6, 3, 9600, kServer, 0, kAmd64, 0}, 50040},
    {"Server2012R2Of32BitFallsThrough", {2, 6, 3, 9600, kServer, 0, kIntel, 0}, 0},

    {"Windows8", {2, 6, 2, 9200, kWorkstation, 0, kIntel, 0}, 50034},
    {"Windows8x64", {2, 6, 2, 9200, kWorkstation, 0, kAmd64, 0}, 50035},
    {"Server2012", {2, 6, 2, 9200, kServer, 0, kIntel, 0}, 50036},
    {"Server2012x64", {2, 6, 2, 9200, kServer, 0, kAmd64, 0}, 50037},
    {"Windows7", {2, 6, 1, 7601, kWorkstation, 0, kIntel, 0}, 50032},
    {"Windows7x64", {2, 6, 1, 7601, kWorkstation, 0, kAmd64, 0}, 50033},
    {"Server2008R2", {2, 6, 1, 7601, kServer, 0, kIntel, 0}, 50030},
    {"Server2008R2x64", {2, 6, 1, 7601, kServer, 0, kAmd64, 0}, 50031},
    {"Vista", {2, 6, 0, 6002, kWorkstation, 0, kIntel, 0}, 50001},
    {"VistaIa64", {2, 6, 0, 6002, kWorkstation, 0, kIa64, 0}, 50026},
    {"VistaAlpha64", {2, 6, 0, 6002, kWorkstation, 0, kAlpha64, 0}, 50026},
    {"VistaAmd64", {2, 6, 0, 6002, kWorkstation, 0, kAmd64, 0}, 50026},
    {"VistaIa32OnWin64", {2, 6, 0, 6002, kWorkstation, 0, kIa32OnWin64, 0}, 50026},
    {"Server2008", {2, 6, 0, 6002, kServer, 0, kIntel, 0}, 50002},
    {"Server2008x64", {2, 6, 0, 6002, kServer, 0, kAmd64, 0}, 50029},
    {"Major6OfUnknownMinor", {2, 6, 4, 9841, kWorkstation, 0, kAmd64, 0}, 0},

    {"Version52WorkstationR2", {2, 5, 2, 3790, kWorkstation, 0, kAmd64, 1}, 50012},
    {"Version52WorkstationAmd64", {2, 5, 2, 3790, kWorkstation, 0, kAmd64, 0}, 50013},
    {"Version52WorkstationIa64", {2, 5, 2, 3790, kWorkstation, 0, kIa64, 0}, 50014},
    {"Version52WorkstationIntel", {2, 5, 2, 3790, kWorkstation, 0, kIntel, 0}, 50014},
    {"Server2003Ia64Datacenter", {2, 5, 2, 3790, kServer, kDatacenter, kIa64, 1}, 50003},
    {"Server2003Ia64DatacenterAndEnterprise",
     {2, 5, 2, 3790, kServer, kDatacenter | kEnterprise, kIa64, 0},
     50003},
    {"Server2003Ia64Enterprise", {2, 5, 2, 3790, kServer, kEnterprise, kIa64, 1}, 50004},
    {"Server2003Ia64OtherR2", {2, 5, 2, 3790, kServer, 0, kIa64, 1}, 50012},
    {"Server2003Ia64Other", {2, 5, 2, 3790, kServer, 0, kIa64, 0}, 50014},
    {"Server2003Amd64Datacenter", {2, 5, 2, 3790, kServer, kDatacenter, kAmd64, 1}, 50005},
    {"Server2003Amd64DatacenterAndEnterprise",
     {2, 5, 2, 3790, kServer, kDatacenter | kEnterprise, kAmd64, 0},
     50005},
    {"Server2003Amd64Enterprise", {2, 5, 2, 3790, kServer, kEnterprise, kAmd64, 0}, 50006},
    {"Server2003Amd64Other", {2, 5, 2, 3790, kServer, kBlade, kAmd64, 1}, 50007},
    {"Server2003Datacenter", {2, 5, 2, 3790, kServer, kDatacenter, kIntel, 0}, 50008},
    {"Server2003DatacenterAndAllOthers",
     {2, 5, 2, 3790, kServer, kDatacenter | kEnterprise | kBlade, kIntel, 0},
     50008},
    {"Server2003Enterprise", {2, 5, 2, 3790, kServer, kEnterprise, kIntel, 0}, 50009},
    {"Server2003EnterpriseAndBlade",
     {2, 5, 2, 3790, kServer, kEnterprise | kBlade, kIntel, 0},
     50009},
    {"Server2003Web", {2, 5, 2, 3790, kServer, kBlade, kIntel, 0}, 50010},
    {"Server2003Standard", {2, 5, 2, 3790, kServer, 0, kIntel, 1}, 50011},

    {"XpAmd64", {2, 5, 1, 2600, kWorkstation, kPersonal, kAmd64, 0}, 50013},
    {"XpServerTypeAmd64", {2, 5, 1, 2600, kServer, 0, kAmd64, 0}, 50016},
    {"XpHome", {2, 5, 1, 2600, kWorkstation, kPersonal, kIntel, 0}, 50015},
    {"XpProfessional", {2, 5, 1, 2600, kWorkstation, 0, kIntel, 0}, 50016},

    {"Windows2000Professional", {2, 5, 0, 2195, kWorkstation, kEnterprise, kIntel, 0}, 50019},
    {"Windows2000Datacenter",
     {2, 5, 0, 2195, kServer, kDatacenter | kEnterprise, kIntel, 0},
     50017},
    {"Windows2000Advanced", {2, 5, 0, 2195, kServer, kEnterprise, kIntel, 0}, 50018},
    {"Windows2000Server", {2, 5, 0, 2195, kServer, 0, kIntel, 0}, 50028},
    {"Major5OfUnknownMinor", {2, 5, 3, 3800, kWorkstation, 0, kIntel, 0}, 0},

    {"Nt4Workstation", {2, 4, 0, 1381, kWorkstation, kEnterprise, kIntel, 0}, 50020},
    {"Nt4Enterprise", {2, 4, 0, 1381, kServer, kEnterprise, kIntel, 0}, 50021},
    {"Nt4Server", {2, 4, 0, 1381, kServer, 0, kIntel, 0}, 50022},
    {"Nt4OfUnknownMinor", {2, 4, 1, 1381, kWorkstation, 0, kIntel, 0}, 0},
    {"Nt351", {2, 3, 51, 1057, kWorkstation, 0, kIntel, 0}, 50027},
    {"Nt350", {2, 3, 50, 807, kWorkstation, 0, kIntel, 0}, 0},
    {"Version11", {2, 11, 0, 30000, kWorkstation, 0, kAmd64, 0}, 0},
};

class OsVersionCode : public OsVersion, public WithParamInterface<CodeRow> {};

TEST_P(OsVersionCode, FollowsFromWhatTheSystemAnswers) {
  m_system = GetParam().system;
  EXPECT_EQ(GetOSCode(), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Rows, OsVersionCode, ValuesIn(kCodeRows),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(OsVersion, CodeIsZeroWithoutAVersionRecord) {
  m_missing = {"RtlGetVersion"};
  m_getVersionExSizes = {};
  EXPECT_EQ(GetOSCode(), 0U);
}

TEST_F(OsVersion, CodeTakesThePlainRowsWhenVersionsCannotBeCompared) {
  m_verifyStatus = kUnsuccessful;
  m_system.major = 6;
  m_system.minor = 1;
  EXPECT_EQ(GetOSCode(), 50033U);
  m_system.major = 10;
  m_system.minor = 0;
  EXPECT_EQ(GetOSCode(), 0U);
}

TEST_F(OsVersion, CodeIsOfA32BitSystemWhenTheProcessorIsUnknown) {
  m_missing = {"GetNativeSystemInfo"};
  EXPECT_EQ(GetOSCode(), 50041U);
}

// The record of a program that the system hides its version from, on a 32-bit server.
TEST_F(OsVersion, A32BitServerOfTheNewestVersionGoesOnToTheOlderRows) {
  m_verifyStatus = kSuccess;
  m_system = {2, 6, 2, 9200, kServer, 0, kIntel, 0};
  EXPECT_EQ(GetOSCode(), 50036U);
}

// --- Names ---

struct NameRow {
  std::uint32_t code;
  const char* name;
};

constexpr NameRow kNames[] = {
    {50001, "Windows Vista"},
    {50002, "Windows Server 2008"},
    {50003, "Windows 2003 Data Center 64 bit Edition(Itanium Based)"},
    {50004, "Windows 2003 Enterprise 64 bit Edition(Itanium Based)"},
    {50005, "Windows 2003 Data Center 64 bit Edition(AMD Based)"},
    {50006, "Windows 2003 Enterprise 64 bit Edition(AMD Based)"},
    {50007, "Windows 2003 Standard 64 bit Edition(AMD Based)"},
    {50008, "Windows 2003 Data Center Edition"},
    {50009, "Windows 2003 Enterprise Edition"},
    {50010, "Windows 2003 Web Edition"},
    {50011, "Windows 2003 Standard Edition"},
    {50012, "Windows Server 2003 R2"},
    {50013, "Windows XP Professional 64 bit"},
    {50014, "Windows Server 2003"},
    {50015, "Windows XP Home"},
    {50016, "Windows XP Professional"},
    {50017, "Windows 2000 Data Center Edition"},
    {50018, "Windows 2000 Advance Server"},
    {50019, "Windows 2000 Professional"},
    {50020, "Windows NT Workstation"},
    {50021, "Windows NT Server Enterprise"},
    {50022, "Windows NT Server Standard"},
    {50023, "Windows 95"},
    {50024, "Windows 98"},
    {50025, "Windows Millennium"},
    {50026, "Windows Vista 64 bit"},
    {50027, "Windows NT 3.51"},
    {50028, "Windows 2000 Server"},
    {50029, "Windows Server 2008 64 bit"},
    {50030, "Windows Server 2008 R2"},
    {50031, "Windows Server 2008 R2 64 bit"},
    {50032, "Windows 7"},
    {50033, "Windows 7 64 bit"},
    {50034, "Windows 8"},
    {50035, "Windows 8 64 bit"},
    {50036, "Windows Server 2012"},
    {50037, "Windows Server 2012 64 bit"},
    {50038, "Windows 8.1"},
    {50039, "Windows 8.1 64 bit"},
    {50040, "Windows Server 2012 R2 64 bit"},
    {50041, "Windows 10"},
    {50042, "Windows 10 64 bit"},
    {50043, "Windows Server 2016 64 bit"},
    {50044, "Windows Small Business Server 2011 Essentials"},
    {50045, "Windows Small Business Server 2011 Essentials 64 bit"},
    {50046, "Windows Server 2019 64 bit"},
    {50047, "Windows Server 2022 64 bit"},
    {50048, "Windows 11"},
    {50049, "Windows 11 64 bit"},
};

TEST(OsName, AllCodesHaveTheirNames) {
  ASSERT_EQ(std::size(kNames), 49U);
  for (const NameRow& row : kNames) {
    char name[100];
    EXPECT_TRUE(GetOSNameByCode(row.code, name, sizeof(name))) << row.code;
    EXPECT_STREQ(name, row.name);
  }
}

TEST(OsName, AllNamesButSmallBusinessServerHaveTheirCodes) {
  for (const NameRow& row : kNames) {
    const bool isSmallBusiness = row.code == 50044 || row.code == 50045;
    EXPECT_EQ(GetOSCodeByName(row.name), isSmallBusiness ? 0 : row.code) << row.name;
  }
}

TEST(OsName, OtherCodesHaveNoName) {
  char name[100] = "untouched";
  for (const std::uint32_t code : {0U, 50000U, 50050U, 4294967295U}) {
    EXPECT_FALSE(GetOSNameByCode(code, name, sizeof(name))) << code;
  }
  EXPECT_STREQ(name, "untouched");
}

TEST(OsName, NamesAreComparedExactly) {
  EXPECT_EQ(GetOSCodeByName("windows 10"), 0U);
  EXPECT_EQ(GetOSCodeByName("Windows 10 "), 0U);
  EXPECT_EQ(GetOSCodeByName("Windows"), 0U);
  EXPECT_EQ(GetOSCodeByName(""), 0U);
  EXPECT_EQ(GetOSCodeByName(nullptr), 0U);
}

TEST(OsName, NameMustFitWithItsTerminator) {
  char name[100];
  EXPECT_TRUE(GetOSNameByCode(50041, name, 11));
  EXPECT_STREQ(name, "Windows 10");
  EXPECT_FALSE(GetOSNameByCode(50041, name, 10));
  EXPECT_FALSE(GetOSNameByCode(50041, name, 1));
  EXPECT_FALSE(GetOSNameByCode(50041, name, 0));
  EXPECT_FALSE(GetOSNameByCode(50041, nullptr, 11));
  EXPECT_TRUE(GetOSNameByCode(50041, name, 0x7FFFFFFF));
  EXPECT_FALSE(GetOSNameByCode(50041, name, 0x80000000));
}

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

using Version = std::pair<DWORD, DWORD>;

// The versions by index, on a 64-bit processor; index 0 stands for any other.
const std::map<int, Version> kVersions = {{1, {5, 0}},  {2, {5, 2}},  {3, {5, 2}},  {4, {6, 0}},
                                          {5, {6, 1}},  {6, {6, 2}},  {7, {6, 3}},  {8, {10, 0}},
                                          {0, {10, 0}}, {9, {10, 0}}, {-1, {10, 0}}};

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

// --- The real functions ---

bool RunsUnderWine() {
  return GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
}

// Makes Wine report a version to programs of one name, for as long as the object lives.
class ReportedVersion {
 public:
  ReportedVersion(const std::string& program, const std::string& version)
      : m_key("Software\\Wine\\AppDefaults\\" + program) {
    EXPECT_EQ(RegSetKeyValueA(HKEY_CURRENT_USER, m_key.c_str(), "Version", REG_SZ, version.c_str(),
                              static_cast<DWORD>(version.size() + 1)),
              ERROR_SUCCESS);
  }
  ~ReportedVersion() { EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, m_key.c_str()), ERROR_SUCCESS); }
  ReportedVersion(const ReportedVersion&) = delete;
  ReportedVersion& operator=(const ReportedVersion&) = delete;

 private:
  std::string m_key;
};

// Runs the program to its end; returns its exit code.
DWORD RunProgram(const std::string& program, const std::string& argument) {
  const std::string commandLine = '"' + program + "\" \"" + argument + '"';
  const KernelHandle process = StartProcess({commandLine.begin(), commandLine.end()}).process;
  WaitForSingleObject(process.Get(), INFINITE);
  DWORD code = 0xFFFFFFFF;
  GetExitCodeProcess(process.Get(), &code);
  return code;
}

struct ReportedRow {
  const char* name;  // as Wine calls the version
  Version version;
  int index;
  bool isServer;
  std::uint32_t code;
};

std::ostream& operator<<(std::ostream& out, const ReportedRow& row) { return out << row.name; }

// What the probe writes for the system.
std::string ExpectedAnswers(const ReportedRow& row) {
  std::string text = "type " + std::string(row.isServer ? "3" : "1") + "\nversion " +
                     std::to_string(row.version.first) + '.' + std::to_string(row.version.second) +
                     "\nindex " + std::to_string(row.index) + " server " +
                     (row.isServer ? "1" : "0") + " nt 1\ncode " + std::to_string(row.code) + '\n';
  for (int index = 1; index <= 8; ++index) {
    const Version compared = kVersions.at(index);
    text += "index " + std::to_string(index) + " equal " + (row.version == compared ? "1" : "0") +
            " or greater " + (row.version >= compared ? "1" : "0") + " less " +
            (row.version < compared ? "1" : "0") + '\n';
  }
  return text;
}

class OsVersionReported : public TestWithParam<ReportedRow> {};

TEST_P(OsVersionReported, RealFunctionsAnswerAccordingly) {
  if (!RunsUnderWine()) {
    GTEST_SKIP() << "only Wine reports versions as told";
  }
  const TempFolder folder;
  // A name that no other process gives to its copy.
  const std::string name = "probe_" + std::string(GetParam().name) + '_' +
                           std::to_string(GetCurrentProcessId()) + ".exe";
  std::filesystem::copy_file("osversion_probe.exe", folder.File(name));
  const ReportedVersion reported(name, GetParam().name);

  ASSERT_EQ(RunProgram(folder.File(name), folder.File("answers.txt")), 0U);
  const ByteVector answers = ReadBytes(folder.File("answers.txt"));
  std::string text(answers.begin(), answers.end());
  std::erase(text, '\r');
  ReportedRow expected = GetParam();
  if (expected.version == Version{6, 1}) {
    // Wine 8 exchanges the product types of these two.
    expected.isServer = text.starts_with("type 3\n");
    expected.code = expected.isServer ? 50031 : 50033;
  }
  EXPECT_EQ(text, ExpectedAnswers(expected));
}

// On the 64-bit processor that this program is built for.
const ReportedRow kReportedRows[] = {
    {"win2k", {5, 0}, 1, false, 50019},   {"winxp", {5, 1}, 2, false, 50013},
    {"winxp64", {5, 2}, 2, false, 50013}, {"win2003", {5, 2}, 3, true, 50007},
    {"vista", {6, 0}, 4, false, 50026},   {"win2008", {6, 0}, 4, true, 50029},
    {"win7", {6, 1}, 5, false, 50033},    {"win2008r2", {6, 1}, 5, true, 50031},
    {"win8", {6, 2}, 6, false, 50035},    {"win81", {6, 3}, 7, false, 50039},
    {"win10", {10, 0}, 8, false, 50042},
};

INSTANTIATE_TEST_SUITE_P(Wine, OsVersionReported, ValuesIn(kReportedRows),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(OsVersionReal, AnswersAgreeWithEachOther) {
  OSVERSIONINFOEXW record{};
  int index = 0;
  bool answer = false;
  EXPECT_TRUE(GetOSVersionInfo(record));
  EXPECT_TRUE(GetVersionIndex(index));
  EXPECT_TRUE(IsVersionEqual(index, answer));
  EXPECT_TRUE(answer);
  EXPECT_TRUE(IsNative64Bit());
  EXPECT_TRUE(IsWinNT(answer));
  EXPECT_TRUE(answer);
  char name[100];
  EXPECT_TRUE(GetOSNameByCode(GetOSCode(), name, sizeof(name)));
  EXPECT_EQ(GetOSCodeByName(name), GetOSCode());
  DWORD type = 0;
  EXPECT_TRUE(GetProductType(type));
  EXPECT_NE(type, 0U);
  EXPECT_TRUE(IsPAEEnabled(answer));
}

}  // namespace
