// The service's body, from the start of the closure watcher to the clean-up of the core module.
#include <gmock/gmock.h>
#include <process.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/vorlsvc.h"
#include "tests/fakes/vorlcore_fake.h"
#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/handle_calls.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/support/library_calls.h"
#include "tests/support/start_process.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"
#include "tests/unit/agent_service.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr char kSource[] = "agent/vorlsvc.cpp";
constexpr char kWatcher[] = "WaitForServiceClosure";

TraceLine RunLine(int level, const std::string& text) {
  return Line(level, "CAcAsSvc::Run", kSource, text);
}

// Such a line in the journal.
std::string Ran(int level, const std::string& text) {
  return Traced(level, "CAcAsSvc::Run", kSource, text);
}

// The name of a module's file in lower case.
std::string FileName(const std::wstring& path) {
  std::string name = Utf8(path.substr(path.rfind(L'\\') + 1));
  CharLowerA(name.data());
  return name;
}

// A start-up options block in which every field has a value of its own.
CLIENT_AGENT_STARTUP_OPTIONS SampleOptions() {
  CLIENT_AGENT_STARTUP_OPTIONS options{};
  StringCchCopyA(options.Text1, sizeof(options.Text1), "first text");
  StringCchCopyA(options.Text2, sizeof(options.Text2), "second text");
  StringCchCopyA(options.Text3, sizeof(options.Text3), "third text");
  StringCchCopyA(options.Text4, sizeof(options.Text4), "fourth text");
  options.Word1 = 0xF001;
  options.Word2 = 0xF002;
  options.Word3 = 0xF003;
  options.Word4 = 0xF004;
  options.NotPassedOn[0] = 0xEE;
  options.NotPassedOn[1] = 0xEE;
  options.Dword1 = 0xF0000001;
  options.Dword2 = 0xF0000002;
  options.Dword3 = 0xF0000003;
  options.Dword4 = 0xF0000004;
  options.Dword5 = 0xF0000005;
  options.Byte1 = 0xB1;
  options.Dword6 = 0xF0000006;
  return options;
}

// The core module of a root folder, held by the test so that its record outlives Run.
class HeldCore {
 public:
  explicit HeldCore(const std::wstring& root)
      : m_path(root + L"\\vorlcore.dll"), m_module(LoadLibraryW(m_path.c_str())) {
    m_record = reinterpret_cast<FakeCoreFn*>(
        reinterpret_cast<void*>(GetProcAddress(m_module, "FakeCore")))();
  }
  ~HeldCore() {
    FreeLibrary(m_module);
    // Loaded by nobody else any more: the service unloaded what it loaded.
    EXPECT_EQ(GetModuleHandleW(m_path.c_str()), nullptr);
  }
  HeldCore(const HeldCore&) = delete;
  HeldCore& operator=(const HeldCore&) = delete;

  FakeCoreRecord* operator->() const { return m_record; }

 private:
  std::wstring m_path;
  HMODULE m_module;
  FakeCoreRecord* m_record = nullptr;
};

// Runs the service's body with the recording core and update modules. The watcher's thread is the
// real one and can be held back ahead of its first step; its lines come at any time.
class RunTest : public ::testing::Test {
 protected:
  RunTest() {
    FakeMiscReset();
    FakeInfoReset();
    FakeMisc()->startUpOptions = SampleOptions();
    UseRoot(L"complete");
    service->OnInit();
    FakeTraceClear();
    journal.Clear();
  }

  ~RunTest() override {
    EndWatcher();
    service.reset();
    CloseHandle(m_gate);
    if (watcher != nullptr) {
      CloseHandle(watcher);
    }
  }

  void UseRoot(const std::wstring& name) {
    root = TestFolder() + L"\\roots\\" + name;
    StringCchCopyW(FakeMisc()->rootDir, kFolderCapacity, root.c_str());
  }

  void HoldWatcher() { ResetEvent(m_gate); }
  void ReleaseWatcher() { SetEvent(m_gate); }

  // Waits for the watcher's end without doing anything for it.
  void AwaitWatcher() { WaitForSingleObject(watcher, INFINITE); }

  // Ends a watcher that still waits, whatever the test did.
  void EndWatcher() {
    ReleaseWatcher();
    if (watcher != nullptr) {
      const HANDLE event = OpenOrCreateEvent(kExitEvent);
      SetEvent(event);
      AwaitWatcher();
      CloseHandle(event);
    }
  }

  // The core's work in StartUp: whatever `work` does, on the service thread.
  void AtStartUp(HeldCore& core, std::function<void()> work) {
    m_work = std::move(work);
    core->context = &m_work;
    core->onStartUp = [](void* context) { (*static_cast<std::function<void()>*>(context))(); };
  }

  // Puts the core's two calls into the journal.
  void JournalCore(HeldCore& core) {
    core->context = &journal;
    core->onStartUp = [](void* context) {
      static_cast<Journal*>(context)->Call("ClientAgentCoreStartUp");
    };
    core->onCleanUp = [](void* context) {
      static_cast<Journal*>(context)->Call("ClientAgentCoreCleanUp");
    };
  }

  // The lines of everything but the watcher.
  std::vector<TraceLine> Lines() const {
    std::vector<TraceLine> lines = recorder.Lines();
    std::erase_if(lines, [](const TraceLine& line) { return line.function == kWatcher; });
    return lines;
  }

