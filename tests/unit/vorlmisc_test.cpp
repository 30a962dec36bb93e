// The staged vorlmisc.dll, copied into an installation folder of its own and loaded by ordinal as
// the product does. Its trace lines go to the recording trace library; the installer's registry key
// is read from a key that belongs to the test.
#include "support/vorlmisc.h"

#include <gmock/gmock.h>
// Reads the types of windows.h.
#include <sddl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "companions/vlevtlog/trace_control.h"
#include "tests/fakes/vlevtlog_fake.h"
#include "tests/support/empty_machine_key.h"
#include "tests/support/installation.h"

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

namespace {

using FolderFunction = BOOLEAN(wchar_t*, DWORD);
using LogOptionsFunction = BOOLEAN();
using StartUpOptionsFunction = BOOLEAN(CLIENT_AGENT_STARTUP_OPTIONS*);

class SupportLibrary : public ::testing::Test {
 protected:
  SupportLibrary() { FakeTraceClear(); }

  // What a folder function gives; "refused" when it gives false and leaves the whole buffer alone.
  static std::wstring Ask(FolderFunction* function, DWORD capacity = kFolderCapacity) {
    constexpr wchar_t kUntouched = 0x5A5A;
    std::array<wchar_t, 600> buffer;
    buffer.fill(kUntouched);
    const bool isGiven = function(buffer.data(), capacity) != FALSE;
    const std::size_t used = isGiven ? std::wcslen(buffer.data()) + 1 : 0;
    for (std::size_t i = used; i < buffer.size(); ++i) {
      EXPECT_EQ(buffer[i], kUntouched) << "character " << i;
    }
    return isGiven ? buffer.data() : L"refused";
  }
  std::wstring RootDir(DWORD capacity = kFolderCapacity) const {
    return Ask(m_library.Ordinal<FolderFunction>(1), capacity);
  }
  std::wstring ConfigDir(DWORD capacity = kFolderCapacity) const {
    return Ask(m_library.Ordinal<FolderFunction>(2), capacity);
  }

  // Writes vorlconf.ini and reads the options from it.
  bool ReadOptions(const std::string& section) {
    WriteText(m_installation / "conf" / "vorlconf.ini", "[STARTUP_OPTIONS]\r\n" + section);
    return ReadOptions();
  }
  bool ReadOptions() {
    std::memset(&m_options, 0xA5, sizeof(m_options));
    return m_library.Ordinal<StartUpOptionsFunction>(6)(&m_options) != FALSE;
  }
  bool AllOptionsAreZero() const {
    const CLIENT_AGENT_STARTUP_OPTIONS zero{};
    return std::memcmp(&m_options, &zero, sizeof(zero)) == 0;
  }

  // The lines since the last call: "<level> <module> <function>: <text>".
  static std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (unsigned i = 0; i < FakeTraceCount(); ++i) {
      FakeTraceLine line{};
      FakeTraceGet(i, &line);
      lines.push_back(std::to_string(line.level) + " " + line.moduleName + " " + line.functionName +
                      ": " + line.text);
      EXPECT_THAT(line.sourceFile, ::testing::StartsWith("companions/vorlmisc/"));
      EXPECT_GT(line.line, 0);
    }
    FakeTraceClear();
    return lines;
  }
  static std::string RootLine(const std::string& text) {
    return "1 vorlmisc.dll GetClientAgentRootDir: " + text;
  }
  static std::string OffDriveLine(const fs::path& path) {
    return RootLine("Registry value RootDir is no folder on a drive of this computer: " +
                    path.string());
  }
  static std::string ConfigLine(const std::string& text) {
    return "1 vorlmisc.dll GetClientAgentConfigDir: " + text;
  }
  static std::string OptionLine(const std::string& text) {
    return "1 vorlmisc.dll GetClientAgentStartUpOptions: " + text;
  }

  const EmptyMachineKey m_machine;
  const Installation m_installation{{"vorlmisc.dll"}};
  const Library m_library{m_installation / "vorlmisc.dll"};
  CLIENT_AGENT_STARTUP_OPTIONS m_options;
};

