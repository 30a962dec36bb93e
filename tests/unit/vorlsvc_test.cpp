#include "agent/vorlsvc.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "support/handle.h"
#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/handle_calls.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/unit/agent_service.h"
#include "tests/unit/operations.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST(CAcAsSvc, IsConstructedOnTopOfTheServiceBaseClass) {
  Journal journal;
  const CAcAsSvc service("Test Client Agent");
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kBaseConstructor.Info("Entry"), kBaseConstructor.Info("Exit"),
                          kConstructor.Info("Entry"), kConstructor.Info("Exit")));
}

TEST(CAcAsSvc, StartsWithItsNumbersSetAndNoCloseEvent) {
  const TestService service;
  EXPECT_EQ(service.m_dwFlag1, 0U);
  EXPECT_EQ(service.m_dwFlag2, 1U);
  EXPECT_EQ(service.m_dwCurrentStatus, 0U);
  EXPECT_EQ(service.m_dwReserved, 0U);
  EXPECT_EQ(service.m_hCloseEvent, nullptr);
}

TEST(CAcAsSvc, IsDestroyedThroughItsBaseClass) {
  Journal journal;
  std::unique_ptr<CNTService> service = std::make_unique<CAcAsSvc>("Test Client Agent");
  journal.Clear();
  service.reset();
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kDestructor.Info("Entry"), kDestructor.Info("Exit"),
                          kBaseDestructor.Info("Entry"), kBaseDestructor.Info("Exit")));
}

TEST(CAcAsSvc, ClosesNothingWhenTheWatcherNeverRan) {
  Journal journal;
  const HandleCalls handles(journal);
  auto service = std::make_unique<TestService>();
  service.reset();
  EXPECT_THAT(journal.Calls(), IsEmpty());
  EXPECT_EQ(handles.FailedCloses(), 0U);
}

class CAcAsSvcHooks : public ::testing::Test {
 protected:
  CAcAsSvcHooks() {
    FakeInfoReset();
    journal.Clear();
  }

  Journal journal;
  HandleCalls handles{journal};
  std::unique_ptr<TestService> service = std::make_unique<TestService>();
};

using OnInit = CAcAsSvcHooks;

TEST_F(OnInit, MakesTheAttributesForEveryoneAndEndsWithASecondEntry) {
  EXPECT_EQ(service->OnInit(), TRUE);
  EXPECT_THAT(journal.Traces(), ElementsAre(kOnInit.Info("Entry"), kMakeAttributes.Info("Entry"),
                                            kMakeAttributes.Info("Exit"), kOnInit.Info("Entry")));
  EXPECT_EQ(service->m_SecurityAttributes.nLength, 24U);
  EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, service->m_pSecurityDescriptor);
  EXPECT_NE(service->m_pSecurityDescriptor, nullptr);
  EXPECT_NE(service->m_pEveryoneSid, nullptr);
  EXPECT_NE(service->m_pAcl, nullptr);
}

TEST_F(OnInit, AsksForAllAccessToEvents) {
  service->OnInit();
  void* entry = nullptr;
  ASSERT_TRUE(GetAce(service->m_pAcl, 0, &entry));
  EXPECT_EQ(static_cast<const ACCESS_ALLOWED_ACE*>(entry)->Mask, 0x1F0003U);
}

TEST_F(OnInit, FailsWithoutTheAttributesAndLeavesTheLastError) {
  const CallPatch<struct LoadTag, HMODULE(const char*)> load("KERNEL32.dll", "LoadLibraryA",
                                                             [](const char*) -> HMODULE {
                                                               SetLastError(ERROR_ACCESS_DENIED);
                                                               return nullptr;
                                                             });
  EXPECT_EQ(service->OnInit(), FALSE);
  EXPECT_EQ(GetLastError(), 5U);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kOnInit.Info("Entry"), kMakeAttributes.Info("Entry"),
                          kMakeAttributes.Error("LoadLibrary Failed For : advapi32.dll(5)"),
                          kOnInit.Error("CreateSecurityAttributeForEveryone Failed")));
}

using OnStop = CAcAsSvcHooks;

TEST_F(OnStop, SignalsTheCloseEvent) {
  const HANDLE event = OpenOrCreateEvent(kCloseEvent);
  EXPECT_FALSE(IsSignalled(event));
  service->OnStop();
  EXPECT_TRUE(IsSignalled(event));
  CloseHandle(event);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kOnStop.Info("Entry"), kOnStop.Info("Before setting close Event"),
                          kOnStop.Info("After setting close Event"), kOnStop.Info("Exit")));
}

TEST_F(OnStop, ClosesItsHandleBetweenSignalAndExit) {
  service->OnStop();
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kOnStop.Info("Entry"), "CreateEventA " + kCloseEvent,
                  "DuplicateHandle " + kCloseEvent, kOnStop.Info("Before setting close Event"),
                  "SetEvent " + kCloseEvent, kOnStop.Info("After setting close Event"),
                  "CloseHandle " + kCloseEvent, kOnStop.Info("Exit")));
}

