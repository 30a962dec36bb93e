// Every call that fails in the helper process and in the diagnosis tool.
#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "samples/helper/consolestop.h"
#include "samples/helper/pipeserver.h"
#include "tests/support/call_hooks.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/support/installation.h"
#include "tests/support/start_process.h"
#include "tools/vorldiag/machine/binaryfile.h"
#include "tools/vorldiag/machine/kernelobjects.h"
#include "tools/vorldiag/machine/rights.h"
#include "tools/vorldiag/machine/service.h"
#include "tools/vorldiag/machine/sharedfile.h"

// The helper's main, under the name that the tests' build gives it.
int HelperMain(int argc, char** argv);

namespace {

// ---- The helper process ----

std::string PipeName() {
  return "\\\\.\\pipe\\vorl_faults_" + std::to_string(GetCurrentProcessId());
}

// A client that sends a whole request, waits for the reply and goes, however far the server lets
// it.
void SendRequest() {
  const UnheardCalls unheard;
  const FileHandle pipe(CreateFileA(PipeName().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  HelperPipeHeader header{kHelperMessageService, sizeof(HelperPipeRequest), 0};
  const HelperPipeRequest request{};
  DWORD done = 0;
  std::uint32_t reply = 0;
  if (pipe && WriteFile(pipe.Get(), &header, sizeof(header), &done, nullptr) &&
      WriteFile(pipe.Get(), &request, sizeof(request), &done, nullptr)) {
    static_cast<void>(ReadFile(pipe.Get(), &reply, sizeof(reply), &done, nullptr));
  }
}

TEST(HelperFaults, ServeClient) {
  SweepFaults("PipeServer::ServeClient", [](FaultRun& run) {
    const KernelHandle stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::thread client;
    bool isOpen = false;
    std::optional<PipeServer::Outcome> outcome;
    run.Call(
        [&] {
          PipeServer server;
          isOpen = server.Open(PipeName().c_str());
          if (isOpen) {
            {
              const UnheardCalls unheard;
              client = std::thread(&SendRequest);
            }
            outcome = server.ServeClient(stop.Get()).outcome;
          }
        },
        [&] {
          const UnheardCalls unheard;
          if (client.joinable()) {
            client.join();
          }
        });
    EXPECT_EQ(isOpen, !run.IsFaultIn({"ConvertStringSecurityDescriptorToSecurityDescriptorW",
                                      "CreateEventW", "CreateNamedPipeA"}));
    EXPECT_TRUE(outcome == PipeServer::Outcome::kNotified || run.IsFaulted());
    EXPECT_NE(outcome, PipeServer::Outcome::kStopped);
  });
}

TEST(HelperFaults, ConsoleStop) {
  SweepFaults("ConsoleStop", [](FaultRun& run) {
    bool isHeard = false;
    run.Call([&] {
      const ConsoleStop stop;
      isHeard = stop.Event() != nullptr;
    });
    EXPECT_EQ(isHeard, !(run.IsFaultIn({"CreateEventW"}) ||
                         (run.IsFaultIn({"SetConsoleCtrlHandler"}) && run.FaultNumber() == 1)));
  });
}

// The whole program, from its arguments to its end after one notification. A client that is refused
// comes again.
TEST(HelperFaults, Main) {
  const TempFolder folder;
  const std::string file = folder.File("output");
  const std::string errorFile = folder.File("errors");
  const HANDLE former = GetStdHandle(STD_OUTPUT_HANDLE);
  const HANDLE formerErrors = GetStdHandle(STD_ERROR_HANDLE);
  SweepFaults("vorlhelper", [&](FaultRun& run) {
    const FileHandle output(CreateFileA(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                        CREATE_ALWAYS, 0, nullptr));
    SetStdHandle(STD_OUTPUT_HANDLE, output.Get());
    const FileHandle errors(CreateFileA(errorFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                        CREATE_ALWAYS, 0, nullptr));
    SetStdHandle(STD_ERROR_HANDLE, errors.Get());
    std::string arguments[] = {"vorlhelper", "--pipe", PipeName(), "--count", "1"};
    char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                    arguments[3].data(), arguments[4].data(), nullptr};
    std::atomic<bool> isOver = false;
    const KernelHandle begun(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::thread client([&] {
      const UnheardCalls unheard;
      SetEvent(begun.Get());
      while (!isOver) {
        SendRequest();
        std::this_thread::yield();
      }
    });
    WaitForSingleObject(begun.Get(), INFINITE);
    int status = -1;
    run.Call([&] { status = HelperMain(5, argv); });
    isOver = true;
    client.join();
    SetStdHandle(STD_OUTPUT_HANDLE, former);
    SetStdHandle(STD_ERROR_HANDLE, formerErrors);

    if (!run.IsFaultIn({"GetStdHandle", "WriteFile", "WideCharToMultiByte"})) {
      const ByteVector told = ReadBytes(errorFile);
      const std::string complaints(told.begin(), told.end());
      EXPECT_EQ(complaints.find("the pipe ") != std::string::npos, status != 0) << complaints;
    }
    const ByteVector bytes = ReadBytes(file);
    const std::string text(bytes.begin(), bytes.end());
    if (run.IsFaultIn({"ConvertStringSecurityDescriptorToSecurityDescriptorW", "CreateEventW",
                       "CreateNamedPipeA"}) ||
        (run.IsFaultIn({"SetConsoleCtrlHandler"}) && run.FaultNumber() == 1)) {
      EXPECT_EQ(status, 1);
      EXPECT_EQ(text, "");
    } else if (run.IsFaultIn({"ConnectNamedPipe"})) {
      EXPECT_EQ(text.find("waiting for notifications\r\n"), 0U) << text;
    } else if (!run.IsFaultIn({"GetStdHandle", "WriteFile", "WideCharToMultiByte"})) {
      EXPECT_EQ(status, 0);
      EXPECT_EQ(text,
                "waiting for notifications\r\n"
                "\"\": unknown action (action 0, flag 0)\r\n");
    } else {
      EXPECT_EQ(status, 0);
    }
  });
}

// ---- vorldiag ----

// `look` gives the error that was met; there is one when, and only when, a call has failed that
// cannot be done without.
void SweepLook(const std::string& name, const std::function<DWORD()>& look) {
  SweepFaults(name,
              [&](FaultRun& run) {
                DWORD error = ERROR_SUCCESS;
                run.Call([&] { error = look(); });
                EXPECT_TRUE(error == ERROR_SUCCESS || run.IsFaulted()) << error;
              },
              {.left = {}, .memory = false, .mostCalls = 8});
}

TEST(DiagnosisFaults, Files) {
  const TempFolder folder;
  const std::wstring file = (folder.Path() / "text").wstring();
  WriteText(file, std::string(10'000, 'x'));
  SweepFaults("ReadSharedFile", [&](FaultRun& run) {
    std::string bytes;
    DWORD error = ERROR_SUCCESS;
    run.Call([&] {
      std::string read;
      error = ReadSharedFile(file, 20'000, read);
      bytes = read.substr(0, 10);
    });
    EXPECT_TRUE(error == ERROR_SUCCESS || run.IsFaulted());
    EXPECT_TRUE(error != ERROR_SUCCESS || bytes == std::string(10, 'x'));
  });
  SweepLook("ReadBinaryFile",
            [] { return ReadBinaryFile((StagedFolder() / "vorlinfo.dll").wstring()).error; });
  SweepLook("FileAccess", [&] { return FileAccess(file, FileKind()).error; });
}

TEST(DiagnosisFaults, Machine) {
  SweepLook("MachineKeyAccess", [] { return MachineKeyAccess(L"SOFTWARE", KeyKind()).error; });
  SweepFaults("ServiceReader::Open", [](FaultRun& run) {
    DWORD error = ERROR_SUCCESS;
    run.Call([&] {
      ServiceReader service;
      error = service.Open("vorl faults no service");
    });
    EXPECT_TRUE(error == ERROR_SERVICE_DOES_NOT_EXIST || run.IsFaulted()) << error;
  });
}

// The answer to the question for all handles of the system: one event, here and in another process.
// Wine's own answer can be had only while no process is being started; at any other time Wine's
// server ends at the question, and every program hangs.
struct SystemHandles {
  struct {
    void* object;
    ULONG_PTR processId;
    ULONG_PTR handle;
    ULONG access;
    USHORT creatorBackTraceIndex;
    USHORT type;
    ULONG attributes;
    ULONG reserved;
  } handles[2];
};
SystemHandles g_systemHandles;

LONG NTAPI GiveSystemHandles(ULONG /*information*/, void* buffer, ULONG size, ULONG* given) {
  const ULONG_PTR head[] = {std::size(g_systemHandles.handles), 0};
  EXPECT_GE(size, sizeof(head) + sizeof(g_systemHandles));
  std::memcpy(buffer, head, sizeof(head));
  std::memcpy(static_cast<BYTE*>(buffer) + sizeof(head), &g_systemHandles, sizeof(g_systemHandles));
  *given = sizeof(head) + sizeof(g_systemHandles);
  return 0;
}

TEST(DiagnosisFaults, LookAtEvent) {
  const std::string name = "vorl_faults_event_" + std::to_string(GetCurrentProcessId());
  const KernelHandle event(CreateEventA(nullptr, TRUE, TRUE, name.c_str()));
  const StartedProcess other = StartProcess(L"tools_faults_test.exe", {.flags = CREATE_SUSPENDED});
  const std::unique_ptr<void, BOOL (*)(HANDLE)> end(
      other.process.Get(), [](HANDLE process) { return TerminateProcess(process, 0); });
  HANDLE held = nullptr;
  ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), event.Get(), other.process.Get(), &held, 0,
                              FALSE, DUPLICATE_SAME_ACCESS));

  g_systemHandles = {};
  g_systemHandles.handles[0].processId = GetCurrentProcessId();
  g_systemHandles.handles[1].processId = other.id;
  g_systemHandles.handles[1].handle = reinterpret_cast<ULONG_PTR>(held);
  const CallPatch<struct OpenTag, HANDLE WINAPI(DWORD, BOOL, const char*)> open(
      "KERNEL32.dll", "OpenEventA", [&](DWORD access, BOOL inherit, const char* opening) {
        const HANDLE opened = open.CallOriginal(access, inherit, opening);
        g_systemHandles.handles[0].handle = reinterpret_cast<ULONG_PTR>(opened);
        return opened;
      });
  const CallPatch<struct GetTag, FARPROC WINAPI(HMODULE, const char*)> get(
      "KERNEL32.dll", "GetProcAddress", [&](HMODULE module, const char* function) {
        return std::string_view(function) == "NtQuerySystemInformation"
                   ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&GiveSystemHandles))
                   : get.CallOriginal(module, function);
      });
  SweepFaults("LookAtEvent",
              [&](FaultRun& run) {
                DWORD error = ERROR_SUCCESS;
                std::size_t holders = 0;
                run.Call([&] {
                  const EventFacts facts = LookAtEvent(name);
                  error = facts.error;
                  holders = facts.holders.size();
                });
                EXPECT_TRUE(error == ERROR_SUCCESS || run.IsFaulted()) << error;
                EXPECT_TRUE(holders == 1 || run.IsFaulted()) << holders;
              },
              {.left = {}, .memory = false, .mostCalls = 8});
}

}  // namespace