  // The calls and the lines of Run alone.
  std::vector<std::string> RunAndCalls() const {
    std::vector<std::string> entries = journal.Entries();
    std::erase_if(entries, [](const std::string& entry) {
      return entry.starts_with("level ") && entry.find(" CAcAsSvc::Run (") == std::string::npos;
    });
    return entries;
  }

  std::string PathText(const char* file) const {
    return "wszFilePath: " + Utf8(root) + "\\" + file;
  }

  const TraceRecorder recorder;
  Journal journal;
  std::wstring root;
  std::unique_ptr<TestService> service = std::make_unique<TestService>();
  // The watcher's thread, a handle of the test's own; null until it is started.
  HANDLE watcher = nullptr;
  unsigned beginCalls = 0;
  bool beginFails = false;
  void* beginArgument = nullptr;
  unsigned waitsForWatcher = 0;
  // What happens when the service has entered its wait for the watcher.
  std::function<void()> atWait;
  // Whether the journal shows which exports of the modules are looked up.
  bool journalsLookUps = false;

 private:
  using Procedure = unsigned (*)(void*);
  struct Start {
    Procedure procedure;
    void* argument;
    HANDLE gate;
  };

  static unsigned __stdcall RunWhenReleased(void* argument) {
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    WaitForSingleObject(start->gate, INFINITE);
    return start->procedure(start->argument);
  }

  std::uintptr_t OnBegin(void* security, unsigned stackSize, Procedure procedure, void* argument,
                         unsigned flags, unsigned* id) {
    // The thread library starts its threads in the same way.
    if (procedure != &WaitForServiceClosure) {
      return m_begin.CallOriginal(security, stackSize, procedure, argument, flags, id);
    }
    ++beginCalls;
    beginArgument = argument;
    EXPECT_EQ(security, nullptr);
    EXPECT_EQ(stackSize, 0U);
    EXPECT_EQ(flags, 0U);
    EXPECT_NE(id, nullptr);
    journal.Call("_beginthreadex");
    if (beginFails) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    auto start = std::make_unique<Start>(Start{procedure, argument, m_gate});
    const std::uintptr_t thread =
        m_begin.CallOriginal(security, stackSize, &RunWhenReleased, start.release(), flags, id);
    m_thread = reinterpret_cast<HANDLE>(thread);
    watcher = OpenThread(SYNCHRONIZE, FALSE, *id);
    handles.Watch(m_thread, "watcher thread");
    return thread;
  }

  HANDLE m_gate = CreateEventW(nullptr, TRUE, /*bInitialState=*/TRUE, nullptr);
  HANDLE m_thread = nullptr;
  std::function<void()> m_work;

  struct BeginTag;
  struct WaitTag;
  struct LoadTag;
  struct FreeTag;
  struct LookUpTag;
  struct StatusTag;

  CallPatch<BeginTag, std::uintptr_t(void*, unsigned, Procedure, void*, unsigned, unsigned*)>
      m_begin{"msvcrt.dll", "_beginthreadex",
              [this](void* security, unsigned stackSize, Procedure procedure, void* argument,
                     unsigned flags, unsigned* id) {
                return OnBegin(security, stackSize, procedure, argument, flags, id);
              }};
  CallPatch<WaitTag, DWORD(HANDLE, DWORD)> m_wait{
      "KERNEL32.dll", "WaitForSingleObject", [this](HANDLE handle, DWORD milliseconds) {
        if (handle == m_thread && handle != nullptr) {
          EXPECT_EQ(milliseconds, INFINITE);
          journal.Call("WaitForSingleObject watcher thread");
          ++waitsForWatcher;
          if (atWait) {
            atWait();
          }
          // Does not let a lost signal hang the test.
          if (m_wait.CallOriginal(handle, 10000) == WAIT_TIMEOUT) {
            ADD_FAILURE() << "the watcher has missed its signal";
            EndWatcher();
          }
        }
        return m_wait.CallOriginal(handle, milliseconds);
      }};
  CallPatch<LoadTag, HMODULE(const wchar_t*, HANDLE, DWORD)> m_load{
      "KERNEL32.dll", "LoadLibraryExW", [this](const wchar_t* path, HANDLE file, DWORD flags) {
        journal.Call("LoadLibraryExW " + FileName(path));
        return m_load.CallOriginal(path, file, flags);
      }};
  CallPatch<LookUpTag, FARPROC(HMODULE, const char*)> m_lookUp{
      "KERNEL32.dll", "GetProcAddress", [this](HMODULE module, const char* name) {
        if (journalsLookUps) {
          wchar_t path[MAX_PATH] = {};
          GetModuleFileNameW(module, path, MAX_PATH);
          journal.Call("GetProcAddress " + FileName(path) + " " + name);
        }
        return m_lookUp.CallOriginal(module, name);
      }};
  CallPatch<FreeTag, BOOL(HMODULE)> m_free{"KERNEL32.dll", "FreeLibrary", [this](HMODULE module) {
                                             wchar_t path[MAX_PATH] = {};
                                             GetModuleFileNameW(module, path, MAX_PATH);
                                             journal.Call("FreeLibrary " + FileName(path));
                                             return m_free.CallOriginal(module);
                                           }};
  // There is no service control manager behind the handler.
  CallPatch<StatusTag, BOOL(SERVICE_STATUS_HANDLE, SERVICE_STATUS*)> m_status{
      "ADVAPI32.dll", "SetServiceStatus",
      [](SERVICE_STATUS_HANDLE, SERVICE_STATUS*) { return TRUE; }};

