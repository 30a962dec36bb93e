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

}  // namespace
