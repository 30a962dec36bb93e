// The status in the registry, which control 128 writes.
#include <gmock/gmock.h>

#include <cstdint>
#include <string>
#include <vector>

#include "agent/vorlsvc.h"
#include "support/handle.h"
#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/unit/agent_service.h"
#include "tests/unit/operations.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// The registry calls of SaveStatus: answered by the test, none reaches the real registry.
class SaveStatusTest : public ::testing::Test {
 protected:
  struct CreateKeyCall {
    HKEY root;
    std::string path;
    DWORD reserved;
    std::string className;
    DWORD options;
    REGSAM access;
    const SECURITY_ATTRIBUTES* attributes;
    bool hasDisposition;
  };
  struct SetValueCall {
    HKEY key;
    std::string name;
    DWORD reserved;
    DWORD type;
    std::vector<BYTE> data;
  };

  static HKEY Key() { return reinterpret_cast<HKEY>(ULONG_PTR{0x4b00}); }

  TestService service;
  LSTATUS createResult = ERROR_SUCCESS;
  LSTATUS setResult = ERROR_SUCCESS;
  std::vector<CreateKeyCall> createCalls;
  std::vector<SetValueCall> setCalls;
  std::vector<HKEY> closed;
  Journal journal;

 private:
  struct CreateTag;
  struct SetTag;
  struct CloseTag;

  CallPatch<CreateTag, decltype(RegCreateKeyExA)> m_create{
      "ADVAPI32.dll", "RegCreateKeyExA",
      [this](HKEY root, LPCSTR path, DWORD reserved, LPSTR className, DWORD options, REGSAM access,
             const SECURITY_ATTRIBUTES* attributes, PHKEY key, LPDWORD disposition) {
        journal.Call("RegCreateKeyExA");
        createCalls.push_back(
            {root, path, reserved, className, options, access, attributes, disposition != nullptr});
        SetLastError(1234);
        if (createResult == ERROR_SUCCESS) {
          *key = Key();
        }
        return createResult;
      }};
  CallPatch<SetTag, decltype(RegSetValueExA)> m_set{
      "ADVAPI32.dll", "RegSetValueExA",
      [this](HKEY key, LPCSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
        journal.Call("RegSetValueExA");
        setCalls.push_back({key, name, reserved, type, {data, data + size}});
        return setResult;
      }};
  CallPatch<CloseTag, decltype(RegCloseKey)> m_close{"ADVAPI32.dll", "RegCloseKey",
                                                     [this](HKEY key) {
                                                       journal.Call("RegCloseKey");
                                                       closed.push_back(key);
                                                       return LSTATUS{ERROR_SUCCESS};
                                                     }};
};

TEST_F(SaveStatusTest, WritesTheStatusUnderTheServicesKey) {
  service.m_dwCurrentStatus = 0x01020304;
  service.SaveStatus();
  ASSERT_EQ(createCalls.size(), 1U);
  EXPECT_EQ(createCalls[0].root, HKEY_LOCAL_MACHINE);
  EXPECT_EQ(createCalls[0].path, "SYSTEM\\CurrentControlSet\\Services\\Test Client Agent\\Status");
  EXPECT_EQ(createCalls[0].reserved, 0U);
  EXPECT_EQ(createCalls[0].className, "");
  EXPECT_EQ(createCalls[0].options, 0U);
  EXPECT_EQ(createCalls[0].access, 0x20006U);
  EXPECT_EQ(createCalls[0].attributes, nullptr);
  EXPECT_TRUE(createCalls[0].hasDisposition);
  ASSERT_EQ(setCalls.size(), 1U);
  EXPECT_EQ(setCalls[0].key, Key());
  EXPECT_EQ(setCalls[0].name, "Current");
  EXPECT_EQ(setCalls[0].reserved, 0U);
  EXPECT_EQ(setCalls[0].type, 4U);
  EXPECT_THAT(setCalls[0].data, ElementsAre(4, 3, 2, 1));
  EXPECT_THAT(closed, ElementsAre(Key()));
}

TEST_F(SaveStatusTest, WritesEachLineAheadOfItsCall) {
  service.SaveStatus();
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kSaveStatus.Info("Entry"), kSaveStatus.Info("Before calling RegCreateKeyEx"),
                  "RegCreateKeyExA", kSaveStatus.Info("Before aclling RegSetValueEx"),
                  "RegSetValueExA", "RegCloseKey", kSaveStatus.Info("Exit")));
}

