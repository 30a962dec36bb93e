// Every call that fails in the helper process and in the diagnosis tool.
#include <gmock/gmock.h>

#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "samples/helper/consolestop.h"
#include "samples/helper/pipeserver.h"
#include "tests/support/call_hooks.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tools/vorldiag/machine/binaryfile.h"
#include "tools/vorldiag/machine/kernelobjects.h"
#include "tools/vorldiag/machine/rights.h"
#include "tools/vorldiag/machine/service.h"
#include "tools/vorldiag/machine/sharedfile.h"

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
  const std::string name = "vorl_faults_event_" + std::to_string(GetCurrentProcessId());
  const KernelHandle event(CreateEventA(nullptr, TRUE, TRUE, name.c_str()));
  SweepLook("LookAtEvent", [&] { return LookAtEvent(name).error; });
  SweepFaults("ServiceReader::Open", [](FaultRun& run) {
    DWORD error = ERROR_SUCCESS;
    run.Call([&] {
      ServiceReader service;
      error = service.Open("vorl faults no service");
    });
    EXPECT_TRUE(error == ERROR_SERVICE_DOES_NOT_EXIST || run.IsFaulted()) << error;
  });
}

}  // namespace