 protected:
  HandleCalls handles{journal};
};

TEST_F(RunTest, HostsTheModulesUntilTheWatcherEnds) {
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  EXPECT_THAT(
      Lines(),
      ElementsAre(
          RunLine(2, "Entry"), RunLine(2, "Before calling GetClientAgentStartUpOptions"),
          RunLine(2, "Calling for pending update..."),
          Line(2, "DoPendingPatchTasks", kSource, "Entry."),
          WideLine(2, "DoPendingPatchTasks", kSource, "wszFilePath: %s", PathText("vorlupd.dll")),
          Line(2, "DoPendingPatchTasks", kSource, "Exit."),
          RunLine(2, "After calling GetClientAgentStartUpOptions"),
          Line(2, "LoadVorlcoreDll", kSource, "Entry."),
          WideLine(8, "LoadVorlcoreDll", kSource, "wszFilePath: %s", PathText("vorlcore.dll")),
          Line(2, "LoadVorlcoreDll", kSource, "Exit."),
          RunLine(2, "Before calling ClientAgentCoreStartUp"),
          Line(2, "CAcAsSvc::OnStop", kSource, "Entry"),
          Line(2, "CAcAsSvc::OnStop", kSource, "Before setting close Event"),
          Line(2, "CAcAsSvc::OnStop", kSource, "After setting close Event"),
          Line(2, "CAcAsSvc::OnStop", kSource, "Exit"),
          RunLine(2, "After calling ClientAgentCoreStartUp"),
          RunLine(2, "Before Calling WaitForSingleObject"),
          RunLine(2, "After Calling WaitForSingleObject"),
          RunLine(2, "Before calling ClientAgentCoreCleanUp"), RunLine(2, "Notify server is false"),
          RunLine(2, "After calling ClientAgentCoreCleanUp"),
          RunLine(2, "Before calling FreeSecurityAttributeForEveryone"),
          Line(2, "FreeSecurityAttributeForEveryone", "agent/secattrb.cpp", "Entry"),
          Line(2, "FreeSecurityAttributeForEveryone", "agent/secattrb.cpp",
               "Before calling g_pfnFreeSid"),
          Line(2, "FreeSecurityAttributeForEveryone", "agent/secattrb.cpp",
               "Before calling LocalFree"),
          Line(2, "FreeSecurityAttributeForEveryone", "agent/secattrb.cpp",
               "Before calling LocalFree"),
          Line(2, "FreeSecurityAttributeForEveryone", "agent/secattrb.cpp", "Exit"),
          RunLine(2, "After calling FreeSecurityAttributeForEveryone"), RunLine(2, "Exit")));
  EXPECT_EQ(core->startUpCalls, 1U);
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(RunTest, CallsWindowsInOrder) {
  UseRoot(L"complete");
  HeldCore core(root);
  // Ended from outside, so that the service itself touches no event here.
  AtStartUp(core, [this] {
    const HANDLE event = OpenOrCreateEvent(kExitEvent);
    SetEvent(event);
    AwaitWatcher();
    CloseHandle(event);
    journal.Clear();
  });
  service->Run();
  EXPECT_THAT(
      RunAndCalls(),
      ElementsAre(Ran(2, "After calling ClientAgentCoreStartUp"),
                  Ran(2, "Before Calling WaitForSingleObject"),
                  "WaitForSingleObject watcher thread", Ran(2, "After Calling WaitForSingleObject"),
                  "CloseHandle watcher thread", Ran(2, "Before calling ClientAgentCoreCleanUp"),
                  Ran(2, "Notify server is false"), Ran(2, "After calling ClientAgentCoreCleanUp"),
                  Ran(2, "Before calling FreeSecurityAttributeForEveryone"),
                  "FreeLibrary vorlcore.dll", "FreeLibrary advapi32.dll",
                  Ran(2, "After calling FreeSecurityAttributeForEveryone"), Ran(2, "Exit")));
}

TEST_F(RunTest, WritesEachLineInItsPlaceAmongAllCalls) {
  HeldCore core(root);
  JournalCore(core);
  journalsLookUps = true;
  const LibraryCalls libraries(journal);
  // The watcher works while the service waits for it, and at no other time.
  HoldWatcher();
  const HANDLE exitEvent = OpenOrCreateEvent(kExitEvent);
  SetEvent(exitEvent);
  atWait = [this] {
    ReleaseWatcher();
    AwaitWatcher();
  };
  service->Run();
  CloseHandle(exitEvent);
  EXPECT_THAT(
      RunAndCalls(),
      ElementsAre(
          Ran(2, "Entry"), "_beginthreadex", Ran(2, "Before calling GetClientAgentStartUpOptions"),
          "GetClientAgentStartUpOptions", Ran(2, "Calling for pending update..."),
          "GetClientAgentRootDir", "LoadLibraryExW vorlupd.dll",
          "GetProcAddress vorlupd.dll UpdateBeforeClientService", "FreeLibrary vorlupd.dll",
          Ran(2, "After calling GetClientAgentStartUpOptions"), "GetClientAgentRootDir",
          "LoadLibraryExW vorlcore.dll", "GetProcAddress vorlcore.dll ClientAgentCoreStartUp",
          Ran(2, "Before calling ClientAgentCoreStartUp"), "ClientAgentCoreStartUp",
          Ran(2, "After calling ClientAgentCoreStartUp"),
          Ran(2, "Before Calling WaitForSingleObject"), "WaitForSingleObject watcher thread",
          "GetEventNameByVersion " + kCloseEvent, "GetEventNameByVersion " + kExitEvent,
          "CreateEventA " + kCloseEvent, "CreateEventA " + kExitEvent, "CloseHandle " + kExitEvent,
          Ran(2, "After Calling WaitForSingleObject"), "CloseHandle watcher thread",
          Ran(2, "Before calling ClientAgentCoreCleanUp"),
          "GetProcAddress vorlcore.dll ClientAgentCoreCleanUp", Ran(2, "Notify server is false"),
          "ClientAgentCoreCleanUp", Ran(2, "After calling ClientAgentCoreCleanUp"),
          Ran(2, "Before calling FreeSecurityAttributeForEveryone"), "FreeLibrary vorlcore.dll",
          "FreeLibrary advapi32.dll", Ran(2, "After calling FreeSecurityAttributeForEveryone"),
          Ran(2, "Exit")));
}

TEST_F(RunTest, UnloadsTheUpdateModuleBeforeItLoadsTheCore) {
  HeldCore core(root);
  HoldWatcher();
  core->startUpResult = 0;
  service->Run();
  const std::vector<std::string> calls = journal.Calls();
  ASSERT_GE(calls.size(), 4U);
  EXPECT_THAT(std::vector(calls.begin(), calls.begin() + 4),
              ElementsAre("_beginthreadex", "LoadLibraryExW vorlupd.dll", "FreeLibrary vorlupd.dll",
                          "LoadLibraryExW vorlcore.dll"));
}

TEST_F(RunTest, HandsTheOptionsToTheCoreFieldByField) {
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  EXPECT_TRUE(FakeMisc()->startUpOptionsWereZero);
  EXPECT_EQ(FakeMisc()->startUpOptionsCalls, 1U);

  EXPECT_STREQ(core->startUpTexts[0], "first text");
  EXPECT_STREQ(core->startUpTexts[1], "second text");
  EXPECT_STREQ(core->startUpTexts[2], "third text");
  EXPECT_STREQ(core->startUpTexts[3], "fourth text");
  EXPECT_THAT(core->startUpWords, ElementsAre(0xF001, 0xF002, 0xF003, 0xF004));
  EXPECT_THAT(core->startUpDwords, ElementsAre(0xF0000001U, 0xF0000002U, 0xF0000003U, 0xF0000004U,
                                               0xF0000005U, 0xF0000006U));
  EXPECT_EQ(core->startUpByte1, 0xB1);

  EXPECT_STREQ(core->cleanUpTexts[0], "first text");
  EXPECT_STREQ(core->cleanUpTexts[1], "second text");
  EXPECT_STREQ(core->cleanUpTexts[2], "third text");
  EXPECT_STREQ(core->cleanUpTexts[3], "fourth text");
  EXPECT_EQ(core->cleanUpWord1, 0xF001);
  EXPECT_THAT(core->cleanUpDwords, ElementsAre(0xF0000001U, 0xF0000002U, 0xF0000003U, 0xF0000006U));
}

TEST_F(RunTest, HandsOverAddressesInsideTheOneOptionsBlock) {
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  const char* const block = core->startUpAddresses[0];
  EXPECT_EQ(core->startUpAddresses[1] - block, 520);
  EXPECT_EQ(core->startUpAddresses[2] - block, 1040);
  EXPECT_EQ(core->startUpAddresses[3] - block, 1080);
  EXPECT_THAT(core->cleanUpAddresses, ElementsAre(block, block + 520, block + 1040, block + 1080));
}

TEST_F(RunTest, StartsTheWatcherWithTheService) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  EXPECT_EQ(beginCalls, 1U);
  EXPECT_EQ(beginArgument, static_cast<CAcAsSvc*>(service.get()));
}