TEST_F(SaveStatusTest, ReportsTheLastErrorWhenTheKeyCannotBeCreated) {
  createResult = ERROR_ACCESS_DENIED;
  service.SaveStatus();
  EXPECT_THAT(journal.Traces(), ElementsAre(kSaveStatus.Info("Entry"),
                                            kSaveStatus.Info("Before calling RegCreateKeyEx"),
                                            kSaveStatus.Error("RegCreateKeyEx Failed 1234")));
  EXPECT_THAT(journal.Calls(), ElementsAre("RegCreateKeyExA"));
}

TEST_F(SaveStatusTest, AValueThatCannotBeWrittenIsNoError) {
  setResult = ERROR_ACCESS_DENIED;
  service.SaveStatus();
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kSaveStatus.Info("Entry"), kSaveStatus.Info("Before calling RegCreateKeyEx"),
                  kSaveStatus.Info("Before aclling RegSetValueEx"),
                  kSaveStatus.Info("RegSetValueEx Failed"), kSaveStatus.Info("Exit")));
  EXPECT_THAT(journal.Calls(), ElementsAre("RegCreateKeyExA", "RegSetValueExA", "RegCloseKey"));
}

TEST_F(SaveStatusTest, TheLongestServiceNameFits) {
  TestService longest(std::string(62, 'n').c_str());
  longest.SaveStatus();
  ASSERT_EQ(createCalls.size(), 1U);
  EXPECT_EQ(createCalls[0].path,
            "SYSTEM\\CurrentControlSet\\Services\\" + std::string(62, 'n') + "\\Status");
}

TEST_F(SaveStatusTest, RunsOnUserControl128WhichEndsWithoutExit) {
  EXPECT_EQ(service.OnUserControl(128), TRUE);
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kOnUserControl.Info("Entry"), kOnUserControl.Info("Before calling SaveStatus"),
                  kSaveStatus.Info("Entry"), kSaveStatus.Info("Before calling RegCreateKeyEx"),
                  kSaveStatus.Info("Before aclling RegSetValueEx"), kSaveStatus.Info("Exit"),
                  kOnUserControl.Info("After calling SaveStatus")));
}

TEST_F(SaveStatusTest, RunsOnNoOtherUserControl) {
  for (const DWORD code : {127UL, 129UL, 139UL, 141UL, 255UL, 0x180UL}) {
    journal.Clear();
    EXPECT_EQ(service.OnUserControl(code), FALSE) << code;
    EXPECT_THAT(journal.Traces(),
                ElementsAre(kOnUserControl.Info("Entry"), kOnUserControl.Info("Case default"),
                            kOnUserControl.Info("Exit")));
  }
  EXPECT_THAT(journal.Calls(), IsEmpty());
}

// The real registry, with HKEY_LOCAL_MACHINE turned to a key of the test's own.
class UserControl128 : public ::testing::Test {
 protected:
  UserControl128() {
    EXPECT_EQ(
        RegCreateKeyExW(HKEY_CURRENT_USER, m_path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                        KEY_ALL_ACCESS, nullptr, own.Receive(), nullptr),
        ERROR_SUCCESS);
    service.m_dwCurrentStatus = 7;
  }
  ~UserControl128() override {
    RegDeleteTreeW(own.Get(), nullptr);
    own.Reset();
    RegDeleteKeyW(HKEY_CURRENT_USER, m_path.c_str());
  }

  void SendControl() {
    ASSERT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, own.Get()), ERROR_SUCCESS);
    journal.Clear();
    EXPECT_EQ(service.OnUserControl(128), TRUE);
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    EXPECT_THAT(
        journal.Traces(),
        ElementsAre(kOnUserControl.Info("Entry"), kOnUserControl.Info("Before calling SaveStatus"),
                    kSaveStatus.Info("Entry"), kSaveStatus.Info("Before calling RegCreateKeyEx"),
                    kSaveStatus.Info("Before aclling RegSetValueEx"), kSaveStatus.Info("Exit"),
                    kOnUserControl.Info("After calling SaveStatus")));
  }

  // A number of the status key; the largest one when it is missing or no number.
  DWORD Number(const wchar_t* name) const {
    DWORD value = 0;
    DWORD size = sizeof(value);
    const LSTATUS result =
        RegGetValueW(own.Get(), kStatusKey, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
    return result == ERROR_SUCCESS ? value : MAXDWORD;
  }

  static constexpr wchar_t kStatusKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Sample\\Status";

  Journal journal;
  TestService service{"Sample"};
  RegistryKey own;

 private:
  const std::wstring m_path = L"Software\\vorl test " + std::to_wstring(GetCurrentProcessId());
};

