// Installation, question and removal of a service.
#include <gmock/gmock.h>

#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

#include "service/ntservc.h"
#include "support/windows_api.h"
#include "tests/support/fake_helper_pipe.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/unit/operations.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char kOpenManager[] = "OpenSCManagerA(null, null, 0xF003F) = manager1";
constexpr char kEventLogFolder[] = "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

// ---- IsInstalled ----

class IsInstalled : public ::testing::Test {
 protected:
  IsInstalled() { m_journal.Clear(); }

  Journal m_journal;
  FakeServiceManager m_manager{m_journal};
  CNTService m_service{"Sample"};
};

TEST_F(IsInstalled, IsTrueWhenTheServiceOpens) {
  EXPECT_TRUE(m_service.IsInstalled());
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kIsInstalled.Info("Entry"), kOpenManager,
                  "OpenServiceA(manager1, \"Sample\", 0x1) = service1", kIsInstalled.Info("Exit"),
                  "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)"));
}

TEST_F(IsInstalled, IsFalseWithoutTheRightToOpenTheServiceControlManager) {
  m_manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(m_service.IsInstalled());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kIsInstalled.Info("Entry"), "OpenSCManagerA(null, null, 0xF003F) = error 5",
                  kIsInstalled.Info("Unable to open service Manager: 5")));
}

TEST_F(IsInstalled, IsFalseWhenThereIsNoSuchService) {
  m_manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  EXPECT_FALSE(m_service.IsInstalled());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kIsInstalled.Info("Entry"), kOpenManager,
                          "OpenServiceA(manager1, \"Sample\", 0x1) = error 1060",
                          kIsInstalled.Info("Unable to open service : 1060"),
                          "CloseServiceHandle(manager1)"));
}

TEST_F(IsInstalled, IsFalseWhenAccessToTheServiceIsRefused) {
  m_manager.Fail("OpenServiceA", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(m_service.IsInstalled());
  EXPECT_THAT(m_journal.Traces(), ElementsAre(kIsInstalled.Info("Entry"),
                                              kIsInstalled.Info("Unable to open service : 5")));
}

// ---- Install ----

class Install : public ::testing::Test {
 protected:
  Install() { m_journal.Clear(); }

  static std::string CreateCall(const std::string& path, const std::string& result = "service1",
                                const std::string& name = "Sample") {
    return "CreateServiceW(manager1, \"" + name + "\", \"" + name + "\", 0xF01FF, 0x110, 2, 1, \"" +
           path + "\", null, null, null, null, null) = " + result;
  }
  static std::string RecoveryCall(const std::string& path, const std::string& result = "") {
    return "ChangeServiceConfig2W(service1, 2, reset 3600, reboot message null, command \"" + path +
           " -reset\", actions (3, 0) (3, 0) (0, 0))" + result;
  }
  static std::string MessageFileCall(const std::string& path) {
    return "RegSetValueExW(key1, \"EventMessageFile\", 0, 2, \"" + path + "\\0\", " +
           std::to_string((path.size() + 1) * 2) + " bytes)";
  }

  Journal m_journal;
  FakeServiceManager m_manager{m_journal};
  CNTService m_service{"Sample"};
};

TEST_F(Install, CreatesTheServiceItsRecoveryActionsAndItsEventLogSource) {
  EXPECT_TRUE(m_service.Install());
  const std::string path = "C:\\agent\\vorlsrvc.exe";
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(
          kInstall.Info("Entry"), kOpenManager, "GetModuleFileNameW(null, 260)", CreateCall(path),
          kInstall.Error("ConfigureServiceRecoveryOptions m_szServiceName (Sample)"),
          kInstall.Error(
              "ConfigureServiceRecoveryOptions wszCAServicePath (C:\\agent\\vorlsrvc.exe)"),
          kRecovery.Info("Entry"), RecoveryCall(path), kRecovery.Info("Exit"),
          "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)",
          std::string("RegCreateKeyA(HKEY_LOCAL_MACHINE, \"") + kEventLogFolder +
              "Sample\") = key1",
          "RegSetValueExW(key1, \"EventMessageFile\", 0, 2, \"C:\\agent\\vorlsrvc.exe\\0\", 44 "
          "bytes)",
          "RegSetValueExA(key1, \"TypesSupported\", 0, 4, 7, 4 bytes)", "RegCloseKey(key1)",
          kInstall.Info("Exit")));
}