// The pauses of the library, which take no time here.
struct Pauses {
  static void Watch(const Library& library, std::function<void(unsigned)> atPause) {
    s_count = 0;
    s_milliseconds = 0;
    s_atPause = std::move(atPause);
    library.ReplaceImport<void WINAPI(DWORD)>("Sleep", &Pause);
  }
  static void WINAPI Pause(DWORD milliseconds) {
    s_milliseconds += milliseconds;
    s_atPause(++s_count);
  }

  static inline unsigned s_count;
  static inline DWORD s_milliseconds;
  static inline std::function<void(unsigned)> s_atPause;
};

std::wstring AccessListOf(PSECURITY_DESCRIPTOR descriptor) {
  wchar_t* text = nullptr;
  EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(
      descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
  const std::wstring list = text == nullptr ? L"" : text;
  LocalFree(text);
  return list;
}

std::wstring AccessListOf(const fs::path& folder) {
  std::array<BYTE, 4096> descriptor{};
  DWORD needed = 0;
  EXPECT_TRUE(GetFileSecurityW(folder.c_str(), DACL_SECURITY_INFORMATION, descriptor.data(),
                               static_cast<DWORD>(descriptor.size()), &needed));
  return AccessListOf(descriptor.data());
}

// A folder whose path has exactly `length` characters.
fs::path LongFolder(const fs::path& parent, std::size_t length) {
  const fs::path folder = parent / std::wstring(length - parent.wstring().size() - 1, L'f');
  EXPECT_EQ(folder.wstring().size(), length);
  EXPECT_TRUE(CreateDirectoryW((L"\\\\?\\" + folder.wstring()).c_str(), nullptr));
  return folder;
}

TEST_F(SupportLibrary, IsExportedByItsFourOrdinalsWithoutNames) {
  EXPECT_THAT(m_library.ExportedOrdinals(), ElementsAre(1, 2, 5, 6));
  EXPECT_THAT(m_library.ExportedNames(), IsEmpty());
}

TEST_F(SupportLibrary, FoldersAreTheLibrarysOwnAndItsConfByDefault) {
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
  EXPECT_EQ(ConfigDir(), (m_installation / "conf").wstring());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, ConfigFolderIsMadeWhenMissingAndKeptWhenThere) {
  ASSERT_FALSE(fs::exists(m_installation / "conf"));
  EXPECT_NE(ConfigDir(), L"refused");
  EXPECT_TRUE(fs::is_directory(m_installation / "conf"));
  WriteText(m_installation / "conf" / "kept.txt", "kept");
  EXPECT_NE(ConfigDir(), L"refused");
  EXPECT_TRUE(fs::exists(m_installation / "conf" / "kept.txt"));
  EXPECT_THAT(Lines(), IsEmpty());
}

// The access list is read on its way to Windows, since Wine keeps of it only what the permissions
// of its host can express.
TEST_F(SupportLibrary, ConfigFolderIsMadeForTheSystemAndAdministratorsOnly) {
  static std::vector<std::wstring> made;
  made.clear();
  m_library.ReplaceImport<BOOL WINAPI(const wchar_t*, SECURITY_ATTRIBUTES*)>(
      "CreateDirectoryW", +[](const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
        made.push_back(attributes == nullptr ? L"inherited"
                                             : AccessListOf(attributes->lpSecurityDescriptor));
        return CreateDirectoryW(path, attributes);
      });
  EXPECT_NE(ConfigDir(), L"refused");
  EXPECT_THAT(made, ElementsAre(L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"));
  EXPECT_TRUE(fs::is_directory(m_installation / "conf"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, AccessListOfAConfigFolderThatIsThereIsLeftAlone) {
  const fs::path folder = m_installation / "conf";
  SECURITY_ATTRIBUTES access{sizeof access, nullptr, FALSE};
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
      L"D:P(A;OICI;FA;;;WD)", SDDL_REVISION_1, &access.lpSecurityDescriptor, nullptr));
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), &access));
  LocalFree(access.lpSecurityDescriptor);
  const std::wstring before = AccessListOf(folder);
  ASSERT_NE(before.find(L";;;WD)"), std::wstring::npos) << "the test's own folder";
  EXPECT_EQ(ConfigDir(), folder.wstring());
  EXPECT_EQ(AccessListOf(folder), before);
}

