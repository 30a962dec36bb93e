// What the package sets for the service and its folders beyond the program's own "-install". Wine's
// service manager takes rights and dependencies and stores neither, and its files keep only what a
// Unix mode can say, so the calls are looked at.
#include "tools/vorlsetup/agentservice.h"

#include <aclapi.h>
#include <gmock/gmock.h>
#include <sddl.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/import_patch.h"
#include "tools/vorlsetup/security.h"

using ::testing::ElementsAre;
using ::testing::Field;

namespace {

const std::wstring kFolder = LR"(C:\Program Files\Client Agent 1)";

std::wstring DaclText(PSECURITY_DESCRIPTOR descriptor) {
  wchar_t* text = nullptr;
  if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(
          descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr)) {
    return L"error";
  }
  std::wstring copy = text;
  LocalFree(text);
  return copy;
}

// A service manager that knows the agent's service, as registered for kFolder, and Winmgmt.
class RegisteredService : public ::testing::Test {
 protected:
  static SC_HANDLE Handle(ULONG_PTR number) { return reinterpret_cast<SC_HANDLE>(number); }

  BOOL QueryConfig(SC_HANDLE service, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed) {
    if (config == nullptr || size < sizeof *config) {
      *needed = sizeof *config;
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return FALSE;
    }
    *config = {};
    config->lpBinaryPathName = m_command.data();
    config->dwStartType = service == Handle(3) ? m_managementStart : m_start;
    return TRUE;
  }

  std::wstring m_command = L"\"" + kFolder + L"\\vorlsrvc.exe\"";
  DWORD m_start = SERVICE_AUTO_START;
  DWORD m_state = SERVICE_STOPPED;
  bool m_hasManagementService = true;
  DWORD m_managementStart = SERVICE_AUTO_START;
  DWORD m_securityError = ERROR_SUCCESS;
  std::vector<std::wstring> m_rights;
  std::vector<std::wstring> m_dependencies;

  CallPatch<struct OpenManagerTag, decltype(OpenSCManagerW)> m_openManager{
      "ADVAPI32.dll", "OpenSCManagerW", [](LPCWSTR, LPCWSTR, DWORD) { return Handle(1); }};
  CallPatch<struct OpenTag, decltype(OpenServiceW)> m_open{
      "ADVAPI32.dll", "OpenServiceW", [this](SC_HANDLE, LPCWSTR name, DWORD) {
        if (std::wstring(name) == L"Client Agent 1") {
          return Handle(2);
        }
        return std::wstring(name) == L"Winmgmt" && m_hasManagementService ? Handle(3) : nullptr;
      }};
  CallPatch<struct CloseTag, decltype(CloseServiceHandle)> m_close{
      "ADVAPI32.dll", "CloseServiceHandle", [](SC_HANDLE) { return TRUE; }};
  CallPatch<struct ConfigTag, decltype(QueryServiceConfigW)> m_config{
      "ADVAPI32.dll", "QueryServiceConfigW",
      [this](SC_HANDLE service, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed) {
        return QueryConfig(service, config, size, needed);
      }};
  CallPatch<struct StatusTag, decltype(QueryServiceStatusEx)> m_status{
      "ADVAPI32.dll", "QueryServiceStatusEx",
      [this](SC_HANDLE, SC_STATUS_TYPE, LPBYTE status, DWORD, LPDWORD) {
        auto* const record = reinterpret_cast<SERVICE_STATUS_PROCESS*>(status);
        record->dwCurrentState = m_state;
        record->dwProcessId = 4712;
        return TRUE;
      }};
  CallPatch<struct EventKeyTag, decltype(RegOpenKeyExW)> m_eventKey{
      "ADVAPI32.dll", "RegOpenKeyExW",
      [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) { return LSTATUS{ERROR_SUCCESS}; }};
  CallPatch<struct SecurityTag, decltype(SetServiceObjectSecurity)> m_security{
      "ADVAPI32.dll", "SetServiceObjectSecurity",
      [this](SC_HANDLE service, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR descriptor) {
        EXPECT_EQ(service, Handle(2));
        EXPECT_EQ(parts, DWORD{DACL_SECURITY_INFORMATION});
        m_rights.push_back(DaclText(descriptor));
        SetLastError(m_securityError);
        return m_securityError == ERROR_SUCCESS ? TRUE : FALSE;
      }};
  CallPatch<struct ChangeTag, decltype(ChangeServiceConfigW)> m_change{
      "ADVAPI32.dll", "ChangeServiceConfigW",
      [this](SC_HANDLE service, DWORD type, DWORD start, DWORD error, LPCWSTR path, LPCWSTR,
             LPDWORD, LPCWSTR dependencies, LPCWSTR account, LPCWSTR, LPCWSTR name) {
        EXPECT_EQ(service, Handle(2));
        EXPECT_THAT((std::vector<DWORD>{type, start, error}),
                    ::testing::Each(DWORD{SERVICE_NO_CHANGE}));
        EXPECT_EQ(path, nullptr);
        EXPECT_EQ(account, nullptr);
        EXPECT_EQ(name, nullptr);
        // A list of names, each with a null, ended by an empty one.
        std::wstring list;
        for (const wchar_t* at = dependencies; *at != L'\0'; at += std::wstring(at).size() + 1) {
          list += std::wstring(at) + L";";
        }
        m_dependencies.push_back(list);
        return TRUE;
      }};
};