TEST_F(RunTest, EndsWhenTheWatcherCannotBeStarted) {
  beginFails = true;
  service->Run();
  EXPECT_THAT(journal.Entries(),
              ElementsAre(Ran(2, "Entry"), "_beginthreadex", Ran(1, "_beginthreadex Failed 8")));
  EXPECT_EQ(FakeMisc()->startUpOptionsCalls, 0U);
}

// Without start-up options.

TEST_F(RunTest, FailingOptionsSignalTheCloseEventSoThatTheWatcherEndsAtOnceAndLoadNoCore) {
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  AwaitWatcher();
  EXPECT_THAT(Lines(), ElementsAre(RunLine(2, "Entry"),
                                   RunLine(2, "Before calling GetClientAgentStartUpOptions"),
                                   RunLine(1, "GetClientAgentStartUpOptions Failed")));
  EXPECT_THAT(recorder.LinesOf(kWatcher),
              ElementsAre(Line(2, kWatcher, "agent/cathdsvc.cpp", "Entry"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Close Event Signalled"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Exit")));
  EXPECT_EQ(FakeMisc()->rootDirCalls, 0U);
  EXPECT_EQ(waitsForWatcher, 0U);
  EXPECT_THAT(handles.Open(), ::testing::Contains("watcher thread"));
}