TEST_F(SupportLibrary, RegisteredFoldersGoFirst) {
  const TempFolder other;
  fs::create_directory(other.Path() / "root");
  m_machine.SetText(L"RootDir", (other.Path() / "root").wstring());
  m_machine.SetText(L"ConfigDir", (other.Path() / "settings").wstring());
  EXPECT_EQ(RootDir(), (other.Path() / "root").wstring());
  EXPECT_EQ(ConfigDir(), (other.Path() / "settings").wstring());
  EXPECT_TRUE(fs::is_directory(other.Path() / "settings"));
  EXPECT_FALSE(fs::exists(m_installation / "conf"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, ConfigFolderLiesBelowTheRegisteredRootWhenItIsNotRegistered) {
  const TempFolder other;
  m_machine.SetText(L"RootDir", other.Path().wstring());
  EXPECT_EQ(ConfigDir(), (other.Path() / "conf").wstring());
}

TEST_F(SupportLibrary, TrailingBackslashesAreTakenOff) {
  m_machine.SetText(L"RootDir", m_installation.Path().wstring() + L"\\\\");
  m_machine.SetText(L"ConfigDir", m_installation.Path().wstring() + L"\\set\\");
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
  EXPECT_EQ(ConfigDir(), (m_installation / "set").wstring());
}

TEST_F(SupportLibrary, SlashesAndDotsAreBroughtIntoTheFormOfWindows) {
  std::wstring slashes = m_installation.Path().wstring();
  std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
  m_machine.SetText(L"RootDir", slashes + L"/");
  m_machine.SetText(L"ConfigDir",
                    m_installation.Path().wstring() + L"\\no\\such\\..\\.\\..\\\\set");
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
  EXPECT_EQ(ConfigDir(), (m_installation / "set").wstring());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, EnvironmentVariablesInTheRegistryAreExpanded) {
  wchar_t windows[MAX_PATH];
  GetEnvironmentVariableW(L"SystemRoot", windows, MAX_PATH);
  m_machine.SetText(L"RootDir", L"%SystemRoot%", REG_EXPAND_SZ);
  EXPECT_EQ(RootDir(), windows);
}

TEST_F(SupportLibrary, EmptyRegistryValueCountsAsMissing) {
  m_machine.SetText(L"RootDir", L"");
  m_machine.SetText(L"ConfigDir", L"");
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
  EXPECT_EQ(ConfigDir(), (m_installation / "conf").wstring());
}

TEST_F(SupportLibrary, UnusableRegistryValueIsRefusedAndNotReplacedByADefault) {
  const DWORD number = 4;
  m_machine.SetValue(L"RootDir", REG_DWORD, &number, sizeof(number));
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(RootLine("Registry value RootDir cannot be read (1630)")));

  for (const std::wstring path :
       {L"Program Files\\Agent", L"\"C:\\Agent\"", L"C:Agent", L"\\Agent", L"C:", L"/agent"}) {
    m_machine.SetText(L"RootDir", path);
    EXPECT_EQ(RootDir(), L"refused");
    EXPECT_THAT(Lines(), ElementsAre(RootLine("Registry value RootDir is no full path: " +
                                              fs::path(path).string())));
  }

  m_machine.SetText(L"RootDir", (m_installation / "missing").wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(RootLine("Installation folder does not exist: " +
                                            (m_installation / "missing").string())));
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(ConfigLine("Installation folder does not exist: " +
                                              (m_installation / "missing").string())));
}

TEST_F(SupportLibrary, FolderThatLeavesRoomForAFileNameIsGivenAndALongerOneIsRefused) {
  const TempFolder parent;
  const fs::path longest = LongFolder(parent.Path(), 246);
  const fs::path tooLong = LongFolder(parent.Path(), 247);
  m_machine.SetText(L"RootDir", longest.wstring());
  m_machine.SetText(L"ConfigDir", longest.wstring());
  EXPECT_EQ(RootDir(), longest.wstring());
  EXPECT_EQ(ConfigDir(), longest.wstring());
  EXPECT_THAT(Lines(), IsEmpty());

  m_machine.SetText(L"RootDir", tooLong.wstring());
  m_machine.SetText(L"ConfigDir", tooLong.wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(RootLine("Folder of 247 characters is too long, at most 246: " +
                                            tooLong.string())));
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(Lines(),
              ElementsAre(ConfigLine("Folder of 247 characters is too long, at most 246: " +
                                     tooLong.string())));

  // The folder fits, what is appended to it does not.
  m_machine.SetText(L"RootDir", longest.wstring());
  m_machine.SetText(L"ConfigDir", L"");
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(Lines(),
              ElementsAre(ConfigLine("Folder of 251 characters is too long, at most 246: " +
                                     longest.string() + "\\conf")));
}