TEST_F(UserControl128, CreatesTheMissingKeyAndWritesTheStatusAsADword) {
  RegistryKey before;
  ASSERT_EQ(RegOpenKeyExW(own.Get(), L"SYSTEM", 0, KEY_READ, before.Receive()),
            ERROR_FILE_NOT_FOUND);
  SendControl();
  EXPECT_EQ(Number(L"Current"), 7U);
}

TEST_F(UserControl128, WritesTheStatusIntoAKeyThatIsThereAndLeavesTheRestOfItAlone) {
  const std::wstring inside = std::wstring(kStatusKey) + L"\\Inside";
  RegistryKey below;
  ASSERT_EQ(RegCreateKeyExW(own.Get(), inside.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                            KEY_ALL_ACCESS, nullptr, below.Receive(), nullptr),
            ERROR_SUCCESS);
  const DWORD other = 5;
  RegSetKeyValueW(own.Get(), kStatusKey, L"Other", REG_DWORD, &other, sizeof(other));
  RegSetKeyValueW(own.Get(), kStatusKey, L"Current", REG_SZ, L"old", sizeof(L"old"));
  SendControl();
  EXPECT_EQ(Number(L"Current"), 7U);
  EXPECT_EQ(Number(L"Other"), 5U);
  RegistryKey after;
  EXPECT_EQ(RegOpenKeyExW(own.Get(), inside.c_str(), 0, KEY_READ, after.Receive()), ERROR_SUCCESS);
}

// The whole of the control is done, only the report is left out: after STOPPED it would count.
TEST_F(UserControl128, WritesTheStatusAlsoWhileTheServiceEnds) {
  FakeMiscReset();
  FakeInfoReset();
  FakeMisc()->startUpOptionsResult = 0;  // the service's body ends at once
  FakeInfo()->eventNameResult = 0;
  ASSERT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, own.Get()), ERROR_SUCCESS);
  std::vector<DWORD> reported;
  {
    const CallPatch<struct WatcherTag, std::uintptr_t(void*, unsigned, unsigned (*)(void*), void*,
                                                      unsigned, unsigned*)>
        begin("msvcrt.dll", "_beginthreadex",
              [](void*, unsigned, unsigned (*watcher)(void*), void* argument, unsigned, unsigned*) {
                watcher(argument);
                return reinterpret_cast<std::uintptr_t>(GetCurrentThread());
              });
    const CallPatch<struct RegisterTag, decltype(RegisterServiceCtrlHandlerA)> registration(
        "ADVAPI32.dll", "RegisterServiceCtrlHandlerA", [](LPCSTR, LPHANDLER_FUNCTION) {
          return reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{0x5500});
        });
    const CallPatch<struct ReportTag, BOOL(SERVICE_STATUS_HANDLE, SERVICE_STATUS*)> report(
        "ADVAPI32.dll", "SetServiceStatus", [&](SERVICE_STATUS_HANDLE, SERVICE_STATUS* status) {
          reported.push_back(status->dwCurrentState);
          if (status->dwCurrentState == SERVICE_STOPPED) {
            journal.Clear();
            TestService::Handler(128);
          }
          return TRUE;
        });
    TestService::ServiceMain(0, nullptr);
  }
  RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
  EXPECT_EQ(Number(L"Current"), 7U);
  EXPECT_THAT(reported, ElementsAre(DWORD{SERVICE_START_PENDING}, DWORD{SERVICE_RUNNING},
                                    DWORD{SERVICE_STOPPED}));
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kHandler.Info("Entry"), kOnUserControl.Info("Entry"),
                  kOnUserControl.Info("Before calling SaveStatus"), kSaveStatus.Info("Entry"),
                  kSaveStatus.Info("Before calling RegCreateKeyEx"),
                  kSaveStatus.Info("Before aclling RegSetValueEx"), kSaveStatus.Info("Exit"),
                  kOnUserControl.Info("After calling SaveStatus"), kHandler.Info("Exit"),
                  kSetStatus.Info("Exit"), kServiceMain.Info("Exit")));
}

}  // namespace