TEST_F(RunTest, FailingOptionsSignalTheCloseEventAndCloseTheHandle) {
  const LibraryCalls libraries(journal);
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(Ran(2, "Entry"), "_beginthreadex",
                  Ran(2, "Before calling GetClientAgentStartUpOptions"),
                  "GetClientAgentStartUpOptions", Ran(1, "GetClientAgentStartUpOptions Failed"),
                  "GetEventNameByVersion " + kCloseEvent, "CreateEventA " + kCloseEvent,
                  "DuplicateHandle " + kCloseEvent, "SetEvent " + kCloseEvent,
                  "CloseHandle " + kCloseEvent));
  const HandleCalls::Creation creation = handles.Creations()[0];
  EXPECT_EQ(creation.name, VersionedName("AcClientAgentSrvcCloseFromServicef"));
  EXPECT_EQ(creation.attributes, &service->m_SecurityAttributes);
  EXPECT_EQ(creation.manualReset, TRUE);
  EXPECT_EQ(creation.initialState, FALSE);
  EXPECT_EQ(FakeInfo()->eventNameCapacity, 500U);
}

TEST_F(RunTest, FailingOptionsAndACloseEventWithoutANameAreTwoErrors) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  FakeInfo()->eventNameFailingCall = 1;
  service->Run();
  EXPECT_THAT(Lines(), ElementsAre(RunLine(2, "Entry"),
                                   RunLine(2, "Before calling GetClientAgentStartUpOptions"),
                                   RunLine(1, "GetClientAgentStartUpOptions Failed"),
                                   RunLine(1, "GetEventNameByVersion Failed")));
  EXPECT_THAT(journal.Calls(), ElementsAre("_beginthreadex"));
}

TEST_F(RunTest, FailingOptionsAndACloseEventThatCannotBeCreatedAreTwoErrors) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  handles.FailCreation(kCloseEvent, ERROR_ACCESS_DENIED);
  service->Run();
  EXPECT_THAT(Lines(), ElementsAre(RunLine(2, "Entry"),
                                   RunLine(2, "Before calling GetClientAgentStartUpOptions"),
                                   RunLine(1, "GetClientAgentStartUpOptions Failed"),
                                   RunLine(1, "CreateEvent Failed for Close Event : 5")));
  EXPECT_THAT(journal.Calls(), ElementsAre("_beginthreadex", "CreateEventA " + kCloseEvent));
}

// Without one of the modules or of its exports.

