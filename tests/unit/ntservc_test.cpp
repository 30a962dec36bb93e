#include "service/ntservc.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/ntservc_test.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

// ---- Construction, layout, destruction ----

TEST_F(NTService, ConstructorSetsTheDefaults) {
  const ExposedService service("Sample");
  EXPECT_STREQ(service.m_szServiceName, "Sample");
  EXPECT_EQ(service.m_nSpare1, 1);
  EXPECT_EQ(service.m_nSpare2, 0);
  EXPECT_EQ(service.m_hServiceStatus, nullptr);
  EXPECT_EQ(service.m_ServiceStatus.dwServiceType, 0x10U);
  EXPECT_EQ(service.m_ServiceStatus.dwCurrentState, 1U);
  EXPECT_EQ(service.m_ServiceStatus.dwControlsAccepted, 0x5U);
  EXPECT_EQ(service.m_ServiceStatus.dwWin32ExitCode, 0U);
  EXPECT_EQ(service.m_ServiceStatus.dwServiceSpecificExitCode, 0U);
  EXPECT_EQ(service.m_ServiceStatus.dwCheckPoint, 0U);
  EXPECT_EQ(service.m_ServiceStatus.dwWaitHint, 0U);
  EXPECT_EQ(service.m_bRunning, FALSE);
  EXPECT_FALSE(service.m_bNotifyServer);
  EXPECT_EQ(service.m_hEventLogSource, nullptr);
  EXPECT_EQ(service.ExitCode(), 0U);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kBaseConstructor.Info("Entry"), kBaseConstructor.Info("Exit")));
}

TEST_F(NTService, NameOf62CharactersIsKept) {
  const std::string name(62, 'n');
  const ExposedService service(name.c_str());
  EXPECT_EQ(service.m_szServiceName, name);
}

TEST_F(NTService, NameIsCutAt63Characters) {
  const ExposedService service(std::string(100, 'n').c_str());
  EXPECT_EQ(service.m_szServiceName, std::string(63, 'n'));
}

TEST_F(NTService, FieldsStandInTheirOrderBehindTheTableOfVirtualFunctions) {
  const ExposedService service("Sample");
  EXPECT_EQ(service.OffsetOf(service.m_szServiceName), 8U);
  EXPECT_EQ(sizeof(service.m_szServiceName), 64U);
  EXPECT_EQ(service.OffsetOf(service.m_nSpare1), 72U);
  EXPECT_EQ(service.OffsetOf(service.m_nSpare2), 76U);
  EXPECT_EQ(service.OffsetOf(service.m_hServiceStatus), 80U);
  EXPECT_EQ(service.OffsetOf(service.m_ServiceStatus), 88U);
  EXPECT_EQ(service.OffsetOf(service.m_bRunning), 116U);
  EXPECT_EQ(sizeof(service.m_bRunning), 4U);
  EXPECT_EQ(service.OffsetOf(service.m_bNotifyServer), 120U);
  EXPECT_EQ(sizeof(service.m_bNotifyServer), 1U);
  EXPECT_EQ(service.OffsetOf(service.m_hEventLogSource), 128U);
  EXPECT_EQ(sizeof(CNTService), 136U);
}

TEST_F(NTService, VirtualFunctionsStandInTheirOrderBehindTheDestructor) {
#ifdef _MSC_VER
  constexpr std::size_t kDestructorSlots = 1;
#else
  constexpr std::size_t kDestructorSlots = 2;  // one of them frees the object as well
#endif
  using Hook = BOOL (*)(CNTService*, DWORD);
  JournalService service(m_journal, "Sample");
  const auto* const table = *reinterpret_cast<const Hook* const*>(&service);
  for (std::size_t hook = 0; hook < 8; ++hook) {
    // What a hook does not take is left in a register.
    table[kDestructorSlots + hook](&service, 128);
  }
  EXPECT_THAT(m_journal.Calls(), ElementsAre("Run", "OnInit", "OnStop", "OnInterrogate", "OnPause",
                                             "OnContinue", "OnShutdown", "OnUserControl(128)"));
}

class EventSources : public NTService {
 protected:
  CallPatch<struct DeregisterTag, BOOL(HANDLE)> m_deregister{
      "ADVAPI32.dll", "DeregisterEventSource", [this](HANDLE source) {
        m_journal.Call("DeregisterEventSource(" + Hex(reinterpret_cast<ULONG_PTR>(source)) + ")");
        return TRUE;
      }};
};