TEST_F(SupportLibrary, FolderThatIsOnNoDriveOfThisComputerIsRefused) {
  for (const std::wstring path : {L"\\\\server\\share\\a", L"\\\\?\\C:\\a", L"\\\\.\\C:\\a",
                                  L"//server/a", L"\\??\\C:\\a", L"C:\\", L"C:\\a\\.."}) {
    m_machine.SetText(L"RootDir", path);
    EXPECT_EQ(RootDir(), L"refused");
    EXPECT_THAT(Lines(), ElementsAre(OffDriveLine(path)));
  }
}

TEST_F(SupportLibrary, FolderOnANetworkDriveIsRefused) {
  m_library.ReplaceImport<UINT WINAPI(const wchar_t*)>(
      "GetDriveTypeW", +[](const wchar_t* root) -> UINT {
        return std::wcscmp(root, L"N:\\") == 0 ? DRIVE_REMOTE : DRIVE_FIXED;
      });
  m_machine.SetText(L"RootDir", L"N:\\agent");
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(OffDriveLine(L"N:\\agent")));
  m_machine.SetText(L"RootDir", m_installation.Path().wstring());
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
}

TEST_F(SupportLibrary, FolderOnASubstitutedDriveIsRefused) {
  m_library.ReplaceImport<DWORD WINAPI(const wchar_t*, wchar_t*, DWORD)>(
      "QueryDosDeviceW", +[](const wchar_t* drive, wchar_t* target, DWORD) -> DWORD {
        const std::wstring device =
            std::wcscmp(drive, L"S:") == 0 ? L"\\??\\C:\\folder" : L"\\Device\\HarddiskVolume1";
        // Two null characters end the list of targets.
        std::wmemcpy(target, (device + L'\0').c_str(), device.size() + 2);
        return static_cast<DWORD>(device.size() + 2);
      });
  m_machine.SetText(L"RootDir", L"S:\\agent");
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(OffDriveLine(L"S:\\agent")));
  m_machine.SetText(L"RootDir", m_installation.Path().wstring());
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
}

TEST_F(SupportLibrary, RegistryValueBeyondAllBuffersIsRefused) {
  m_machine.SetText(L"RootDir", L"C:\\" + std::wstring(5000, L'x'));
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(RootLine("Registry value RootDir cannot be read (234)")));
}

TEST_F(SupportLibrary, CapacityCountsCharactersAndIsObeyed) {
  const DWORD needed = static_cast<DWORD>(m_installation.Path().wstring().size()) + 1;
  EXPECT_EQ(RootDir(needed), m_installation.Path().wstring());
  EXPECT_EQ(ConfigDir(needed + 5), (m_installation / "conf").wstring());
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(RootDir(needed - 1), L"refused");
  EXPECT_EQ(ConfigDir(needed + 4), L"refused");
  EXPECT_EQ(RootDir(0), L"refused");
  EXPECT_THAT(
      Lines(),
      ElementsAre(
          RootLine("Folder needs " + std::to_string(needed) +
                   " characters, the caller has room for " + std::to_string(needed - 1) + ": " +
                   m_installation.Path().string()),
          ConfigLine("Folder needs " + std::to_string(needed + 5) +
                     " characters, the caller has room for " + std::to_string(needed + 4) + ": " +
                     (m_installation / "conf").string()),
          RootLine("Folder needs " + std::to_string(needed) +
                   " characters, the caller has room for 0: " + m_installation.Path().string())));
}

TEST_F(SupportLibrary, NullPointersAreRefused) {
  EXPECT_EQ(m_library.Ordinal<FolderFunction>(1)(nullptr, 520), FALSE);
  EXPECT_EQ(m_library.Ordinal<FolderFunction>(2)(nullptr, 520), FALSE);
  EXPECT_EQ(m_library.Ordinal<StartUpOptionsFunction>(6)(nullptr), FALSE);
  EXPECT_THAT(Lines(), ElementsAre(RootLine("NULL Parameter received"),
                                   ConfigLine("NULL Parameter received"),
                                   OptionLine("NULL Parameter received")));
}

