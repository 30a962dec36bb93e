// The functions of Windows itself.
#include <gmock/gmock.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>

#include "tests/unit/osversion_test.h"

using ::testing::TestWithParam;
using ::testing::ValuesIn;

namespace {

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