TEST_F(EventSources, DestructorLeavesAMissingEventSourceAlone) {
  { const JournalService service(m_journal, "Sample"); }
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kBaseDestructor.Info("Entry"), kBaseDestructor.Info("Exit")));
}

TEST_F(EventSources, DestructorDeregistersTheEventSource) {
  {
    JournalService service(m_journal, "Sample");
    service.m_hEventLogSource = reinterpret_cast<HANDLE>(ULONG_PTR{0x4711});
  }
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kBaseDestructor.Info("Entry"), "DeregisterEventSource(0x4711)",
                          kBaseDestructor.Info("Exit")));
}

TEST_F(NTService, DestructorIsVirtual) {
  class Derived : public JournalService {
   public:
    explicit Derived(Journal& journal) : JournalService(journal, "Sample"), m_own(journal) {}
    ~Derived() override { m_own.Call("~Derived"); }

   private:
    Journal& m_own;
  };
  std::unique_ptr<CNTService> service = std::make_unique<Derived>(m_journal);
  service.reset();
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre("~Derived", kBaseDestructor.Info("Entry"), kBaseDestructor.Info("Exit")));
}

TEST_F(NTService, CallbacksReachTheObjectThatWasConstructedLast) {
  JournalService first(m_journal, "First");
  JournalService second(m_journal, "Second");
  first.m_hServiceStatus = kStatusHandle;
  second.m_hServiceStatus = kStatusHandle;
  ExposedService::Handler(SERVICE_CONTROL_USER_STOP);
  EXPECT_FALSE(first.m_bNotifyServer);
  EXPECT_TRUE(second.m_bNotifyServer);
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(m_journal.Calls(),
              ::testing::Contains("RegisterServiceCtrlHandlerA(\"Second\", Handler)"));
}

// ---- Default hooks ----

TEST_F(NTService, DefaultHooksOnlyWriteTheirLines) {
  ExposedService service("Sample");
  m_journal.Clear();
  service.Run();
  EXPECT_TRUE(service.OnInit());
  service.OnStop();
  service.OnInterrogate();
  service.OnPause();
  service.OnContinue();
  service.OnShutdown();
  EXPECT_FALSE(service.OnUserControl(128));
  EXPECT_THAT(
      m_journal.Entries(),
      ElementsAre(kBaseRun.Info("Entry"), kBaseRun.Info("Exit"), kBaseOnInit.Info("Entry"),
                  kBaseOnInit.Info("Exit"), kBaseOnStop.Info("Entry"), kBaseOnStop.Info("Exit"),
                  kBaseOnInterrogate.Info("Entry"), kBaseOnInterrogate.Info("Exit"),
                  kBaseOnPause.Info("Entry"), kBaseOnPause.Info("Exit"),
                  kBaseOnContinue.Info("Entry"), kBaseOnContinue.Info("Exit"),
                  kBaseOnShutdown.Info("Entry"), kBaseOnShutdown.Info("Exit"),
                  kBaseOnUserControl.Info("Entry"), kBaseOnUserControl.Info("Exit")));
}

TEST_F(NTService, WithTheDefaultRunTheServiceReportsRunningAndThenStoppedAtOnce) {
  const ExposedService service("Sample");
  ExposedService::ServiceMain(0, nullptr);
  EXPECT_THAT(States(), ElementsAre(2U, 4U, 1U));
}

// ---- StartService ----

class Dispatcher : public NTService {
 protected:
  BOOL m_result = TRUE;

  CallPatch<struct DispatcherTag, BOOL(const SERVICE_TABLE_ENTRYA*)> m_dispatcher{
      "ADVAPI32.dll", "StartServiceCtrlDispatcherA", [this](const SERVICE_TABLE_ENTRYA* table) {
        const bool ends = table[1].lpServiceName == nullptr && table[1].lpServiceProc == nullptr;
        m_journal.Call(
            "StartServiceCtrlDispatcherA(" + Quoted(table[0].lpServiceName) + ", " +
            (table[0].lpServiceProc == &ExposedService::ServiceMain ? "ServiceMain" : "another") +
            (ends ? ", end)" : ", more)"));
        SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
        return m_result;
      }};
};

