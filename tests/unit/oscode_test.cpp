// The codes and names of operating systems.
#include <gmock/gmock.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <ostream>
#include <string>

#include "tests/unit/osversion_test.h"

using ::testing::ValuesIn;
using ::testing::WithParamInterface;

namespace {

// --- The code of the running system ---

struct CodeRow {
  const char* name;
  FakeSystem system;
  std::uint32_t code;
};

std::ostream& operator<<(std::ostream& out, const CodeRow& row) { return out << row.name; }

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

}  // namespace