TEST_F(Install, PathWithoutABlankIsRegisteredBare) {
  const std::string path = "C:\\agent\\vorlsrvc.exe";
  EXPECT_TRUE(m_service.Install());
  EXPECT_THAT(m_journal.Calls(), Contains(CreateCall(path)));
  EXPECT_THAT(m_journal.Calls(), Contains(RecoveryCall(path)));
  EXPECT_THAT(m_journal.Calls(), Contains(MessageFileCall(path)));
}

TEST_F(Install, PathWithABlankIsRegisteredInQuotesAsCommandAndAsEventMessageFile) {
  m_manager.SetModulePath(L"C:\\Program Files\\agent\\vorlsrvc.exe");
  const std::string path = "\"C:\\Program Files\\agent\\vorlsrvc.exe\"";
  EXPECT_TRUE(m_service.Install());
  EXPECT_THAT(m_journal.Calls(), Contains(CreateCall(path)));
  EXPECT_THAT(m_journal.Calls(), Contains(RecoveryCall(path)));
  EXPECT_THAT(m_journal.Calls(), Contains(MessageFileCall(path)));
  EXPECT_THAT(m_journal.Traces(),
              Contains(kInstall.Error("ConfigureServiceRecoveryOptions wszCAServicePath "
                                      "(\"C:\\Program Files\\agent\\vorlsrvc.exe\")")));
}

TEST_F(Install, LongestPathIsRegisteredWithoutRecoveryActions) {
  const std::string path = "C:\\a b" + std::string(253, 'x');  // 259 characters
  m_manager.SetModulePath(std::wstring(path.begin(), path.end()));
  EXPECT_TRUE(m_service.Install());
  EXPECT_THAT(m_journal.Calls(), Contains(CreateCall("\"" + path + "\"")));
  EXPECT_THAT(m_journal.Calls(), Contains(MessageFileCall("\"" + path + "\"")));
  EXPECT_THAT(m_journal.Traces(),
              Contains(kInstall.Error("ConfigureServiceRecoveryOptions wszCAServicePath (\"" +
                                      path + "\")")));
  // The recovery command does not fit into its 260 characters.
  EXPECT_THAT(m_journal.Traces(), Contains(kRecovery.Info("Invalid Service handle.")));
  EXPECT_THAT(m_journal.Calls(), Not(Contains(HasSubstr("ChangeServiceConfig2W"))));
}

// A character takes up to two bytes in the code pages of East Asia, three in UTF-8, four in
// GB18030.
class PathInManyBytes : public Install, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(PathInManyBytes, IsTracedAsFarAsAMessageReaches) {
  m_manager.SetModulePath(L"C:\\a b" + std::wstring(253, L'x'));  // 259 characters
  const CallPatch<struct ManyBytesTag,
                  int(UINT, DWORD, const wchar_t*, int, char*, int, const char*, BOOL*)>
      convert("KERNEL32.dll", "WideCharToMultiByte",
              [](UINT, DWORD, const wchar_t* wide, int, char* narrow, int room, const char*,
                 BOOL*) -> int {
                const std::string text(GetParam() * std::wcslen(wide), 'y');
                if (text.size() >= static_cast<std::size_t>(room)) {
                  SetLastError(ERROR_INSUFFICIENT_BUFFER);
                  return 0;
                }
                narrow[text.copy(narrow, text.size())] = '\0';
                return static_cast<int>(text.size()) + 1;
              });
  EXPECT_TRUE(m_service.Install());
  // 261 characters with its quotes; a message has room for 499 bytes.
  const std::string line =
      "ConfigureServiceRecoveryOptions wszCAServicePath (" + std::string(GetParam() * 261U, 'y');
  EXPECT_THAT(m_journal.Traces(), Contains(kInstall.Error(line.substr(0, 499))));
}