TEST_F(Dispatcher, GetsTheNameAndTheEntryPoint) {
  JournalService service(m_journal, "Sample");
  EXPECT_TRUE(service.StartService());
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kStartService.Info("Entry"),
                          kStartService.Info("Before calling StartServiceCtrlDispatcher"),
                          "StartServiceCtrlDispatcherA(\"Sample\", ServiceMain, end)",
                          kStartService.Info("After calling StartServiceCtrlDispatcher"),
                          kStartService.Info("Exit")));
}

TEST_F(Dispatcher, FailureIsReturnedAndWritesNoLineOfItsOwn) {
  JournalService service(m_journal, "Sample");
  m_result = FALSE;
  EXPECT_FALSE(service.StartService());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FAILED_SERVICE_CONTROLLER_CONNECT});
  EXPECT_THAT(m_journal.Traces(),
              ElementsAre(kStartService.Info("Entry"),
                          kStartService.Info("Before calling StartServiceCtrlDispatcher"),
                          kStartService.Info("After calling StartServiceCtrlDispatcher"),
                          kStartService.Info("Exit")));
}

// ---- SetStatus and DebugMsg ----

TEST_F(NTService, SetStatusLeavesCheckPointWaitHintAndExitCodeAlone) {
  JournalService service(m_journal, "Sample");
  service.m_hServiceStatus = kStatusHandle;
  service.m_ServiceStatus.dwCheckPoint = 4;
  service.m_ServiceStatus.dwWaitHint = 2500;
  service.m_ServiceStatus.dwWin32ExitCode = 9;
  service.SetStatus(SERVICE_PAUSED);
  EXPECT_THAT(m_journal.Entries(), ElementsAreArray(SetStatusSteps(7, Report(7, 9, 4, 2500))));
  EXPECT_EQ(service.m_ServiceStatus.dwCurrentState, 7U);
}

TEST_F(NTService, SetStatusPrintsOnlyTheLower32BitsOfTheHandle) {
  JournalService service(m_journal, "Sample");
  service.m_hServiceStatus = reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{0xABCD'FFFF'FFFF});
  service.SetStatus(4);
  EXPECT_THAT(m_journal.Calls(), ::testing::Contains("OutputDebugStringA([Sample](" +
                                                     std::to_string(GetCurrentThreadId()) +
                                                     "): CNTService::SetStatus(4294967295, 4)\n)"));
}

class DebugMessage : public NTService {
 protected:
  const std::string m_prefix = "[Sample](" + std::to_string(GetCurrentThreadId()) + "): ";
  JournalService m_service{m_journal, "Sample"};

  std::string Sent() const {
    const std::vector<std::string> calls = m_journal.Calls();
    return calls.size() == 1 ? calls.front() : std::to_string(calls.size()) + " calls";
  }
};

TEST_F(DebugMessage, CarriesPrefixTextAndLineFeed) {
  m_service.DebugMsg("%s is at %d%%, %lu", "work", -5, 4000000000UL);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kDebugMsg.Info("Entry"),
                          "OutputDebugStringA(" + m_prefix + "work is at -5%, 4000000000\n)",
                          kDebugMsg.Info("Exit")));
}

TEST_F(DebugMessage, PercentSignsInTheServiceNameStandForThemselves) {
  JournalService service(m_journal, "50%s");
  service.DebugMsg("text");
  EXPECT_EQ(Sent(),
            "OutputDebugStringA([50%s](" + std::to_string(GetCurrentThreadId()) + "): text\n)");
}

TEST_F(DebugMessage, IsNotCutWhileItFits) {
  const std::string text(1022 - m_prefix.size(), 'x');
  m_service.DebugMsg("%s", text.c_str());
  EXPECT_EQ(Sent(), "OutputDebugStringA(" + m_prefix + text + "\n)");
}

TEST_F(DebugMessage, IsCutAt1023CharactersAndKeepsItsLineFeed) {
  m_service.DebugMsg("%s", std::string(1023 - m_prefix.size(), 'x').c_str());
  EXPECT_EQ(Sent(),
            "OutputDebugStringA(" + m_prefix + std::string(1022 - m_prefix.size(), 'x') + "\n)");
}

TEST_F(DebugMessage, FarTooLongIsCutAsWell) {
  m_service.DebugMsg("<%s>", std::string(5000, 'x').c_str());
  EXPECT_EQ(Sent(), "OutputDebugStringA(" + m_prefix + "<" +
                        std::string(1021 - m_prefix.size(), 'x') + "\n)");
}

}  // namespace
