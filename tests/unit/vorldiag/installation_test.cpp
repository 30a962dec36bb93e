// Where an installation lies when its registry, its library or its folders are not as they should
// be.
#include "tools/vorldiag/machine/installation.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "companions/common/folders.h"
#include "support/windows_api.h"
#include "tests/support/empty_machine_key.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"

using ::testing::EndsWith;
using ::testing::StartsWith;

namespace {

class InstallationPlace : public ::testing::Test {
 protected:
  std::string RootProblem() const { return InstallationFolder(folder.Path().wstring()).problem; }
  FolderFact Configuration() const { return ConfigurationFolder(folder.Path().wstring()); }

  const TempFolder folder;
  const EmptyMachineKey registry;
};

TEST_F(InstallationPlace, IsTheProgramsFolderUnlessAnotherIsRegistered) {
  const FolderFact own = InstallationFolder(folder.Path().wstring());
  EXPECT_EQ(own.path, folder.Path().wstring());
  EXPECT_EQ(own.origin, "the folder of vorlmisc.dll");
  EXPECT_FALSE(own.isRegistered);
  registry.SetText(L"RootDir", L"");
  EXPECT_FALSE(InstallationFolder(folder.Path().wstring()).isRegistered);

  const TempFolder other;
  registry.SetText(L"RootDir", other.Path().wstring());
  const FolderFact registered = InstallationFolder(folder.Path().wstring());
  EXPECT_EQ(registered.path, other.Path().wstring());
  EXPECT_EQ(registered.origin, "registry value RootDir");
  EXPECT_TRUE(registered.isRegistered);
}

TEST_F(InstallationPlace, IsNamedWithWhatIsWrongWithIt) {
  const DWORD number = 1;
  registry.SetValue(L"RootDir", REG_DWORD, &number, sizeof(number));
  EXPECT_THAT(RootProblem(), StartsWith("registry value RootDir cannot be read: error "));
  registry.SetText(L"RootDir", L"agent");
  EXPECT_EQ(RootProblem(), "registry value RootDir is no full path: agent");
  registry.SetText(L"RootDir", L"\\\\server\\share");
  EXPECT_EQ(RootProblem(),
            "registry value RootDir is no folder on a drive of this computer: \\\\server\\share");
  registry.SetText(L"RootDir", L"C:\\" + std::wstring(300, L'x'));
  EXPECT_THAT(RootProblem(), StartsWith("a folder of 303 characters, at most 246: C:\\xxx"));
  registry.SetText(L"RootDir", L"C:\\none\\there");
  EXPECT_EQ(RootProblem(), "it does not exist: C:\\none\\there");
}

// Wine has no links to servers: what Windows says of one is played.
TEST_F(InstallationPlace, BehindALinkToAServerIsRefused) {
  const TempFolder other;
  registry.SetText(L"RootDir", other.Path().wstring());
  {
    const CallPatch<struct PathTag, DWORD WINAPI(HANDLE, wchar_t*, DWORD, DWORD)> path(
        "KERNEL32.dll", "GetFinalPathNameByHandleW",
        [](HANDLE, wchar_t* end, DWORD, DWORD) -> DWORD {
          constexpr std::wstring_view server = L"\\\\?\\UNC\\server\\share\\agent";
          end[server.copy(end, server.size())] = L'\0';
          return static_cast<DWORD>(server.size());
        });
    EXPECT_EQ(RootProblem(), "a link leads to another computer: " + other.Path().string());
  }
  const CallPatch<struct OpenTag, HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*,
                                                DWORD, DWORD, HANDLE)>
      open("KERNEL32.dll", "CreateFileW",
           [](const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
             SetLastError(ERROR_BAD_NETPATH);
             return INVALID_HANDLE_VALUE;
           });
  const CallPatch<struct LinkTag, DWORD WINAPI(const wchar_t*)> attributes(
      "KERNEL32.dll", "GetFileAttributesW", [](const wchar_t*) -> DWORD {
        return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
      });
  EXPECT_THAT(
      RootProblem(),
      StartsWith("the end of a link cannot be looked at: " + other.Path().string() + ": error 53"));
}

TEST_F(InstallationPlace, InAFolderThatIsTooLongIsRefused) {
  const std::wstring longest(246, L'x');
  EXPECT_EQ(InstallationFolder(longest).problem.find("characters"), std::string::npos);
  EXPECT_EQ(InstallationFolder(longest + L"x").problem,
            "the program's folder has more than 246 characters");
  EXPECT_EQ(ConfigurationFolder(longest + L"x").path, L"");
}

TEST_F(InstallationPlace, OfTheConfigurationNeedNotBeThereYet) {
  EXPECT_EQ(Configuration().path, folder.Path().wstring() + L"\\conf");
  EXPECT_EQ(Configuration().problem, "");
  EXPECT_EQ(Configuration().origin, "conf below the installation folder");
  WriteBytes(folder.File("conf"), {});
  EXPECT_EQ(Configuration().path, L"");
  EXPECT_THAT(Configuration().problem, EndsWith("\\conf is no folder"));
  registry.SetText(L"ConfigDir", folder.Path().wstring() + L"\\a\\b");
  EXPECT_THAT(Configuration().problem,
              EndsWith("\\a\\b does not exist, nor does the folder above it"));
  EXPECT_EQ(Configuration().path, L"");
}