INSTANTIATE_TEST_SUITE_P(, PathInManyBytes, ::testing::Values(2U, 3U, 4U),
                         [](const auto& test) { return "Bytes" + std::to_string(test.param); });

TEST_F(Install, PathOfUtf8CharactersIsTraced) {
  // 143 characters of three bytes, which the message just holds.
  m_manager.SetModulePath(L"C:\\" + std::wstring(143, L'\x4E2D') + L"\\vorlsrvc.exe");
  const CallPatch<struct Utf8PathTag,
                  int(UINT, DWORD, const wchar_t*, int, char*, int, const char*, BOOL*)>
      convert("KERNEL32.dll", "WideCharToMultiByte",
              [&](UINT, DWORD flags, const wchar_t* wide, int length, char* narrow, int room,
                  const char* replacement, BOOL* replaced) {
                return convert.CallOriginal(CP_UTF8, flags, wide, length, narrow, room, replacement,
                                            replaced);
              });
  EXPECT_TRUE(m_service.Install());
  std::string folder;
  for (int i = 0; i < 143; ++i) {
    folder += "\xE4\xB8\xAD";
  }
  const std::string line =
      "ConfigureServiceRecoveryOptions wszCAServicePath (C:\\" + folder + "\\vorlsrvc.exe)";
  EXPECT_THAT(m_journal.Traces(), Contains(kInstall.Error(line.substr(0, 499))));
}

// A cut path must not be registered: the service would start another program or none.
TEST_F(Install, FailsWhenThePathIsTooLong) {
  m_manager.SetModulePath(L"C:\\" + std::wstring(257, L'x'));  // 260 characters
  EXPECT_FALSE(m_service.Install());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kInstall.Info("Entry"), kOpenManager, "GetModuleFileNameW(null, 260)",
                  kInstall.Error("GetModuleFileName Failed 122"), "CloseServiceHandle(manager1)"));
}

TEST_F(Install, FailsWhenThePathIsUnknown) {
  m_manager.Fail("GetModuleFileNameW", ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_FALSE(m_service.Install());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kInstall.Info("Entry"), kOpenManager, "GetModuleFileNameW(null, 260)",
                  kInstall.Error("GetModuleFileName Failed 8"), "CloseServiceHandle(manager1)"));
}

TEST_F(Install, FailsWithoutTheServiceControlManager) {
  m_manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(m_service.Install());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kInstall.Info("Entry"), "OpenSCManagerA(null, null, 0xF003F) = error 5",
                          kInstall.Info("Unable to open service Manager: 5")));
}

TEST_F(Install, FailsWhenTheServiceCannotBeCreated) {
  m_manager.Fail("CreateServiceW", ERROR_SERVICE_EXISTS);
  EXPECT_FALSE(m_service.Install());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_EXISTS});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kInstall.Info("Entry"), kOpenManager, "GetModuleFileNameW(null, 260)",
                  CreateCall("C:\\agent\\vorlsrvc.exe", "error 1073"),
                  kInstall.Error("CreateService Failed 1073"), "CloseServiceHandle(manager1)"));
}