TEST_F(OnStop, CreatesTheEventManualAndNotSignalledWithTheAttributes) {
  service->OnInit();
  service->OnStop();
  ASSERT_EQ(handles.Creations().size(), 1U);
  const HandleCalls::Creation creation = handles.Creations()[0];
  EXPECT_EQ(creation.attributes, &service->m_SecurityAttributes);
  EXPECT_EQ(creation.manualReset, TRUE);
  EXPECT_EQ(creation.initialState, FALSE);
  EXPECT_EQ(creation.name, VersionedName("AcClientAgentSrvcCloseFromServicef"));
  EXPECT_EQ(FakeInfo()->eventNameCalls, 1U);
  EXPECT_EQ(FakeInfo()->eventNameCapacity, 500U);
}

TEST_F(OnStop, LeavesTheWatchersMemberAlone) {
  service->OnStop();
  EXPECT_EQ(service->m_hCloseEvent, nullptr);
}

// The signal must not die with the stop path's handle while nobody else holds the event.
TEST_F(OnStop, KeepsTheSignalledEventAliveUntilTheServiceIsDestroyed) {
  service->OnStop();
  EXPECT_THAT(handles.Open(), ElementsAre(kCloseEvent));
  const HANDLE event = OpenOrCreateEvent(kCloseEvent);
  EXPECT_TRUE(IsSignalled(event));
  CloseHandle(event);
  journal.Clear();
  service.reset();
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kDestructor.Info("Entry"), "CloseHandle " + kCloseEvent, kDestructor.Info("Exit"),
                  kBaseDestructor.Info("Entry"), kBaseDestructor.Info("Exit")));
  EXPECT_THAT(handles.Open(), IsEmpty());
  EXPECT_EQ(handles.FailedCloses(), 0U);
}

TEST_F(OnStop, SignalsTheCloseEventAlsoWhenNoSecondHandleCanBeHad) {
  const CallPatch<struct NoSecondTag, BOOL(HANDLE, HANDLE, HANDLE, HANDLE*, DWORD, BOOL, DWORD)>
      duplicate("KERNEL32.dll", "DuplicateHandle",
                [](HANDLE, HANDLE, HANDLE, HANDLE*, DWORD, BOOL, DWORD) {
                  SetLastError(ERROR_NO_SYSTEM_RESOURCES);
                  return FALSE;
                });
  const HANDLE event = OpenOrCreateEvent(kCloseEvent);
  service->OnStop();
  EXPECT_TRUE(IsSignalled(event));
  CloseHandle(event);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kOnStop.Info("Entry"), "CreateEventA " + kCloseEvent,
                          kOnStop.Info("Before setting close Event"), "SetEvent " + kCloseEvent,
                          kOnStop.Info("After setting close Event"), "CloseHandle " + kCloseEvent,
                          kOnStop.Info("Exit")));
  EXPECT_THAT(handles.Open(), IsEmpty());
}

// As long as a versioned name may be. An event's own name may have 260 characters only.
TEST_F(OnStop, TakesALongNameWhole) {
  const std::string prefix = std::string(450, 'n') + "_";
  StringCchCopyA(FakeInfo()->eventNamePrefix, sizeof(FakeInfo()->eventNamePrefix), prefix.c_str());
  service->OnStop();
  ASSERT_EQ(handles.Creations().size(), 1U);
  EXPECT_EQ(handles.Creations()[0].name, prefix + "AcClientAgentSrvcCloseFromServicef");
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kOnStop.Info("Entry"),
                          kOnStop.Error("CreateEvent Failed for Close Event : 206")));
}

TEST_F(OnStop, TwiceKeepsOneHandle) {
  service->OnStop();
  service->OnStop();
  EXPECT_THAT(handles.Open(), ElementsAre(kCloseEvent));
  service.reset();
  EXPECT_THAT(handles.Open(), IsEmpty());
  EXPECT_EQ(handles.FailedCloses(), 0U);
}

TEST_F(OnStop, EndsWhenTheEventHasNoName) {
  FakeInfo()->eventNameResult = 0;
  service->OnStop();
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kOnStop.Info("Entry"), kOnStop.Error("GetEventNameByVersion Failed")));
  EXPECT_THAT(journal.Calls(), IsEmpty());
}

TEST_F(OnStop, EndsWhenTheEventCannotBeCreated) {
  handles.FailCreation(kCloseEvent, ERROR_ACCESS_DENIED);
  service->OnStop();
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kOnStop.Info("Entry"), "CreateEventA " + kCloseEvent,
                          kOnStop.Error("CreateEvent Failed for Close Event : 5")));
}

TEST_F(OnStop, EndsWhenAnotherKindOfObjectHasTheEventsName) {
  const HANDLE mutex = CreateMutexA(nullptr, FALSE, VersionedName(kCloseEvent).c_str());
  service->OnStop();
  EXPECT_THAT(
      journal.Traces(),
      ElementsAre(kOnStop.Info("Entry"), kOnStop.Error("CreateEvent Failed for Close Event : 6")));
  CloseHandle(mutex);
}

TEST(OnShutdown, CallsOnStopThroughTheVirtualTableAndNothingElse) {
  class Overridden : public TestService {
   public:
    void OnStop() override { ++stops; }
    int stops = 0;
  };
  Journal journal;
  Overridden service;
  journal.Clear();
  service.OnShutdown();
  EXPECT_EQ(service.stops, 1);
  EXPECT_THAT(journal.Traces(), IsEmpty());
}

TEST_F(OnStop, IsWhatAShutdownDoes) {
  service->OnShutdown();
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kOnStop.Info("Entry"), kOnStop.Info("Before setting close Event"),
                          kOnStop.Info("After setting close Event"), kOnStop.Info("Exit")));
}

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