TEST_F(RunTest, StartsTheCoreWithoutAnUpdateModule) {
  UseRoot(L"core_only");
  HeldCore core(root);
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  std::vector<TraceLine> lines = Lines();
  ASSERT_GE(lines.size(), 8U);
  EXPECT_THAT(
      std::vector(lines.begin(), lines.begin() + 8),
      ElementsAre(
          RunLine(2, "Entry"), RunLine(2, "Before calling GetClientAgentStartUpOptions"),
          RunLine(2, "Calling for pending update..."),
          Line(2, "DoPendingPatchTasks", kSource, "Entry."),
          WideLine(2, "DoPendingPatchTasks", kSource, "wszFilePath: %s", PathText("vorlupd.dll")),
          WideLine(1, "DoPendingPatchTasks", kSource, "File not exist (%s)",
                   "File not exist (" + Utf8(root) + "\\vorlupd.dll)"),
          RunLine(2, "DoPendingPatchTasks failed..."),
          RunLine(2, "After calling GetClientAgentStartUpOptions")));
  EXPECT_EQ(core->startUpCalls, 1U);
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(RunTest, EndsWithoutACoreModuleAndSignalsNothing) {
  HoldWatcher();
  UseRoot(L"without_update");
  service->Run();
  EXPECT_THAT(
      recorder.LinesOf("CAcAsSvc::Run"),
      ElementsAre(RunLine(2, "Entry"), RunLine(2, "Before calling GetClientAgentStartUpOptions"),
                  RunLine(2, "Calling for pending update..."),
                  RunLine(2, "DoPendingPatchTasks failed..."),
                  RunLine(2, "After calling GetClientAgentStartUpOptions"),
                  RunLine(1, "LoadAcresDll() failed.")));
  EXPECT_THAT(journal.Calls(),
              ElementsAre("_beginthreadex", "LoadLibraryExW vorlupd.dll", "FreeLibrary vorlupd.dll",
                          "LoadLibraryExW vorlcore.dll"));
  EXPECT_THAT(handles.Open(), ElementsAre("watcher thread"));
}

TEST_F(RunTest, UnloadsACoreWithoutStartUpAndSignalsNothing) {
  HoldWatcher();
  UseRoot(L"without_startup");
  {
    HeldCore core(root);
    service->Run();
    EXPECT_EQ(core->cleanUpCalls, 0U);
  }
  EXPECT_THAT(
      recorder.LinesOf("CAcAsSvc::Run"),
      ElementsAre(RunLine(2, "Entry"), RunLine(2, "Before calling GetClientAgentStartUpOptions"),
                  RunLine(2, "Calling for pending update..."),
                  RunLine(2, "DoPendingPatchTasks failed..."),
                  RunLine(2, "After calling GetClientAgentStartUpOptions"),
                  RunLine(1, "GetProcAddress() failed for ClientAgentCoreStartUp.")));
  const std::vector<std::string> entries = RunAndCalls();
  EXPECT_THAT(std::vector(entries.end() - 4, entries.end()),
              ElementsAre("LoadLibraryExW vorlcore.dll",
                          Ran(1, "GetProcAddress() failed for ClientAgentCoreStartUp."),
                          "FreeLibrary vorlcore.dll", "FreeLibrary vorlcore.dll"))
      << "the second one is the test's own";
  EXPECT_THAT(handles.Open(), ElementsAre("watcher thread"));
}

TEST_F(RunTest, UnloadsACoreWithoutCleanUpAfterTwoCallsWithoutAHandle) {
  UseRoot(L"without_cleanup");
  HeldCore core(root);
  AtStartUp(core, [this] {
    const HANDLE event = OpenOrCreateEvent(kExitEvent);
    SetEvent(event);
    AwaitWatcher();
    CloseHandle(event);
    journal.Clear();
    FakeTraceClear();
  });
  service->Run();
  EXPECT_THAT(Lines(),
              ElementsAre(RunLine(2, "After calling ClientAgentCoreStartUp"),
                          RunLine(2, "Before Calling WaitForSingleObject"),
                          RunLine(2, "After Calling WaitForSingleObject"),
                          RunLine(2, "Before calling ClientAgentCoreCleanUp"),
                          RunLine(1, "GetProcAddress() failed for ClientAgentCoreCleanUp.")));
  EXPECT_THAT(
      RunAndCalls(),
      ElementsAre(Ran(2, "After calling ClientAgentCoreStartUp"),
                  Ran(2, "Before Calling WaitForSingleObject"),
                  "WaitForSingleObject watcher thread", Ran(2, "After Calling WaitForSingleObject"),
                  "CloseHandle watcher thread", Ran(2, "Before calling ClientAgentCoreCleanUp"),
                  Ran(1, "GetProcAddress() failed for ClientAgentCoreCleanUp."), "SetEvent null",
                  "CloseHandle null", "FreeLibrary vorlcore.dll"));
}

// With a core that reports failures.

class FailedStartUp : public RunTest, public ::testing::WithParamInterface<ULONGLONG> {};

TEST_P(FailedStartUp, UnloadsTheCoreSignalsTheCloseEventAndNeverCallsCleanUp) {
  HoldWatcher();
  HeldCore core(root);
  core->startUpResult = GetParam();
  service->Run();
  EXPECT_EQ(core->startUpCalls, 1U);
  EXPECT_EQ(core->cleanUpCalls, 0U);
  const std::vector<std::string> entries = RunAndCalls();
  ASSERT_GE(entries.size(), 7U);
  EXPECT_THAT(std::vector(entries.end() - 7, entries.end()),
              ElementsAre(Ran(2, "Before calling ClientAgentCoreStartUp"),
                          Ran(1, "ClientAgentCoreStartUp Failed"), "FreeLibrary vorlcore.dll",
                          "CreateEventA " + kCloseEvent, "DuplicateHandle " + kCloseEvent,
                          "SetEvent " + kCloseEvent, "CloseHandle " + kCloseEvent));
  EXPECT_EQ(Lines().back(), RunLine(1, "ClientAgentCoreStartUp Failed"));

  // The watcher ends by itself, also when it starts only now.
  ReleaseWatcher();
  AwaitWatcher();
  EXPECT_THAT(recorder.LinesOf(kWatcher),
              ElementsAre(Line(2, kWatcher, "agent/cathdsvc.cpp", "Entry"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Close Event Signalled"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Exit")));
  EXPECT_EQ(waitsForWatcher, 0U);
}

INSTANTIATE_TEST_SUITE_P(Run, FailedStartUp, ::testing::Values(0, 0x100, 0xDEADBEEFCAFEB000));

TEST_F(RunTest, AFailedStartUpAndACloseEventThatCannotBeCreatedAreTwoErrors) {
  HoldWatcher();
  HeldCore core(root);
  core->startUpResult = 0;
  handles.FailCreation(kCloseEvent, ERROR_ACCESS_DENIED);
  service->Run();
  const std::vector<TraceLine> lines = Lines();
  EXPECT_THAT(std::vector(lines.end() - 2, lines.end()),
              ElementsAre(RunLine(1, "ClientAgentCoreStartUp Failed"),
                          RunLine(1, "CreateEvent Failed for Close Event : 5")));
}

TEST_F(RunTest, AnyLowByteOfTheCoresResultButZeroIsSuccess) {
  HeldCore core(root);
  core->startUpResult = 0x02;
  core->cleanUpResult = 0xDEADBEEFCAFEB080;
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  EXPECT_EQ(core->cleanUpCalls, 1U);
  EXPECT_EQ(Lines().back(), RunLine(2, "Exit"));
  EXPECT_THAT(Lines(),
              ::testing::Not(::testing::Contains(RunLine(1, "ClientAgentCoreCleanUp Failed"))));
}

class FailedCleanUp : public RunTest, public ::testing::WithParamInterface<ULONGLONG> {};

TEST_P(FailedCleanUp, IsAnErrorAndTheServiceStillReleasesEverything) {
  HeldCore core(root);
  core->cleanUpResult = GetParam();
  AtStartUp(core, [this] { service->OnStop(); });
  service->Run();
  std::vector<TraceLine> lines = recorder.LinesOf("CAcAsSvc::Run");
  ASSERT_GE(lines.size(), 7U);
  EXPECT_THAT(
      std::vector(lines.end() - 7, lines.end()),
      ElementsAre(RunLine(2, "Before calling ClientAgentCoreCleanUp"),
                  RunLine(2, "Notify server is false"), RunLine(1, "ClientAgentCoreCleanUp Failed"),
                  RunLine(2, "After calling ClientAgentCoreCleanUp"),
                  RunLine(2, "Before calling FreeSecurityAttributeForEveryone"),
                  RunLine(2, "After calling FreeSecurityAttributeForEveryone"),
                  RunLine(2, "Exit")));
}

INSTANTIATE_TEST_SUITE_P(Run, FailedCleanUp, ::testing::Values(0, 0x100));

// Stops.

TEST_F(RunTest, AStopByTheUserStopControlLeadsToNotifyValue2) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(140); });
  service->Run();
  EXPECT_EQ(core->notify, 2);
  EXPECT_THAT(recorder.LinesOf("CAcAsSvc::Run"),
              ::testing::Contains(RunLine(2, "Notify server is TRUE")));
}

