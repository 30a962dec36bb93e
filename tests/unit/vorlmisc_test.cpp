// The staged vorlmisc.dll, copied into an installation folder of its own and loaded by ordinal as
// the product does: its folders and trace options. Its trace lines go to the recording trace
// library; the installer's registry key is read from a key that belongs to the test.
#include "support/vorlmisc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "tests/support/text.h"
#include "tests/unit/vorlmisc_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST_F(SupportLibrary, IsExportedByItsFourOrdinalsWithoutNames) {
  EXPECT_THAT(m_library.ExportedOrdinals(), ElementsAre(1, 2, 5, 6));
  EXPECT_THAT(m_library.ExportedNames(), IsEmpty());
}

TEST_F(SupportLibrary, FoldersAreTheLibrarysOwnAndItsConfByDefault) {
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
  EXPECT_EQ(ConfigDir(), (m_installation / "conf").wstring());
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, ConfigFolderIsMadeWhenMissingAndKeptWhenThere) {
  ASSERT_FALSE(fs::exists(m_installation / "conf"));
  EXPECT_NE(ConfigDir(), L"refused");
  EXPECT_TRUE(fs::is_directory(m_installation / "conf"));
  WriteText(m_installation / "conf" / "kept.txt", "kept");
  EXPECT_NE(ConfigDir(), L"refused");
  EXPECT_TRUE(fs::exists(m_installation / "conf" / "kept.txt"));
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

// The access list is read on its way to Windows, since Wine keeps of it only what the permissions
// of its host can express.
TEST_F(SupportLibrary, ConfigFolderIsMadeForTheSystemAndAdministratorsOnly) {
  m_library.ReplaceImport<BOOL WINAPI(const wchar_t*, SECURITY_ATTRIBUTES*)>(
      "CreateDirectoryW", +[](const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
        s_journal->Call("CreateDirectoryW(" + Quoted(path) + ", " +
                        (attributes == nullptr
                             ? "inherited"
                             : Utf8(AccessListOf(attributes->lpSecurityDescriptor))) +
                        ")");
        return CreateDirectoryW(path, attributes);
      });
  EXPECT_NE(ConfigDir(), L"refused");
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre("CreateDirectoryW(" + Quoted((m_installation / "conf").c_str()) +
                          ", D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA))"));
  EXPECT_TRUE(fs::is_directory(m_installation / "conf"));
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
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
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
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
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

// Not even of a terminator, behind one that had a folder in it.
TEST_F(SupportLibrary, RegistryValueOfNoBytesCountsAsMissing) {
  const TempFolder other;
  for (const wchar_t* const name : {L"RootDir", L"ConfigDir"}) {
    m_machine.SetText(name, other.Path().wstring());
    EXPECT_EQ(name == std::wstring(L"RootDir") ? RootDir() : ConfigDir(), other.Path().wstring());
    m_machine.SetValue(name, REG_SZ, L"", 0);
    EXPECT_EQ(RootDir(), m_installation.Path().wstring());
    EXPECT_EQ(ConfigDir(), (m_installation / "conf").wstring());
  }
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, UnusableRegistryValueIsRefusedAndNotReplacedByADefault) {
  const DWORD number = 4;
  m_machine.SetValue(L"RootDir", REG_DWORD, &number, sizeof(number));
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Registry value RootDir cannot be read (1630)")));

  for (const std::wstring path :
       {L"Program Files\\Agent", L"\"C:\\Agent\"", L"C:Agent", L"\\Agent", L"C:", L"/agent"}) {
    m_machine.SetText(L"RootDir", path);
    EXPECT_EQ(RootDir(), L"refused");
    EXPECT_THAT(m_journal.TakeTraces(),
                ElementsAre(kRootDir.Error("Registry value RootDir is no full path: " +
                                           fs::path(path).string())));
  }

  m_machine.SetText(L"RootDir", (m_installation / "missing").wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Installation folder does not exist: " +
                                         (m_installation / "missing").string())));
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kConfigDir.Error("Installation folder does not exist: " +
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
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());

  m_machine.SetText(L"RootDir", tooLong.wstring());
  m_machine.SetText(L"ConfigDir", tooLong.wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Folder of 247 characters is too long, at most 246: " +
                                         tooLong.string())));
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kConfigDir.Error("Folder of 247 characters is too long, at most 246: " +
                                           tooLong.string())));

  // The folder fits, what is appended to it does not.
  m_machine.SetText(L"RootDir", longest.wstring());
  m_machine.SetText(L"ConfigDir", L"");
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kConfigDir.Error("Folder of 251 characters is too long, at most 246: " +
                                           longest.string() + "\\conf")));
}

TEST_F(SupportLibrary, RegistryValueIsReadUpTo1023Characters) {
  const std::string longest = "C:\\" + std::string(1020, 'x');
  m_machine.SetText(L"RootDir", fs::path(longest).wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Folder of 1023 characters is too long, at most 246: " +
                                         longest)));
  m_machine.SetText(L"RootDir", fs::path(longest + "x").wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Registry value RootDir cannot be read (234)")));
}