TEST_F(SupportLibrary, ConfigFolderThatCannotBeMadeIsRefused) {
  WriteText(m_installation / "conf", "a file");
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_EQ(m_library.Ordinal<LogOptionsFunction>(5)(), FALSE);
  const std::string text =
      "Configuration folder cannot be made (183): " + (m_installation / "conf").string();
  EXPECT_THAT(Lines(), ElementsAre(ConfigLine(text), OptionLine(text),
                                   "1 vorlmisc.dll SetClientAgentLogOptions: " + text));

  m_machine.SetText(L"ConfigDir", (m_installation / "no" / "parent").wstring());
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(Lines(), ElementsAre(ConfigLine("Configuration folder cannot be made (3): " +
                                              (m_installation / "no" / "parent").string())));
}

TEST_F(SupportLibrary, OptionsAreFilledEachFromTheKeyOfItsName) {
  EXPECT_TRUE(
      ReadOptions("Text1=first text\r\nText2=second\r\nText3=third\r\nText4=C:\\fourth\r\n"
                  "Word1=1\r\nWord2=2\r\nWord3=3\r\nWord4=4\r\n"
                  "Dword1=11\r\nDword2=12\r\nDword3=13\r\nDword4=14\r\nDword5=15\r\nDword6=16\r\n"
                  "Byte1=21\r\n"));
  CLIENT_AGENT_STARTUP_OPTIONS expected{};
  std::strcpy(expected.Text1, "first text");
  std::strcpy(expected.Text2, "second");
  std::strcpy(expected.Text3, "third");
  std::strcpy(expected.Text4, "C:\\fourth");
  expected.Word1 = 1;
  expected.Word2 = 2;
  expected.Word3 = 3;
  expected.Word4 = 4;
  expected.Dword1 = 11;
  expected.Dword2 = 12;
  expected.Dword3 = 13;
  expected.Dword4 = 14;
  expected.Dword5 = 15;
  expected.Dword6 = 16;
  expected.Byte1 = 21;
  EXPECT_EQ(std::memcmp(&m_options, &expected, sizeof(expected)), 0);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, NumbersReachFromZeroToTheLargestDecimalOrHexadecimal) {
  EXPECT_TRUE(
      ReadOptions("Word1=65535\r\nWord2=0xFFFF\r\nWord3=0\r\nWord4=010\r\nDword1=4294967295\r\n"
                  "Dword2=0xffffffff\r\nDword3=0X1a\r\nDword4=  7  \r\nDword5=0x0\r\n"
                  "Dword6=000000000000000000000000012\r\nByte1=0xFf\r\n"));
  EXPECT_EQ(m_options.Word1, 65535);
  EXPECT_EQ(m_options.Word2, 65535);
  EXPECT_EQ(m_options.Word3, 0);
  EXPECT_EQ(m_options.Word4, 10);
  EXPECT_EQ(DWORD{m_options.Dword1}, 4294967295U);
  EXPECT_EQ(DWORD{m_options.Dword2}, 4294967295U);
  EXPECT_EQ(DWORD{m_options.Dword3}, 26U);
  EXPECT_EQ(DWORD{m_options.Dword4}, 7U);
  EXPECT_EQ(DWORD{m_options.Dword5}, 0U);
  EXPECT_EQ(DWORD{m_options.Dword6}, 12U);
  EXPECT_EQ(m_options.Byte1, 255);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, CommentMayFollowANumberButBelongsToAText) {
  EXPECT_TRUE(ReadOptions("Word1=5 ; five\r\nWord2=0x10;sixteen\r\nWord3=;none\r\nText1=a;b\r\n"));
  EXPECT_EQ(m_options.Word1, 5);
  EXPECT_EQ(m_options.Word2, 16);
  EXPECT_EQ(m_options.Word3, 0);
  EXPECT_STREQ(m_options.Text1, "a;b");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, NumberOutOfRangeIsRefusedWithOneLineAndLeftZero) {
  EXPECT_TRUE(ReadOptions(
      "Word1=65536\r\nWord2=0x10000\r\nWord3=5\r\nDword1=4294967296\r\n"
      "Dword2=0x100000000\r\nDword3=99999999999999999999999999999999\r\nByte1=256\r\n"));
  EXPECT_EQ(m_options.Word3, 5);
  m_options.Word3 = 0;
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(
      Lines(),
      ElementsAre(
          OptionLine("Start-up option Word1 is no number from 0 to 65535: 65536"),
          OptionLine("Start-up option Word2 is no number from 0 to 65535: 0x10000"),
          OptionLine("Start-up option Dword1 is no number from 0 to 4294967295: 4294967296"),
          OptionLine("Start-up option Dword2 is no number from 0 to 4294967295: 0x100000000"),
          OptionLine("Start-up option Dword3 is no number from 0 to 4294967295: "
                     "99999999999999999999999999999999"),
          OptionLine("Start-up option Byte1 is no number from 0 to 255: 256")));
}

