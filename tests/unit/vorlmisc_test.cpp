// The staged vorlmisc.dll, copied into an installation folder of its own and loaded by ordinal as
// the product does: its folders and trace options. Its trace lines go to the recording trace
// library; the installer's registry key is read from a key that belongs to the test.
#include "support/vorlmisc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cwchar>
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

TEST_F(SupportLibrary, FolderThatIsOnNoDriveOfThisComputerIsRefused) {
  for (const std::wstring path : {L"\\\\server\\share\\a", L"\\\\?\\C:\\a", L"\\\\.\\C:\\a",
                                  L"//server/a", L"\\??\\C:\\a", L"C:\\", L"C:\\a\\.."}) {
    m_machine.SetText(L"RootDir", path);
    EXPECT_EQ(RootDir(), L"refused");
    EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(OffDriveLine(path)));
  }
}

TEST_F(SupportLibrary, FolderOnANetworkDriveIsRefused) {
  m_library.ReplaceImport<UINT WINAPI(const wchar_t*)>(
      "GetDriveTypeW", +[](const wchar_t* root) -> UINT {
        return std::wcscmp(root, L"N:\\") == 0 ? DRIVE_REMOTE : DRIVE_FIXED;
      });
  m_machine.SetText(L"RootDir", L"N:\\agent");
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(OffDriveLine(L"N:\\agent")));
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
  EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(OffDriveLine(L"S:\\agent")));
  m_machine.SetText(L"RootDir", m_installation.Path().wstring());
  EXPECT_EQ(RootDir(), m_installation.Path().wstring());
}

TEST_F(SupportLibrary, FolderFromWhichALinkLeadsToAServerIsRefused) {
  m_library.ReplaceImport<DWORD WINAPI(HANDLE, wchar_t*, DWORD, DWORD)>(
      "GetFinalPathNameByHandleW",
      +[](HANDLE, wchar_t* path, DWORD capacity, DWORD flags) -> DWORD {
        EXPECT_EQ(flags, DWORD{FILE_NAME_OPENED | VOLUME_NAME_DOS});
        constexpr std::wstring_view target = L"\\\\?\\UNC\\server\\share";
        EXPECT_LT(target.size(), capacity);
        std::wmemcpy(path, target.data(), target.size() + 1);
        return target.size();
      });
  const fs::path root = m_installation.Path();
  const auto line = [](const ExpectedTrace& trace, const fs::path& folder) {
    return trace.Error("A link leads to another computer: " + folder.string());
  };
  // The default folder for the configuration may be a link; so may one above a new folder.
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(line(kConfigDir, root / "conf")));
  m_machine.SetText(L"ConfigDir", (root / "new" / "conf").wstring());
  EXPECT_EQ(ConfigDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(line(kConfigDir, root / "new" / "conf")));
  m_machine.SetText(L"RootDir", root.wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(line(kRootDir, root)));
}

// Wine has no links whose end does not answer.
TEST_F(SupportLibrary, FolderFromWhichALinkLeadsToWhereNothingAnswersIsRefused) {
  static std::wstring link;
  link = (m_installation / "link").wstring();
  static decltype(CreateFileW)* create;
  create = m_library.ReplaceImport<decltype(CreateFileW)>(
      "CreateFileW", [](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                        DWORD disposition, DWORD flags, HANDLE model) {
        if (std::wstring_view(path).starts_with(link)) {
          SetLastError(ERROR_BAD_NETPATH);
          return INVALID_HANDLE_VALUE;
        }
        return create(path, access, share, security, disposition, flags, model);
      });
  static decltype(GetFileAttributesW)* attributes;
  attributes =
      m_library.ReplaceImport<decltype(GetFileAttributesW)>("GetFileAttributesW", [](LPCWSTR path) {
        if (path == link) {
          return DWORD{FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT};
        }
        if (std::wstring_view(path).starts_with(link)) {
          SetLastError(ERROR_BAD_NETPATH);
          return INVALID_FILE_ATTRIBUTES;
        }
        return attributes(path);
      });
  for (const std::wstring& folder : {link, link + L"\\conf", link + L"\\a\\b\\conf"}) {
    m_machine.SetText(L"ConfigDir", folder);
    EXPECT_EQ(ConfigDir(), L"refused");
    EXPECT_THAT(m_journal.TakeTraces(),
                ElementsAre(kConfigDir.Error("The end of a link cannot be looked at (53): " +
                                             fs::path(folder).string())));
  }
  m_machine.SetText(L"RootDir", link + L"\\agent");
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("The end of a link cannot be looked at (53): " +
                                         fs::path(link + L"\\agent").string())));
}

TEST_F(SupportLibrary, NothingIsLookedAtAboveTheRootOfADrive) {
  static std::vector<std::wstring> asked;
  asked.clear();
  m_library.ReplaceImport<decltype(CreateFileW)>(
      "CreateFileW", [](LPCWSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
        asked.emplace_back(path);
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
      });
  m_machine.SetText(L"RootDir", L"C:\\windows\\system32");
  EXPECT_EQ(RootDir(), L"C:\\windows\\system32");
  EXPECT_THAT(asked, ElementsAre(L"C:\\windows\\system32", L"C:\\windows"));
}