TEST_F(RunTest, AUserStopDuringTheWaitForTheWatcherLeadsToNotifyValue2) {
  HeldCore core(root);
  atWait = [] { TestService::Handler(140); };
  service->Run();
  EXPECT_EQ(waitsForWatcher, 1U);
  EXPECT_EQ(core->notify, 2);
}

TEST_F(RunTest, AnOrdinaryStopLeadsToNotifyValue1) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(SERVICE_CONTROL_STOP); });
  service->Run();
  EXPECT_EQ(core->notify, 1);
  EXPECT_THAT(recorder.LinesOf("CAcAsSvc::Run"),
              ::testing::Contains(RunLine(2, "Notify server is false")));
}

TEST_F(RunTest, AShutdownLeadsToNotifyValue1) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(SERVICE_CONTROL_SHUTDOWN); });
  service->Run();
  EXPECT_EQ(core->notify, 1);
}

TEST_F(RunTest, TheExitEventSignalledByAnotherProcessLeadsToTheCleanUp) {
  HeldCore core(root);
  AtStartUp(core, [this] {
    // The event must be there for the other process to open it.
    const HANDLE event = OpenOrCreateEvent(kExitEvent);
    const std::string command = "set_event.exe " + VersionedName(kExitEvent);
    StartProcess({command.begin(), command.end()});
    AwaitWatcher();
    CloseHandle(event);
  });
  service->Run();
  EXPECT_EQ(core->cleanUpCalls, 1U);
  EXPECT_EQ(core->notify, 1);
  EXPECT_THAT(recorder.LinesOf(kWatcher),
              ElementsAre(Line(2, kWatcher, "agent/cathdsvc.cpp", "Entry"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Exit Event Signalled"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Exit")));
}

// A control that comes when the exit event has ended the wait, or still runs then.
class LateStop : public RunTest {
 protected:
  // Run up to the clean-up of the security attributes, each of whose two pieces is freed under the
  // eyes of `atFree`.
  void RunToTheEnd(std::function<void()> atFree) {
    HeldCore core(root);
    AtStartUp(core, [] {
      const HANDLE event = OpenOrCreateEvent(kExitEvent);
      SetEvent(event);
      // Stays, or the signal would be gone when the watcher looks for the event.
      s_exitEvent = event;
    });
    const void* const descriptor = service->m_pSecurityDescriptor;
    const void* const acl = service->m_pAcl;
    const CallPatch<struct LocalFreeTag, HLOCAL(HLOCAL)> free(
        "KERNEL32.dll", "LocalFree", [&](HLOCAL memory) {
          if (memory == descriptor || memory == acl) {
            ++frees;
            atFree();
          }
          return free.CallOriginal(memory);
        });
    service->Run();
    EXPECT_EQ(frees, 2U);
    CloseHandle(s_exitEvent);
  }

  unsigned frees = 0;

 private:
  static inline HANDLE s_exitEvent;
};

TEST_F(LateStop, FindsNoDescriptorThatIsBeingFreed) {
  const void* passed = &passed;
  handles.BeforeCreation([&](const std::string& label) {
    if (label == kCloseEvent) {
      passed = service->m_SecurityAttributes.lpSecurityDescriptor;
    }
  });
  RunToTheEnd([&] {
    EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, nullptr);
    TestService::Handler(SERVICE_CONTROL_STOP);
    EXPECT_EQ(passed, nullptr);
  });
  EXPECT_EQ(handles.Creations().back().attributes->nLength, sizeof(SECURITY_ATTRIBUTES));
}

