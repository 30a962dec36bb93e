// Every call that fails in the operations of agent/.
#include <gmock/gmock.h>
#include <process.h>

#include <memory>
#include <string>
#include <vector>

#include "agent/secattrb.h"
#include "support/handle.h"
#include "tests/fakes/vorlcore_fake.h"
#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/call_hooks.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/text.h"
#include "tests/unit/agent_service.h"

namespace {

// The libraries' answers, and an installation whose modules are all there.
struct Surroundings {
  Surroundings() {
    FakeMiscReset();
    FakeInfoReset();
    StringCchCopyW(FakeMisc()->rootDir, kFolderCapacity, root.c_str());
  }

  const std::wstring root = TestFolder() + L"\\roots\\complete";
  TraceRecorder recorder;
};

TEST(AgentFaults, SecurityAttributes) {
  SweepFaults("CreateSecurityAttributeForEveryone", [](FaultRun& run) {
    Surroundings around;
    SECURITY_ATTRIBUTES attributes{};
    PSID sid = nullptr;
    PACL acl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    BOOL isMade = FALSE;
    run.Call(
        [&] {
          isMade = CreateSecurityAttributeForEveryone(&attributes, &sid, &acl, &descriptor,
                                                      EVENT_ALL_ACCESS);
          if (isMade) {
            FreeSecurityAttributeForEveryone(&attributes, sid, acl, descriptor);
          }
        },
        [&] {
          // A failure behind the SID leaves the library loaded.
          if (run.IsFaultIn({"SetEntriesInAclW", "LocalAlloc", "InitializeSecurityDescriptor",
                             "SetSecurityDescriptorDacl"})) {
            EXPECT_EQ(run.TakeOver("LoadLibraryA").size(), 1U);
          }
        });
    EXPECT_EQ(isMade != FALSE, !run.IsFaulted() || run.IsFaultIn({"FreeLibrary"}));
    run.ExpectLines(around.recorder.Lines(),
                    {{"LoadLibraryA", "LoadLibrary Failed For : advapi32.dll(%u)"},
                     {"AllocateAndInitializeSid", "s_pfnAllocateAndInitializeSid() Failed"},
                     {"SetEntriesInAclW", "s_pfnSetEntriesInAcl() Failed"},
                     {"LocalAlloc", "LocalAlloc() Failed"},
                     {"InitializeSecurityDescriptor", "s_pfnInitializeSecurityDescriptor() Failed"},
                     {"SetSecurityDescriptorDacl", "s_pfnSetSecurityDescriptorDacl() Failed"}});
  });
}

TEST(AgentFaults, Modules) {
  SweepFaults("LoadVorlcoreDll", [](FaultRun& run) {
    Surroundings around;
    HMODULE core = nullptr;
    run.Call([&] {
      core = LoadVorlcoreDll();
      if (core != nullptr) {
        FreeLibrary(core);
      }
    });
    EXPECT_EQ(core != nullptr, !run.IsFaulted() || run.IsFaultIn({"FreeLibrary"}));
    run.ExpectLines(around.recorder.Lines(),
                    {{"vorlmisc.dll#1", "GetClientAgentRootDir Fail..."},
                     {"LoadLibraryExW", "Load Library Fail... with error (%u)"}});
  });
  SweepFaults("DoPendingPatchTasks", [](FaultRun& run) {
    Surroundings around;
    bool isDone = false;
    run.Call([&] { isDone = DoPendingPatchTasks(); });
    EXPECT_EQ(isDone, !run.IsFaulted() || run.IsFaultIn({"FreeLibrary"}));
    const std::string missing = "File not exist (" + Utf8(around.root) + "\\vorlupd.dll)";
    run.ExpectLines(around.recorder.Lines(),
                    {{"vorlmisc.dll#1", "GetAdmnConRootDir Fail..."},
                     {"_waccess", missing.c_str()},
                     {"LoadLibraryExW", "Load Library Fail... with error (%u)"},
                     {"GetProcAddress", "GetProcAddress Fail... with error (%u)"},
                     {"UpdateBeforeClientService", "pfn_UpdateBeforeServerService Fail."}});
  });
}

TEST(AgentFaults, SaveStatus) {
  SweepFaults("CAcAsSvc::SaveStatus", [](FaultRun& run) {
    Surroundings around;
    TestService service;
    run.Call([&] { service.SaveStatus(); });
    run.ExpectLines(around.recorder.Lines(), {{"RegSetValueExA", "RegSetValueEx Failed"}});
  });
  RegDeleteTreeA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Services\\Test Client Agent");
}

TEST(AgentFaults, OnStop) {
  SweepFaults("CAcAsSvc::OnStop", [](FaultRun& run) {
    Surroundings around;
    auto service = std::make_unique<TestService>();
    const KernelHandle event(OpenOrCreateEvent(kCloseEvent));
    run.Call([&] { service->OnStop(); }, [&] { service.reset(); });
    EXPECT_EQ(IsSignalled(event.Get()),
              !run.IsFaultIn({"vorlinfo.dll#1", "CreateEventA", "SetEvent"}));
    run.ExpectLines(around.recorder.Lines(),
                    {{"vorlinfo.dll#1", "GetEventNameByVersion Failed"},
                     {"CreateEventA", "CreateEvent Failed for Close Event : %u"}});
  });
}

TEST(AgentFaults, ClosureWatcher) {
  SweepFaults("WaitForServiceClosure", [](FaultRun& run) {
    Surroundings around;
    auto service = std::make_unique<TestService>();
    const KernelHandle event(OpenOrCreateEvent(kExitEvent));
    SetEvent(event.Get());
    run.Call([&] { service->Watch(); },
             [&] {
               // What the watcher has closed for want of an exit event.
               if (run.IsFaultIn({"CreateEventA"})) {
                 service->m_hCloseEvent = nullptr;
               }
               service.reset();
             });
    const std::string exitEvent = "CreateEvent Failed for " +
                                  VersionedName(run.FaultNumber() == 1 ? kCloseEvent : kExitEvent) +
                                  " (%u):";
    run.ExpectLines(around.recorder.Lines(),
                    {{"vorlinfo.dll#1", "GetEventNameByVersion Failed"},
                     {"CreateEventA", exitEvent.c_str()},
                     {"WaitForMultipleObjects", "WaitForMultipleObjects Failed"}});
  });
}

// The watcher's thread, whatever the service does with its handle.
class WatcherThread {
 public:
  ~WatcherThread() { Await(); }