TEST_F(Install, DoesNotDependOnTheRecoveryActions) {
  m_manager.Fail("ChangeServiceConfig2W", ERROR_ACCESS_DENIED);
  EXPECT_TRUE(m_service.Install());
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kInstall.Info("Entry"), kOpenManager, "GetModuleFileNameW(null, 260)",
                  CreateCall("C:\\agent\\vorlsrvc.exe"),
                  kInstall.Error("ConfigureServiceRecoveryOptions m_szServiceName (Sample)"),
                  kInstall.Error(
                      "ConfigureServiceRecoveryOptions wszCAServicePath (C:\\agent\\vorlsrvc.exe)"),
                  kRecovery.Info("Entry"), RecoveryCall("C:\\agent\\vorlsrvc.exe", " = error 5"),
                  kRecovery.Info("Invalid Service handle."), "CloseServiceHandle(service1)",
                  "CloseServiceHandle(manager1)",
                  std::string("RegCreateKeyA(HKEY_LOCAL_MACHINE, \"") + kEventLogFolder +
                      "Sample\") = key1",
                  MessageFileCall("C:\\agent\\vorlsrvc.exe"),
                  "RegSetValueExA(key1, \"TypesSupported\", 0, 4, 7, 4 bytes)", "RegCloseKey(key1)",
                  kInstall.Info("Exit")));
}

TEST_F(Install, LeavesTheServiceInPlaceWhenTheEventLogKeyCannotBeCreated) {
  m_manager.FailCreateKey(ERROR_ACCESS_DENIED, /*lastError=*/ERROR_CHILD_MUST_BE_VOLATILE);
  EXPECT_FALSE(m_service.Install());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_CHILD_MUST_BE_VOLATILE});
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kInstall.Info("Entry"), kOpenManager, "GetModuleFileNameW(null, 260)",
                  CreateCall("C:\\agent\\vorlsrvc.exe"),
                  kInstall.Error("ConfigureServiceRecoveryOptions m_szServiceName (Sample)"),
                  kInstall.Error(
                      "ConfigureServiceRecoveryOptions wszCAServicePath (C:\\agent\\vorlsrvc.exe)"),
                  kRecovery.Info("Entry"), RecoveryCall("C:\\agent\\vorlsrvc.exe"),
                  kRecovery.Info("Exit"), "CloseServiceHandle(service1)",
                  "CloseServiceHandle(manager1)",
                  std::string("RegCreateKeyA(HKEY_LOCAL_MACHINE, \"") + kEventLogFolder +
                      "Sample\") = error 5",
                  // The thread's last error, not the function's result.
                  kInstall.Error("RegCreateKey Failed 1021")));
}

TEST_F(Install, DoesNotDependOnTheEventLogValues) {
  m_manager.Fail("RegSetValueExW", ERROR_ACCESS_DENIED);
  m_manager.Fail("RegSetValueExA", ERROR_ACCESS_DENIED);
  EXPECT_TRUE(m_service.Install());
  EXPECT_THAT(m_journal.Calls(), Contains("RegCloseKey(key1)"));
  EXPECT_EQ(m_journal.Traces().back(), kInstall.Info("Exit"));
}

TEST_F(Install, TakesTheLongestServiceName) {
  const std::string name(63, 'n');
  CNTService service(name.c_str());
  EXPECT_TRUE(service.Install());
  EXPECT_THAT(m_journal.Calls(), Contains(CreateCall("C:\\agent\\vorlsrvc.exe", "service1", name)));
  EXPECT_THAT(m_journal.Calls(), Contains(std::string("RegCreateKeyA(HKEY_LOCAL_MACHINE, \"") +
                                          kEventLogFolder + name + "\") = key1"));
}

TEST_F(Install, ConvertsTheServiceNameFromTheAnsiCodePage) {
  const char name[] = "Ger\xE4t";
  wchar_t wide[64];
  ASSERT_NE(MultiByteToWideChar(CP_ACP, 0, name, -1, wide, 64), 0);
  const std::string quoted = Quoted(wide);
  CNTService service(name);
  EXPECT_TRUE(service.Install());
  EXPECT_THAT(m_journal.Calls(), Contains(CreateCall("C:\\agent\\vorlsrvc.exe", "service1",
                                                     quoted.substr(1, quoted.size() - 2))));
}