TEST(OwnFolder, MayBeLongerThanMostPaths) {
  const std::wstring longer = L"C:\\" + std::wstring(600, L'x');
  const CallPatch<struct ModuleTag, DWORD WINAPI(HMODULE, wchar_t*, DWORD)> patch(
      "KERNEL32.dll", "GetModuleFileNameW", [&](HMODULE, wchar_t* path, DWORD size) {
        const std::wstring program = longer + L"\\vorldiag.exe";
        // As Windows does where there is no room.
        const std::size_t length = std::min<std::size_t>(program.size(), size - 1);
        program.copy(path, length);
        path[length] = L'\0';
        return length < program.size() ? size : static_cast<DWORD>(length);
      });
  EXPECT_EQ(OwnFolder(), longer);
}

// What the functions of a library answer.
struct LibraryAnswers {
  bool hasFunctions = true;
  const char* service = "Service";
  const char* event = "Event";
};
LibraryAnswers g_answers;

BOOLEAN Give(const char* text, char* name, DWORD size) {
  if (text == nullptr || std::strlen(text) >= size) {
    return FALSE;
  }
  std::strcpy(name, text);
  return TRUE;
}

BOOLEAN GiveService(const char* /*base*/, char* name, DWORD size) {
  return Give(g_answers.service, name, size);
}
BOOLEAN GiveEvent(const char* /*base*/, char* name, DWORD size) {
  return Give(g_answers.event, name, size);
}

class NamesOfTheVersion : public ::testing::Test {
 protected:
  NamesOfTheVersion() { g_answers = {}; }

  Names Find() const { return FindNames(folder.Path().wstring()); }

  const TempFolder folder;
};

TEST_F(NamesOfTheVersion, AreAssumedWhereNoLibraryCanBeAsked) {
  EXPECT_EQ(Find().problem, "vorlinfo.dll is missing");
  EXPECT_EQ(Find().service, "Client Agent 1");
  EXPECT_EQ(Find().closeEvent, "Global\\AcClientAgentSrvcCloseFromServicef_v1");
  EXPECT_EQ(Find().exitEvent, "Global\\AcClientAgentSrvcExitFromOuterModuleEvent_v1");
  WriteBytes(folder.File("vorlinfo.dll"), {'x'});
  EXPECT_THAT(Find().problem, StartsWith("vorlinfo.dll cannot be loaded: error "));
}

TEST_F(NamesOfTheVersion, AreThoseOfTheLibraryUnlessOneIsMissing) {
  WriteBytes(folder.File("vorlinfo.dll"), {'x'});
  const CallPatch<struct LoadTag, HMODULE WINAPI(const wchar_t*, HANDLE, DWORD)> load(
      "KERNEL32.dll", "LoadLibraryExW", [&](const wchar_t*, HANDLE, DWORD) {
        return load.CallOriginal(L"kernel32.dll", nullptr, 0);
      });
  const CallPatch<struct FunctionTag, FARPROC WINAPI(HMODULE, const char*)> function(
      "KERNEL32.dll", "GetProcAddress", [&](HMODULE module, const char* name) -> FARPROC {
        const auto number = reinterpret_cast<std::uintptr_t>(name);
        if (number != 1 && number != 9) {
          return function.CallOriginal(module, name);
        }
        return g_answers.hasFunctions ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(
                                            number == 1 ? &GiveEvent : &GiveService))
                                      : nullptr;
      });
  EXPECT_EQ(Find().problem, "");
  EXPECT_EQ(Find().service, "Service");
  EXPECT_EQ(Find().exitEvent, "Event");
  g_answers.service = "";
  EXPECT_EQ(Find().problem, "vorlinfo.dll gives no names");
  g_answers = {};
  g_answers.event = nullptr;
  EXPECT_EQ(Find().problem, "vorlinfo.dll gives no names");
  EXPECT_EQ(Find().service, "Client Agent 1");
  g_answers = {};
  g_answers.hasFunctions = false;
  EXPECT_EQ(Find().problem, "vorlinfo.dll gives no names");
}

TEST(WhatIsThere, IsAlsoWhatMayNotBeLookedAt) {
  DWORD error = ERROR_ACCESS_DENIED;
  const CallPatch<struct AttributesTag, DWORD WINAPI(const wchar_t*)> attributes(
      "KERNEL32.dll", "GetFileAttributesW", [&](const wchar_t*) {
        SetLastError(error);
        return INVALID_FILE_ATTRIBUTES;
      });
  EXPECT_TRUE(Exists(L"X"));
  EXPECT_FALSE(IsNoFolder(L"X"));
  for (const DWORD absent :
       std::initializer_list<DWORD>{ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_NOT_READY,
                                    ERROR_BAD_NETPATH, ERROR_INVALID_NAME}) {
    error = absent;
    EXPECT_FALSE(Exists(L"X")) << error;
  }
}

}  // namespace