  void Await() {
    const UnheardCalls unheard;
    if (m_thread) {
      WaitForSingleObject(m_thread.Get(), INFINITE);
      m_thread.Reset();
    }
  }

 private:
  KernelHandle m_thread;
  CallPatch<struct BeginTag, decltype(_beginthreadex)> m_begin{
      "msvcrt.dll", "_beginthreadex",
      [this](void* security, unsigned size, _beginthreadex_proc_type start, void* argument,
             unsigned flags, unsigned* id) {
        const std::uintptr_t thread =
            m_begin.CallOriginal(security, size, start, argument, flags, id);
        DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(thread), GetCurrentProcess(),
                        m_thread.Receive(), 0, FALSE, DUPLICATE_SAME_ACCESS);
        return thread;
      }};
};

// The core module of the installation, held so that its record outlives the service's body.
class HeldCore {
 public:
  explicit HeldCore(const std::wstring& root)
      : m_module(LoadLibraryW((root + L"\\vorlcore.dll").c_str())),
        m_record(reinterpret_cast<FakeCoreFn*>(
            reinterpret_cast<void*>(GetProcAddress(m_module.Get(), "FakeCore")))()) {}

  FakeCoreRecord* operator->() const { return m_record; }

 private:
  Module m_module;
  FakeCoreRecord* m_record;
};

TEST(AgentFaults, Run) {
  SweepFaults("CAcAsSvc::Run", [](FaultRun& run) {
    Surroundings around;
    const HeldCore core(around.root);
    // Ends the closure watcher as soon as it waits.
    const KernelHandle exitEvent(OpenOrCreateEvent(kExitEvent));
    SetEvent(exitEvent.Get());
    WatcherThread watcher;
    auto service = std::make_unique<TestService>();
    ASSERT_TRUE(service->OnInit());
    run.Call([&] { service->Run(); },
             [&] {
               watcher.Await();
               // Left open where the body ends before it would wait for the thread.
               for (const HANDLE thread : run.TakeOver("_beginthreadex")) {
                 CloseHandle(thread);
               }
               if (run.IsFaultIn({"CreateEventA"})) {
                 service->m_hCloseEvent = nullptr;
               }
               service.reset();
             });
    const bool isCoreFound =
        !run.IsFaultIn({"_beginthreadex", "vorlmisc.dll#6"}) &&
        !(run.IsFaultIn({"vorlmisc.dll#1", "LoadLibraryExW", "GetProcAddress"}) &&
          run.FaultNumber() == 2);
    const bool isStarted = isCoreFound && !run.IsFaultIn({"ClientAgentCoreStartUp"});
    EXPECT_EQ(core->startUpCalls, isStarted ? 1U : 0U);
    const bool isCleanedUp = isStarted && !run.IsFaultIn({"ClientAgentCoreCleanUp"}) &&
                             !(run.IsFaultIn({"GetProcAddress"}) && run.FaultNumber() == 3);
    EXPECT_EQ(core->cleanUpCalls, isCleanedUp ? 1U : 0U);
    run.ExpectLines(around.recorder.Lines(),
                    {{"vorlmisc.dll#6", "GetClientAgentStartUpOptions Failed"},
                     {"_waccess", "DoPendingPatchTasks failed..."},
                     {"ClientAgentCoreStartUp", "ClientAgentCoreStartUp Failed"},
                     {"ClientAgentCoreCleanUp", "ClientAgentCoreCleanUp Failed"},
                     {"WaitForSingleObject", "WaitForSingleObject Failed %u"},
                     {"WaitForMultipleObjects", "WaitForMultipleObjects Failed"}});
  });
}

}  // namespace