TEST_F(SupportLibrary, WhatIsNoNumberIsRefusedWithOneLineAndLeftZero) {
  for (const std::string value : {"-1", "+1", "0x", "1.5", "12ab", "ten", "0b11", "1 2", "5 five",
                                  "0x-1", "0xG", "1e3", "\"\"0"}) {
    EXPECT_TRUE(ReadOptions("Dword1=" + value + "\r\n"));
    EXPECT_TRUE(AllOptionsAreZero());
    EXPECT_THAT(Lines(),
                ElementsAre(OptionLine(
                    "Start-up option Dword1 is no number from 0 to 4294967295: " + value)));
    fs::remove_all(m_installation / "conf");
  }
}

TEST_F(SupportLibrary, TextMayFillItsFieldAndALongerOneIsRefusedWithOneLine) {
  const std::string text519(519, 'a');
  const std::string text39(39, 'c');
  const std::string text259(259, 'd');
  EXPECT_TRUE(ReadOptions("Text1=" + text519 + "\r\nText2=" + text519 + "\r\nText3=" + text39 +
                          "\r\nText4=" + text259 + "\r\n"));
  EXPECT_EQ(m_options.Text1, text519);
  EXPECT_EQ(m_options.Text2, text519);
  EXPECT_EQ(m_options.Text3, text39);
  EXPECT_EQ(m_options.Text4, text259);
  EXPECT_THAT(Lines(), IsEmpty());

  fs::remove_all(m_installation / "conf");
  EXPECT_TRUE(ReadOptions("Text1=" + text519 + "a\r\nText2=" + std::string(5000, 'b') +
                          "\r\nText3=" + text39 + "c\r\nText4=" + text259 + "d\r\n"));
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(Lines(),
              ElementsAre(OptionLine("Start-up option Text1 has more than 519 characters"),
                          OptionLine("Start-up option Text2 has more than 519 characters"),
                          OptionLine("Start-up option Text3 has more than 39 characters"),
                          OptionLine("Start-up option Text4 has more than 259 characters")));
}