// A file of its own that is a link, to a server or to where nothing answers. Wine shows no links to
// files.
class SupportLibraryWithLink : public SupportLibrary {
 protected:
  SupportLibraryWithLink() {
    s_attributes = m_library.ReplaceImport<decltype(GetFileAttributesW)>(
        "GetFileAttributesW", [](LPCWSTR path) {
          return path == s_link ? DWORD{FILE_ATTRIBUTE_REPARSE_POINT} : s_attributes(path);
        });
    s_create = m_library.ReplaceImport<decltype(CreateFileW)>(
        "CreateFileW", [](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD flags, HANDLE model) {
          s_isAsked = path == s_link;
          if (s_isAsked && !s_isAnswering) {
            SetLastError(ERROR_BAD_NETPATH);
            return INVALID_HANDLE_VALUE;
          }
          return s_create(s_isAsked ? L"." : path, access, share, security, disposition, flags,
                          model);
        });
    s_final = m_library.ReplaceImport<decltype(GetFinalPathNameByHandleW)>(
        "GetFinalPathNameByHandleW", [](HANDLE file, LPWSTR path, DWORD capacity, DWORD flags) {
          if (!s_isAsked) {
            return s_final(file, path, capacity, flags);
          }
          constexpr std::wstring_view target = L"\\\\?\\UNC\\server\\share\\file";
          std::wmemcpy(path, target.data(), target.size() + 1);
          return static_cast<DWORD>(target.size());
        });
  }
  void MakeLink(const char* name, bool isAnswering) {
    s_link = (m_installation / name).wstring();
    s_isAnswering = isAnswering;
  }
  static std::string Problem(bool isAnswering) {
    return isAnswering ? "A link leads to another computer: "
                       : "The end of a link cannot be looked at (53): ";
  }

  static inline std::wstring s_link;
  static inline bool s_isAnswering;
  static inline bool s_isAsked;
  static inline decltype(GetFileAttributesW)* s_attributes;
  static inline decltype(CreateFileW)* s_create;
  static inline decltype(GetFinalPathNameByHandleW)* s_final;
};

TEST_F(SupportLibraryWithLink, ModuleThatIsALinkToAServerIsRefusedWithItsFolder) {
  for (const char* const name : {"vorlcore.dll", "vorlupd.dll"}) {
    for (const bool isAnswering : {true, false}) {
      MakeLink(name, isAnswering);
      const std::string line = Problem(isAnswering) + (m_installation / name).string();
      m_machine.SetText(L"RootDir", L"");
      EXPECT_EQ(RootDir(), L"refused");
      EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(kRootDir.Error(line)));
      m_machine.SetText(L"RootDir", m_installation.Path().wstring());
      EXPECT_EQ(RootDir(), L"refused");
      EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(kRootDir.Error(line)));
      // What lies in another folder is not loaded.
      EXPECT_EQ(ConfigDir(), (m_installation / "conf").wstring());
    }
  }
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibraryWithLink, ConfigurationFileThatIsALinkToAServerIsRefusedWithItsFolder) {
  for (const bool isAnswering : {true, false}) {
    MakeLink("conf\\vorlconf.ini", isAnswering);
    const std::string line =
        Problem(isAnswering) + (m_installation / "conf" / "vorlconf.ini").string();
    EXPECT_EQ(ConfigDir(), L"refused");
    EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(kConfigDir.Error(line)));
    EXPECT_FALSE(ReadOptions());
    EXPECT_TRUE(AllOptionsAreZero());
    EXPECT_EQ(m_journal.TakeTraces().size(), 1U);
  }
}

TEST_F(SupportLibrary, FolderThatCannotBeLookedAtLiesWhereItsPathSays) {
  const std::wstring root = m_installation.Path().wstring();
  m_machine.SetText(L"RootDir", root);
  m_library.ReplaceImport<DWORD WINAPI(HANDLE, wchar_t*, DWORD, DWORD)>(
      "GetFinalPathNameByHandleW", +[](HANDLE, wchar_t*, DWORD, DWORD) -> DWORD {
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
      });
  EXPECT_EQ(RootDir(), root);
  // Longer than every path of a disk that the product accepts.
  m_library.ReplaceImport<DWORD WINAPI(HANDLE, wchar_t*, DWORD, DWORD)>(
      "GetFinalPathNameByHandleW",
      +[](HANDLE, wchar_t*, DWORD capacity, DWORD) -> DWORD { return capacity; });
  EXPECT_EQ(RootDir(), L"refused");
}

// A folder of more characters than any disk's name has.
TEST_F(SupportLibrary, FolderOnADriveThatDoesNotSayWhatItStandsForIsRefused) {
  m_library.ReplaceImport<DWORD WINAPI(const wchar_t*, wchar_t*, DWORD)>(
      "QueryDosDeviceW", +[](const wchar_t*, wchar_t*, DWORD) -> DWORD {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
      });
  const fs::path root = m_installation.Path();
  m_machine.SetText(L"RootDir", root.wstring());
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(), ElementsAre(OffDriveLine(root)));
}

TEST_F(SupportLibrary, FolderOnADriveThatDoesNotExistIsMissing) {
  m_library.ReplaceImport<DWORD WINAPI(const wchar_t*, wchar_t*, DWORD)>(
      "QueryDosDeviceW", +[](const wchar_t*, wchar_t*, DWORD) -> DWORD {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return 0;
      });
  m_machine.SetText(L"RootDir", L"Q:\\agent");
  EXPECT_EQ(RootDir(), L"refused");
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kRootDir.Error("Installation folder does not exist: Q:\\agent")));
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