TEST_F(SupportLibrary, RegistryValueBeyondAllBuffersIsRefused) {
  m_machine.SetText(L"RootDir", L"C:\\" + std::wstring(5000, L'x'));
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Registry value RootDir cannot be read (234)")));
}

TEST_F(SupportLibrary, CapacityCountsCharactersAndIsObeyed) {
  const DWORD needed = static_cast<DWORD>(m_installation.Path().wstring().size()) + 1;
  EXPECT_EQ(RootDir(needed), m_installation.Path().wstring());
  EXPECT_EQ(ConfigDir(needed + 5), (m_installation / "conf").wstring());
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
  EXPECT_EQ(RootDir(needed - 1), L"refused");
  EXPECT_EQ(ConfigDir(needed + 4), L"refused");
  EXPECT_EQ(RootDir(0), L"refused");
  EXPECT_THAT(
      m_journal.TakeTraces(),
      ElementsAre(
          kRootDir.From(kMiscSource)
              .Error("Folder needs " + std::to_string(needed) +
                     " characters, the caller has room for " + std::to_string(needed - 1) + ": " +
                     m_installation.Path().string()),
          kConfigDir.From(kMiscSource)
              .Error("Folder needs " + std::to_string(needed + 5) +
                     " characters, the caller has room for " + std::to_string(needed + 4) + ": " +
                     (m_installation / "conf").string()),
          kRootDir.From(kMiscSource)
              .Error("Folder needs " + std::to_string(needed) +
                     " characters, the caller has room for 0: " + m_installation.Path().string())));
}

TEST_F(SupportLibrary, NullPointersAreRefused) {
  EXPECT_EQ(m_library.Ordinal<FolderFunction>(1)(nullptr, 520), FALSE);
  EXPECT_EQ(m_library.Ordinal<FolderFunction>(2)(nullptr, 520), FALSE);
  EXPECT_EQ(m_library.Ordinal<StartUpOptionsFunction>(6)(nullptr), FALSE);
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.From(kMiscSource).Error("NULL Parameter received"),
                          kConfigDir.From(kMiscSource).Error("NULL Parameter received"),
                          kStartUpOptions.From(kMiscSource).Error("NULL Parameter received")));
}

TEST_F(SupportLibrary, ConfigFolderThatCannotBeMadeIsRefused) {
  WriteText(m_installation / "conf", "a file");
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_EQ(m_library.Ordinal<LogOptionsFunction>(5)(), FALSE);
  const std::string text =
      "Configuration folder cannot be made (183): " + (m_installation / "conf").string();
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kConfigDir.Error(text), kStartUpOptions.From(kFoldersSource).Error(text),
                          kLogOptions.From(kFoldersSource).Error(text)));

  m_machine.SetText(L"ConfigDir", (m_installation / "no" / "parent").wstring());
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kConfigDir.Error("Configuration folder cannot be made (3): " +
                                           (m_installation / "no" / "parent").string())));
}

// The recording trace library has the two functions of the contract and nothing else.
TEST_F(SupportLibrary, LogOptionsAreATraceLibrarysOwnAffairWhenItTakesNone) {
  EXPECT_NE(m_library.Ordinal<LogOptionsFunction>(5)(), FALSE);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, LogOptionsThatTheTraceLibraryRefusesFailWithOneLine) {
  m_library.ReplaceImport<FARPROC WINAPI(HMODULE, const char*)>(
      "GetProcAddress", +[](HMODULE module, const char* name) -> FARPROC {
        EXPECT_EQ(module, GetModuleHandleW(L"vlevtlog.dll"));
        EXPECT_EQ(name, MAKEINTRESOURCEA(kApplyTraceOptionsOrdinal));
        ApplyTraceOptionsFunction* const refuse = [](const wchar_t* file) -> BOOLEAN {
          s_journal->Call("ApplyTraceOptions(" + Quoted(file) + ")");
          return FALSE;
        };
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(refuse));
      });
  EXPECT_EQ(m_library.Ordinal<LogOptionsFunction>(5)(), FALSE);
  const fs::path file = m_installation / "conf" / "vorlconf.ini";
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre("ApplyTraceOptions(" + Quoted(file.c_str()) + ")",
                          kLogOptions.Error("Trace options cannot be applied: " + file.string())));
}

TEST_F(SupportLibrary, LibraryWhosePathNamesNoFolderIsRefused) {
  m_library.ReplaceImport<DWORD WINAPI(HMODULE, wchar_t*, DWORD)>(
      "GetModuleFileNameW", [](HMODULE, wchar_t* path, DWORD) -> DWORD {
        constexpr std::wstring_view name = L"vorlmisc.dll";
        path[name.copy(path, name.size())] = L'\0';
        return static_cast<DWORD>(name.size());
      });
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Library has no folder: vorlmisc.dll")));
}

}  // namespace
