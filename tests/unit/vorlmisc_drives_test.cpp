// Where folders of the product may not lie: other computers, devices and drives that lead
// elsewhere, also by a link. The staged vorlmisc.dll, as in vorlmisc_test.cpp.
#include "support/vorlmisc.h"

#include <gmock/gmock.h>

#include <cwchar>
#include <string>
#include <string_view>

#include "tests/unit/vorlmisc_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

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

}  // namespace