TEST_F(RegisteredService, IsReadAsItIs) {
  ServiceState state = ReadServiceState();
  EXPECT_TRUE(state.isRegistered);
  EXPECT_EQ(state.command, m_command);
  EXPECT_FALSE(state.isDisabled);
  EXPECT_FALSE(state.isRunning);
  EXPECT_EQ(state.processId, 0U);
  m_start = SERVICE_DISABLED;
  m_state = SERVICE_STOP_PENDING;
  state = ReadServiceState();
  EXPECT_TRUE(state.isDisabled);
  EXPECT_TRUE(state.isRunning);
  EXPECT_EQ(state.processId, 4712U);
}

// There is no such program here, so a start would fail.
TEST_F(RegisteredService, ThatIsDisabledIsLeftSo) {
  EXPECT_FALSE(StartAgentService(kFolder, SetupLog(0)));
  m_start = SERVICE_DISABLED;
  EXPECT_TRUE(StartAgentService(kFolder, SetupLog(0)));
}

TEST_F(RegisteredService, TakesTheRightToSendUserControlsFromUsersAndServices) {
  EXPECT_TRUE(RegisterAgentService(kFolder, SetupLog(0)));
  // Interactive users and services have no CR; the system and administrators keep what they had.
  EXPECT_THAT(m_rights, ElementsAre(L"D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)"
                                    L"(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
                                    L"(A;;CCLCSWLORC;;;IU)(A;;CCLCSWLORC;;;SU)"));
}

TEST_F(RegisteredService, StartsAfterTheManagementService) {
  EXPECT_TRUE(RegisterAgentService(kFolder, SetupLog(0)));
  EXPECT_THAT(m_dependencies, ElementsAre(L"Winmgmt;"));
}

TEST_F(RegisteredService, DoesNotWaitForAManagementServiceThatNeverStarts) {
  m_managementStart = SERVICE_DISABLED;
  EXPECT_TRUE(RegisterAgentService(kFolder, SetupLog(0)));
  m_hasManagementService = false;
  EXPECT_TRUE(RegisterAgentService(kFolder, SetupLog(0)));
  EXPECT_THAT(m_dependencies, ElementsAre(L"", L""));
}

TEST_F(RegisteredService, FailsWhenItsRightsCannotBeSet) {
  m_securityError = ERROR_ACCESS_DENIED;
  EXPECT_FALSE(RegisterAgentService(kFolder, SetupLog(0)));
  EXPECT_TRUE(m_dependencies.empty());
}

TEST_F(RegisteredService, OfAnotherFolderIsNotTouched) {
  m_command = LR"(C:\Agent\vorlsrvc.exe)";
  EXPECT_FALSE(RegisterAgentService(kFolder, SetupLog(0)));
  EXPECT_TRUE(m_rights.empty());
  EXPECT_TRUE(m_dependencies.empty());
}

TEST(IsServiceOf, TakesTheCommandInAnyFormOfTheSameProgram) {
  ServiceState state;
  state.command = L"\"c:\\program files\\CLIENT AGENT 1\\vorlsrvc.exe\"";
  EXPECT_TRUE(IsServiceOf(kFolder, state));
  state.command = kFolder + L"\\vorlsrvc.exe";
  EXPECT_TRUE(IsServiceOf(kFolder, state));
  state.command = kFolder + L"\\vorlsrvc.exe -x";
  EXPECT_FALSE(IsServiceOf(kFolder, state));
}

struct Given {
  std::wstring name;
  SECURITY_INFORMATION parts;
  std::wstring rights;
};

std::vector<Given> RightsGivenBy(const std::function<DWORD()>& operation) {
  std::vector<Given> given;
  const CallPatch<struct NamedTag, decltype(SetNamedSecurityInfoW)> patch(
      "ADVAPI32.dll", "SetNamedSecurityInfoW",
      [&](LPWSTR name, SE_OBJECT_TYPE, SECURITY_INFORMATION parts, PSID, PSID, PACL dacl, PACL) {
        SECURITY_DESCRIPTOR descriptor;
        InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
        SetSecurityDescriptorDacl(&descriptor, TRUE, dacl, FALSE);
        given.push_back({name, parts, DaclText(&descriptor)});
        return DWORD{ERROR_SUCCESS};
      });
  EXPECT_EQ(operation(), DWORD{ERROR_SUCCESS});
  return given;
}

TEST(SetFolderRights, KeepsOutWhatTheFolderAboveHandsDown) {
  const auto given =
      RightsGivenBy([] { return SetFolderRights(L"C:\\windows", kProgramFolderRights); });
  ASSERT_FALSE(given.empty());
  EXPECT_EQ(given.back().parts,
            DWORD{DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION});
  EXPECT_EQ(given.back().rights, L"D:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)");
}

TEST(SetFolderRights, ClosesAFolderToUsers) {
  const auto given =
      RightsGivenBy([] { return SetFolderRights(L"C:\\windows", kClosedFolderRights); });
  ASSERT_FALSE(given.empty());
  EXPECT_EQ(given.back().rights, L"D:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)");
}

TEST(SetKeyRights, ClosesTheKeyToUsers) {
  EXPECT_THAT(RightsGivenBy([] { return SetKeyRights(L"SOFTWARE\\Some", kClosedKeyRights); }),
              ElementsAre(Field(&Given::name, L"MACHINE\\SOFTWARE\\Some")));
}

}  // namespace