TEST_F(LateStop, ThatIsAboutToUseTheDescriptorIsWaitedFor) {
  const KernelHandle isInside(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const KernelHandle mayLeave(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::atomic<bool> isWatched = false;
  std::atomic<std::thread::id> handlerId;
  std::thread handler;
  handles.BeforeCreation([&](const std::string& label) {
    if (label == kCloseEvent && std::this_thread::get_id() == handlerId) {
      SetEvent(isInside.Get());
      WaitForSingleObject(mayLeave.Get(), INFINITE);
    }
  });
  DWORD patience = 0;
  const CallPatch<struct HandlerWaitTag, decltype(WaitForSingleObjectEx)> wait(
      "KERNEL32.dll", "WaitForSingleObjectEx",
      [&](HANDLE handlerLeft, DWORD milliseconds, BOOL /*isAlertable*/) {
        patience = milliseconds;
        EXPECT_EQ(WaitForSingleObject(handlerLeft, 0), DWORD{WAIT_TIMEOUT});
        EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, nullptr);
        SetEvent(mayLeave.Get());
        return WaitForSingleObject(handlerLeft, INFINITE);
      });
  atWait = [&] {
    if (isWatched.exchange(true)) {
      return;  // the number of the watcher's handle, which is closed by now, used again
    }
    AwaitWatcher();
    handler = std::thread([&] {
      handlerId = std::this_thread::get_id();
      TestService::Handler(SERVICE_CONTROL_STOP);
    });
    WaitForSingleObject(isInside.Get(), INFINITE);
  };
  RunToTheEnd([&] {
    EXPECT_EQ(recorder.LinesOf("CNTService::Handler").size(), 2U);  // with its Exit
    SetEvent(mayLeave.Get());
  });
  EXPECT_EQ(patience, 5000U);
  handler.join();
}

TEST_F(RunTest, LeavesNoFreedDescriptorToAStopThatComesAfterTheCleanUp) {
  HeldCore core(root);
  AtStartUp(core, [] { TestService::Handler(SERVICE_CONTROL_STOP); });
  service->Run();
  EXPECT_EQ(service->m_SecurityAttributes.lpSecurityDescriptor, nullptr);
}

TEST_F(RunTest, EventsWithoutNamesEndTheWatcherAtOnceAndTheServiceAsSoonAsItWaits) {
  FakeInfo()->eventNameResult = 0;
  HeldCore core(root);
  service->Run();
  EXPECT_EQ(core->cleanUpCalls, 1U);
  EXPECT_THAT(recorder.LinesOf(kWatcher),
              ElementsAre(Line(2, kWatcher, "agent/cathdsvc.cpp", "Entry"),
                          Line(1, kWatcher, "agent/cathdsvc.cpp", "GetEventNameByVersion Failed")));
  EXPECT_EQ(Lines().back(), RunLine(2, "Exit"));
}

// A stop may arrive before the watcher holds the close event. These tests would hang if the
// signal were lost, and say so instead: the watcher's wait then takes no time and ends without a
// line.
class EarlyStop : public RunTest {
 protected:
  struct WaitAllTag;

  std::vector<DWORD> m_waitResults;
  CallPatch<WaitAllTag, DWORD(DWORD, const HANDLE*, BOOL, DWORD)> m_waitAll{
      "KERNEL32.dll", "WaitForMultipleObjects",
      [this](DWORD count, const HANDLE* waitHandles, BOOL all, DWORD) {
        m_waitResults.push_back(m_waitAll.CallOriginal(count, waitHandles, all, 0));
        return m_waitResults.back();
      }};
};

TEST_F(EarlyStop, BeforeTheWatchersFirstStepIsNotLost) {
  HoldWatcher();
  HeldCore core(root);
  AtStartUp(core, [this] {
    TestService::Handler(SERVICE_CONTROL_STOP);
    ReleaseWatcher();
  });
  service->Run();
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
  EXPECT_THAT(recorder.LinesOf(kWatcher),
              ElementsAre(Line(2, kWatcher, "agent/cathdsvc.cpp", "Entry"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Close Event Signalled"),
                          Line(2, kWatcher, "agent/cathdsvc.cpp", "Exit")));
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(EarlyStop, JustBeforeTheWatcherCreatesTheCloseEventIsNotLost) {
  HeldCore core(root);
  // The stop runs inside the watcher's own call that creates the event.
  bool stopped = false;
  handles.BeforeCreation([&](const std::string& label) {
    if (label == kCloseEvent && !stopped) {
      stopped = true;
      std::thread([] { TestService::Handler(SERVICE_CONTROL_STOP); }).join();
    }
  });
  service->Run();
  EXPECT_TRUE(stopped);
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
  EXPECT_EQ(core->cleanUpCalls, 1U);
}

TEST_F(EarlyStop, FromAFailedStartIsNotLost) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  service->Run();
  ReleaseWatcher();
  AwaitWatcher();
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
}

TEST_F(EarlyStop, LeavesEveryHandleClosedOnceAtTheEnd) {
  HoldWatcher();
  HeldCore core(root);
  AtStartUp(core, [this] {
    TestService::Handler(SERVICE_CONTROL_STOP);
    ReleaseWatcher();
  });
  service->Run();
  service.reset();
  EXPECT_THAT(handles.Open(), IsEmpty());
  EXPECT_EQ(handles.FailedCloses(), 0U);
}

// A failed start and a stop control signal from two threads at the same time: each has created its
// handle before either goes on.
TEST_F(EarlyStop, OfTwoSignalsAtTheSameTimeBothReachTheOneEvent) {
  HoldWatcher();
  FakeMisc()->startUpOptionsResult = 0;
  std::mutex mutex;
  int arrived = 0;
  const HANDLE both = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  handles.BeforeCreation([&](const std::string&) {
    bool last = false;
    {
      const std::lock_guard guard(mutex);
      last = ++arrived == 2;
    }
    if (last) {
      SetEvent(both);
    }
    WaitForSingleObject(both, INFINITE);
  });
  std::thread control([] { TestService::Handler(SERVICE_CONTROL_STOP); });
  service->Run();
  control.join();
  handles.BeforeCreation({});
  EXPECT_EQ(arrived, 2);
  // One kept handle, whoever came last.
  EXPECT_THAT(handles.Open(), ::testing::UnorderedElementsAre(kCloseEvent, "watcher thread"));
  ReleaseWatcher();
  AwaitWatcher();
  EXPECT_THAT(m_waitResults, ElementsAre(0U));
  service.reset();
  EXPECT_THAT(handles.Open(), ElementsAre("watcher thread"));
  EXPECT_EQ(handles.FailedCloses(), 0U);
  CloseHandle(both);
}

}  // namespace