// No code page fails for a name of at most 63 characters; what follows if one does is certain all
// the same.
TEST_F(Install, LeavesANameThatCannotBeConvertedToTheServiceControlManagerToRefuse) {
  const CallPatch<struct NoWideTag, int(UINT, DWORD, const char*, int, wchar_t*, int)> convert(
      "KERNEL32.dll", "MultiByteToWideChar", [](UINT, DWORD, const char*, int, wchar_t*, int) {
        SetLastError(ERROR_NO_UNICODE_TRANSLATION);
        return 0;
      });
  m_manager.Fail("CreateServiceW", ERROR_INVALID_NAME);
  EXPECT_FALSE(m_service.Install());
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kInstall.Info("Entry"), kOpenManager, "GetModuleFileNameW(null, 260)",
                  CreateCall("C:\\agent\\vorlsrvc.exe", "error 123", ""),
                  kInstall.Error("CreateService Failed 123"), "CloseServiceHandle(manager1)"));
}

TEST_F(Install, PercentSignsInTheServiceNameStandForThemselvesInTheTrace) {
  CNTService service("50%s");
  EXPECT_TRUE(service.Install());
  EXPECT_THAT(m_journal.Traces(),
              Contains(kInstall.Error("ConfigureServiceRecoveryOptions m_szServiceName (50%s)")));
}

// ---- Uninstall ----

class Uninstall : public ::testing::Test {
 protected:
  Uninstall() {
    s_journal = &m_journal;
    m_journal.Clear();
  }
  ~Uninstall() override {
    CNTService::SetRemovalHooks({});
    s_journal = nullptr;
  }

  static bool Grant(std::uint64_t* token) {
    s_journal->Call("admit: granted");
    *token = 0xFEDC'BA98'7654'3210;
    SetLastError(kRubbishError);
    return true;
  }
  static bool Refuse(std::uint64_t* token) {
    s_journal->Call("admit: refused");
    *token = 0x1111;
    SetLastError(kRubbishError);
    return false;
  }
  static void Release(std::uint64_t token) {
    s_journal->Call("release " + Hex(token));
    SetLastError(kRubbishError);
  }

  static inline Journal* s_journal = nullptr;

  Journal m_journal;
  FakeServiceManager m_manager{m_journal};
  FakeHelperPipe m_helper{m_journal};
  CNTService m_service{"Sample"};
};

constexpr char kUninstalling[] = "helper pipe: code 15, action 5, flag 0, \"Sample\"";
constexpr char kOpenForDeletion[] = "OpenServiceA(manager1, \"Sample\", 0x10000) = service1";

TEST_F(Uninstall, TellsTheHelperAndDeletesTheService) {
  EXPECT_EQ(m_service.Uninstall(), 1);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kUninstall.Info("Entry"), kOpenManager, kUninstalling, kOpenForDeletion,
                          "DeleteService(service1)", "CloseServiceHandle(service1)",
                          "CloseServiceHandle(manager1)", kUninstall.Info("Exit")));
}

TEST_F(Uninstall, TellsTheHelperAnEmptyNameWhenItCannotBeConverted) {
  const CallPatch<struct NoWideTag, int(UINT, DWORD, const char*, int, wchar_t*, int)> convert(
      "KERNEL32.dll", "MultiByteToWideChar", [](UINT, DWORD, const char*, int, wchar_t*, int) {
        SetLastError(ERROR_NO_UNICODE_TRANSLATION);
        return 0;
      });
  EXPECT_EQ(m_service.Uninstall(), 1);
  EXPECT_THAT(m_journal.Calls(), Contains("helper pipe: code 15, action 5, flag 0, \"\""));
}

TEST_F(Uninstall, DoesNotDependOnTheHelper) {
  m_helper.Refuse(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(m_service.Uninstall(), 1);
  EXPECT_THAT(
      m_journal.Calls(),
      ElementsAre(kOpenManager, "helper pipe: error 2", kOpenForDeletion, "DeleteService(service1)",
                  "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)"));
}

TEST_F(Uninstall, FailsWithoutTheServiceControlManagerAndTellsTheHelperNothing) {
  m_manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_EQ(m_service.Uninstall(), 0);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kUninstall.Info("Entry"), "OpenSCManagerA(null, null, 0xF003F) = error 5",
                          kUninstall.Info("Unable to open service Manager: 5")));
}

