// What the tests of the service's body share.
#pragma once

#include <gmock/gmock.h>
#include <process.h>

#include <atomic>
#include <cstdint>
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
#include "tests/unit/agent_service.h"
#include "tests/unit/operations.h"

// The name of a module's file in lower case.
inline std::string FileName(const std::wstring& path) {
  std::string name = Utf8(path.substr(path.rfind(L'\\') + 1));
  CharLowerA(name.data());
  return name;
}

// A start-up options block in which every field has a value of its own.
inline CLIENT_AGENT_STARTUP_OPTIONS SampleOptions() {
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
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines = journal.Traces();
    std::erase_if(lines, [](const std::string& line) { return kWatch.Wrote(line); });
    return lines;
  }

  // The calls and the lines of Run alone.
  std::vector<std::string> RunAndCalls() const {
    std::vector<std::string> entries = journal.Entries();
    std::erase_if(entries, [](const std::string& entry) {
      return entry.starts_with("level ") && !kRun.Wrote(entry);
    });
    return entries;
  }

  std::string PathText(const char* file) const {
    return "wszFilePath: " + Utf8(root) + "\\" + file;
  }

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
  bool waitFails = false;
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
  std::atomic<HANDLE> m_thread = nullptr;
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
        if (handle != nullptr && handle == m_thread) {
          EXPECT_EQ(milliseconds, INFINITE);
          journal.Call("WaitForSingleObject watcher thread");
          ++waitsForWatcher;
          if (atWait) {
            atWait();
          }
          if (waitFails) {
            m_thread = nullptr;
            SetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
          }
          // Does not let a lost signal hang the test.
          if (m_wait.CallOriginal(handle, 10000) == WAIT_TIMEOUT) {
            ADD_FAILURE() << "the watcher has missed its signal";
            EndWatcher();
          }
          // It is closed next. A handle that gets its number may be an event that a wait resets:
          // waited for twice, it would never come.
          m_thread = nullptr;
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