TEST_F(SupportLibrary, QuotesKeepBlanksAndTakeNoRoom) {
  EXPECT_TRUE(ReadOptions("Text1=\"  quoted  \"\r\nText2=  bare  \r\nText3=\r\n"));
  EXPECT_STREQ(m_options.Text1, "  quoted  ");
  EXPECT_STREQ(m_options.Text2, "bare");
  EXPECT_STREQ(m_options.Text3, "");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, CharactersOutsideTheCodePageAreRefusedWithOneLine) {
  if (GetACP() == CP_UTF8) {
    GTEST_SKIP() << "this code page has every character";
  }
  fs::create_directory(m_installation / "conf");
  const std::wstring file = (m_installation / "conf" / "vorlconf.ini").wstring();
  // The byte order mark makes it a file in UTF-16.
  WriteText(file, "\xFF\xFE");
  ASSERT_TRUE(
      WritePrivateProfileStringW(L"STARTUP_OPTIONS", L"Text1", L"\x4E2D\x6587", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileStringW(L"STARTUP_OPTIONS", L"Text2", L"plain", file.c_str()));
  EXPECT_TRUE(ReadOptions());
  EXPECT_STREQ(m_options.Text1, "");
  EXPECT_STREQ(m_options.Text2, "plain");
  EXPECT_THAT(Lines(),
              ElementsAre(OptionLine("Start-up option Text1 has characters outside of code page " +
                                     std::to_string(GetACP()))));
}

TEST_F(SupportLibrary, TextWhoseConversionFailsIsRefusedWithOneLine) {
  using Convert = decltype(WideCharToMultiByte);
  static Convert* convert;
  convert = m_library.ReplaceImport<Convert>(
      "WideCharToMultiByte", [](UINT codePage, DWORD flags, LPCWCH wide, int length, LPSTR narrow,
                                int size, LPCCH defaultText, LPBOOL replaced) {
        if (narrow == nullptr) {
          return convert(codePage, flags, wide, length, narrow, size, defaultText, replaced);
        }
        *narrow = 'x';
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
      });
  EXPECT_TRUE(ReadOptions("Text1=a\r\nWord1=7\r\n"));
  EXPECT_STREQ(m_options.Text1, "");
  EXPECT_EQ(m_options.Word1, 7);
  EXPECT_THAT(Lines(), ElementsAre(OptionLine("Start-up option Text1 cannot be converted (8)")));
}

TEST_F(SupportLibrary, MissingFileSectionOrKeyMeansZero) {
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  WriteText(m_installation / "conf" / "vorlconf.ini", "[OTHER]\r\nWord1=1\r\n");
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, FileThatNobodyHoldsIsReadWithoutAPause) {
  Pauses::Watch(m_library, [](unsigned) {});
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(ReadOptions("Word1=1\r\n"));
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_EQ(Pauses::s_count, 0U);
}

TEST_F(SupportLibrary, FileThatIsGivenBackIsReadWithoutALine) {
  WriteText(m_installation / "conf" / "vorlconf.ini", "[STARTUP_OPTIONS]\r\nWord1=1\r\n");
  // The first pause and the last.
  for (const unsigned given : {1U, 100U}) {
    FileHandle held(CreateFileW((m_installation / "conf" / "vorlconf.ini").c_str(), GENERIC_READ, 0,
                                nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(held);
    Pauses::Watch(m_library, [&](unsigned pause) {
      if (pause == given) {
        held.Reset();
      }
    });
    EXPECT_TRUE(ReadOptions());
    EXPECT_EQ(m_options.Word1, 1);
    EXPECT_EQ(Pauses::s_count, given);
    EXPECT_THAT(Lines(), IsEmpty());
  }
}

TEST_F(SupportLibrary, FileThatIsEmptiedToBeWrittenAnewIsWaitedFor) {
  WriteText(m_installation / "conf" / "vorlconf.ini", "");
  // However slow this computer is, the file was emptied just now.
  static FILETIME emptied;
  WIN32_FILE_ATTRIBUTE_DATA data{};
  ASSERT_TRUE(GetFileAttributesExW((m_installation / "conf" / "vorlconf.ini").c_str(),
                                   GetFileExInfoStandard, &data));
  emptied = data.ftLastWriteTime;
  m_library.ReplaceImport<void WINAPI(FILETIME*)>(
      "GetSystemTimeAsFileTime", +[](FILETIME* now) { *now = emptied; });
  Pauses::Watch(m_library, [&](unsigned pause) {
    if (pause == 2) {
      WriteText(m_installation / "conf" / "vorlconf.ini", "[STARTUP_OPTIONS]\r\nWord1=1\r\n");
    }
  });
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_EQ(Pauses::s_count, 2U);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, FileThatIsNotGivenBackFailsWithOneLineAndAllZero) {
  WriteText(m_installation / "conf" / "vorlconf.ini", "[STARTUP_OPTIONS]\r\nWord1=1\r\n");
  const FileHandle held(CreateFileW((m_installation / "conf" / "vorlconf.ini").c_str(),
                                    GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(held);
  Pauses::Watch(m_library, [](unsigned) {});
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_EQ(Pauses::s_milliseconds, 5000U);
  EXPECT_THAT(Lines(),
              ElementsAre(OptionLine("Configuration file is still in use after 5 s (32): " +
                                     (m_installation / "conf" / "vorlconf.ini").string())));
}

TEST_F(SupportLibrary, FileThatIsNoTextOrTooLargeFailsWithOneLineAndAllZero) {
  const fs::path file = m_installation / "conf" / "vorlconf.ini";
  Pauses::Watch(m_library, [](unsigned) {});
  const std::string option = "[STARTUP_OPTIONS]\r\nWord1=1\r\n";
  WriteText(file, option + std::string(4096, '\0'));
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(Lines(),
              ElementsAre(OptionLine("Configuration file is damaged, it holds null characters: " +
                                     file.string())));
  WriteText(file, option + std::string(1048577 - option.size(), ' '));
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(Lines(), ElementsAre(OptionLine("Configuration file has more than 1048576 bytes: " +
                                              file.string())));
  WriteText(file, option + std::string(1048576 - option.size(), ' '));
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_EQ(Pauses::s_count, 0U);
}

TEST_F(SupportLibrary, FolderOfTheFilesNameFailsWithOneLine) {
  fs::create_directories(m_installation / "conf" / "vorlconf.ini");
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(Lines(),
              ElementsAre(OptionLine("Configuration file cannot be read (5): " +
                                     (m_installation / "conf" / "vorlconf.ini").string())));
}

TEST_F(SupportLibrary, ReadOnlyFileIsRead) {
  WriteText(m_installation / "conf" / "vorlconf.ini", "[STARTUP_OPTIONS]\r\nWord1=1\r\n");
  const std::wstring file = (m_installation / "conf" / "vorlconf.ini").wstring();
  ASSERT_TRUE(SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(SupportLibrary, EveryRoundReadsTheFoldersAndTheFileAnew) {
  for (int round = 0; round < 3; ++round) {
    const TempFolder other;
    m_machine.SetText(L"RootDir", other.Path().wstring());
    EXPECT_EQ(RootDir(), other.Path().wstring());
    WriteText(other.Path() / "conf" / "vorlconf.ini",
              "[STARTUP_OPTIONS]\r\nWord1=" + std::to_string(round + 1) + "\r\n");
    EXPECT_TRUE(ReadOptions());
    EXPECT_EQ(m_options.Word1, round + 1);
  }
  EXPECT_THAT(Lines(), IsEmpty());
}

// The file that the installer ships, as it is and with all its comments of settings taken off.
TEST_F(SupportLibrary, SampleConfigurationStatesTheDefaults) {
  const fs::path sample =
      StagedFolder().parent_path() / "tests" / "unit" / "sample" / "vorlconf.ini";
  fs::create_directory(m_installation / "conf");
  const fs::path file = m_installation / "conf" / "vorlconf.ini";
  fs::copy_file(sample, file);
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());

  std::ifstream in(sample);
  std::string text;
  unsigned settings = 0;
  for (std::string line; std::getline(in, line);) {
    const bool isSetting = line.starts_with(";") && line.find('=') != std::string::npos;
    text += (isSetting ? line.substr(1) : line) + "\r\n";
    settings += isSetting ? 1U : 0U;
  }
  EXPECT_EQ(settings, 19U);
  fs::remove_all(m_installation / "conf");
  WriteText(file, text);
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(Lines(), IsEmpty());
}

// The recording trace library has the two functions of the contract and nothing else.
TEST_F(SupportLibrary, LogOptionsAreATraceLibrarysOwnAffairWhenItTakesNone) {
  EXPECT_NE(m_library.Ordinal<LogOptionsFunction>(5)(), FALSE);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(SupportLibrary, LogOptionsThatTheTraceLibraryRefusesFailWithOneLine) {
  static std::vector<std::wstring> asked;
  asked.clear();
  m_library.ReplaceImport<FARPROC WINAPI(HMODULE, const char*)>(
      "GetProcAddress", +[](HMODULE module, const char* name) -> FARPROC {
        EXPECT_EQ(module, GetModuleHandleW(L"vlevtlog.dll"));
        EXPECT_EQ(name, MAKEINTRESOURCEA(kApplyTraceOptionsOrdinal));
        ApplyTraceOptionsFunction* const refuse = [](const wchar_t* file) -> BOOLEAN {
          asked.emplace_back(file);
          return FALSE;
        };
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(refuse));
      });
  EXPECT_EQ(m_library.Ordinal<LogOptionsFunction>(5)(), FALSE);
  const fs::path file = m_installation / "conf" / "vorlconf.ini";
  EXPECT_THAT(asked, ElementsAre(file.wstring()));
  EXPECT_THAT(Lines(),
              ElementsAre("1 vorlmisc.dll SetClientAgentLogOptions: Trace options cannot be "
                          "applied: " +
                          file.string()));
}

}  // namespace