TEST_F(Uninstall, WritesOnlyExitWhenTheServiceCannotBeOpened) {
  CNTService::SetRemovalHooks({&Grant, &Release});
  m_manager.Fail("OpenServiceA", ERROR_ACCESS_DENIED);
  EXPECT_EQ(m_service.Uninstall(), 0);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kUninstall.Info("Entry"), kOpenManager, kUninstalling,
                          "OpenServiceA(manager1, \"Sample\", 0x10000) = error 5",
                          "CloseServiceHandle(manager1)", kUninstall.Info("Exit")));
}

TEST_F(Uninstall, FailsWhenTheServiceIsMarkedForDeletionAlready) {
  m_manager.Fail("DeleteService", ERROR_SERVICE_MARKED_FOR_DELETE);
  EXPECT_EQ(m_service.Uninstall(), 0);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_MARKED_FOR_DELETE});
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kUninstall.Info("Entry"), kOpenManager, kUninstalling, kOpenForDeletion,
                          "DeleteService(service1) = error 1072", "CloseServiceHandle(service1)",
                          "CloseServiceHandle(manager1)", kUninstall.Info("Exit")));
}

TEST_F(Uninstall, AdmittedRemovalIsReleasedBeforeTheHandlesAreClosed) {
  CNTService::SetRemovalHooks({&Grant, &Release});
  EXPECT_EQ(m_service.Uninstall(), 1);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kUninstall.Info("Entry"), kOpenManager, kUninstalling, kOpenForDeletion,
                          "admit: granted", "DeleteService(service1)", "release 0xFEDCBA9876543210",
                          "CloseServiceHandle(service1)", "CloseServiceHandle(manager1)",
                          kUninstall.Info("Exit")));
}

TEST_F(Uninstall, AdmittedRemovalIsReleasedAndItsErrorKeptWhenTheDeletionFails) {
  CNTService::SetRemovalHooks({&Grant, &Release});
  m_manager.Fail("DeleteService", ERROR_ACCESS_DENIED);
  EXPECT_EQ(m_service.Uninstall(), 0);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(m_journal.Calls(), Contains("release 0xFEDCBA9876543210").Times(1));
}

TEST_F(Uninstall, RefusedRemovalIsTriedAllTheSameAndNothingIsReleased) {
  CNTService::SetRemovalHooks({&Refuse, &Release});
  EXPECT_EQ(m_service.Uninstall(), 1);
  EXPECT_THAT(m_journal.Calls(),
              ElementsAre(kOpenManager, kUninstalling, kOpenForDeletion, "admit: refused",
                          "DeleteService(service1)", "CloseServiceHandle(service1)",
                          "CloseServiceHandle(manager1)"));
}

TEST_F(Uninstall, WorksWithoutTheHookThatReleases) {
  CNTService::SetRemovalHooks({&Grant, nullptr});
  EXPECT_EQ(m_service.Uninstall(), 1);
}

TEST_F(Uninstall, ReleasesNothingWithoutTheHookThatAdmits) {
  CNTService::SetRemovalHooks({nullptr, &Release});
  EXPECT_EQ(m_service.Uninstall(), 1);
  EXPECT_THAT(m_journal.Calls(), Not(Contains(HasSubstr("release"))));
}

TEST_F(Uninstall, LeavesTheEventLogKeyInPlaceAndTheServiceRunning) {
  EXPECT_EQ(m_service.Uninstall(), 1);
  EXPECT_THAT(m_journal.Calls(), Not(Contains(HasSubstr("Reg"))));
  EXPECT_THAT(m_journal.Calls(), Not(Contains(HasSubstr("ControlService"))));
}

}  // namespace
