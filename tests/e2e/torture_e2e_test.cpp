// What a service meets in years, in minutes: cycles without end, controls from all sides, ends in
// the middle, and modules that misbehave.
#include "support/windows_api.h"

// Reads the types of windows.h.
#include <tlhelp32.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/handle.h"
#include "tests/e2e/service_fixture.h"
#include "tests/e2e/wait_until.h"
#include "tests/support/files.h"
#include "tests/support/long_run.h"

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::Eq;

namespace {

constexpr DWORD kUserStop = 140;
constexpr DWORD kSaveStatus = 128;
constexpr DWORD kUnusedUserControl = 141;
constexpr DWORD kReservedControl = 127;
constexpr char kExitEvent[] = "AcClientAgentSrvcExitFromOuterModuleEvent";

class Torture : public ServiceTest {
 protected:
  Torture() {
    // Everything stays in one file, which is looked at in the end.
    installation.WriteConfiguration("[TRACE]\r\nFileSizeKB=1048576\r\n");
    LetRest(installation.ConfigurationFile());
    installation.Replace("quick_core.dll", "vorlcore.dll");
    fs::remove(installation.Folder() / "vorlupd.dll");
  }

  void Install() { ASSERT_EQ(installation.Run("-install").output, InstalledText()); }

  // The process of the running service.
  KernelHandle Process() const {
    return KernelHandle(OpenProcess(PROCESS_TERMINATE | PROCESS_QUERY_INFORMATION | SYNCHRONIZE,
                                    FALSE, service.Status().dwProcessId));
  }

  void StartAndAwait() {
    // Wine sometimes answers with a time-out for a service that ran and stopped at once.
    ASSERT_THAT(service.Start(),
                AnyOf(Eq(DWORD{ERROR_SUCCESS}), Eq(DWORD{ERROR_SERVICE_REQUEST_TIMEOUT})));
    ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING));
  }

  // The state STOPPED, and no process behind it.
  void ExpectEnd(const KernelHandle& process) {
    EXPECT_TRUE(service.WaitForState(SERVICE_STOPPED));
    ExpectNoProcess(process);
  }

  static void ExpectNoProcess(const KernelHandle& process) {
    // One that was gone already could not be opened.
    EXPECT_TRUE(!process || WaitForSingleObject(process.Get(), kPatience) == WAIT_OBJECT_0);
  }

  // The installation works: it starts, and stops when asked to.
  void ExpectGoodHealth() {
    installation.Replace("quick_core.dll", "vorlcore.dll");
    fs::remove(installation.Folder() / "vorlupd.dll");
    // As the recovery action does, which Wine does not run.
    installation.Run("-reset");
    ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING));
    const KernelHandle process = Process();
    ASSERT_EQ(installation.Run("-stop").exitCode, 0U);
    ExpectEnd(process);
  }

  std::ptrdiff_t Count(const std::string& function, const std::string& text) const {
    const std::vector<std::string> texts = installation.TextsOf(function);
    return std::count(texts.begin(), texts.end(), text);
  }

  static constexpr DWORD kPatience = 60'000;  // milliseconds; only a defect reaches it
};

TEST_F(Torture, InstallsStartsStopsAndUninstallsOverAndOver) {
  const int cycles = IsLongRun() ? 1000 : 20;
  for (int i = 0; i < cycles; ++i) {
    SCOPED_TRACE(i);
    Install();
    StartAndAwait();
    const KernelHandle process = Process();
    ASSERT_EQ(service.Control(i % 2 == 0 ? DWORD{SERVICE_CONTROL_STOP} : kUserStop), 0U);
    ExpectEnd(process);
    ASSERT_EQ(installation.Run("-uninstall").exitCode, 0U);
    ASSERT_FALSE(service.IsInstalled());
    ASSERT_FALSE(HasFailure());
  }
  // The trace is complete.
  EXPECT_EQ(Count("CNTService::ServiceMain", "Exit"), cycles);
  EXPECT_EQ(Count("CAcAsSvc::Run", "Exit"), cycles);
  EXPECT_EQ(Count("WaitForServiceClosure", "Close Event Signalled"), cycles);
  EXPECT_EQ(Count("CAcAsSvc::Run", "Notify server is TRUE"), cycles / 2);
  EXPECT_EQ(Count("CNTService::Install", "Exit"), cycles);
  EXPECT_EQ(Count("CNTService::Uninstall", "Exit"), cycles);
}

TEST_F(Torture, StopsWhileItStarts) {
  const int rounds = IsLongRun() ? 300 : 20;
  Install();
  for (int i = 0; i < rounds; ++i) {
    SCOPED_TRACE(i);
    ASSERT_THAT(service.Start(),
                AnyOf(Eq(DWORD{ERROR_SUCCESS}), Eq(DWORD{ERROR_SERVICE_REQUEST_TIMEOUT})));
    const KernelHandle process = Process();
    // It takes the control as soon as it says so, whatever else it is still doing.
    ASSERT_TRUE(WaitUntil([&] { return service.Control(SERVICE_CONTROL_STOP) == 0U; }));
    ExpectEnd(process);
    ASSERT_FALSE(HasFailure());
  }
}

DWORD ThreadsOf(DWORD processId) {
  const FileHandle list(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  DWORD threads = 0;
  for (BOOL more = Thread32First(list.Get(), &entry); more;
       more = Thread32Next(list.Get(), &entry)) {
    threads += entry.th32OwnerProcessID == processId ? 1 : 0;
  }
  return threads;
}

// Under Wine always 0.
DWORD HandlesOf(const KernelHandle& process) {
  DWORD handles = 0;
  EXPECT_TRUE(GetProcessHandleCount(process.Get(), &handles));
  return handles;
}

TEST_F(Torture, TakesControlsFromEightSides) {
  constexpr std::array kControls = {kSaveStatus, kUnusedUserControl, kReservedControl,
                                    DWORD{SERVICE_CONTROL_INTERROGATE}};
  const int rounds = IsLongRun() ? 2000 : 50;
  InstallAndStart();
  // Each side has a handle of its own: Wine's service manager loses calls that open one at the same
  // time.
  std::array<ServiceHandle, 8> sides;
  for (ServiceHandle& side : sides) {
    side = service.Open(SERVICE_INTERROGATE | SERVICE_STOP | SERVICE_USER_DEFINED_CONTROL);
    ASSERT_TRUE(side);
  }
  const auto send = [](const ServiceHandle& side, DWORD control) -> DWORD {
    SERVICE_STATUS status{};
    return ControlService(side.Get(), control, &status) ? ERROR_SUCCESS : GetLastError();
  };
  // `act` by all sides at once.
  const auto together = [&](const auto& act) {
    std::vector<std::thread> threads;
    for (std::size_t side = 0; side < sides.size(); ++side) {
      threads.emplace_back([&, side] { act(side); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  };
  const auto besiege = [&](int times) {
    together([&](std::size_t side) {
      for (int i = 0; i < times; ++i) {
        const DWORD control = kControls[(side + static_cast<std::size_t>(i)) % kControls.size()];
        const DWORD error = send(sides[side], control);
        // Numbers that are reserved reach no service.
        EXPECT_EQ(error == ERROR_SUCCESS, control != kReservedControl) << control << ' ' << error;
      }
    });
  };
  const KernelHandle process = Process();
  const DWORD processId = service.Status().dwProcessId;
  // What the first controls make stays.
  besiege(5);
  const DWORD threads = ThreadsOf(processId);
  const DWORD handles = HandlesOf(process);
  besiege(rounds);
  EXPECT_EQ(ThreadsOf(processId), threads);
  EXPECT_EQ(HandlesOf(process), handles);
  EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});

  // All at once end it, and it ends once. By the user's stop: Wine's service manager ends the
  // process of a service when an ordinary stop has to wait for other controls.
  together([&](std::size_t side) {
    do {
      send(sides[side], kSaveStatus);
    } while (send(sides[side], kUserStop) != ERROR_SERVICE_NOT_ACTIVE);
  });
  ExpectEnd(process);
  EXPECT_EQ(Count("CNTService::ServiceMain", "Exit"), 1);
  EXPECT_EQ(Count("CAcAsSvc::Run", "Exit"), 1);
}

TEST_F(Torture, EndsByTheExitEventBeforeAndDuringTheStart) {
  const int rounds = IsLongRun() ? 200 : 10;
  Install();
  const std::string eventName = installation.EventName(kExitEvent);
  for (int i = 0; i < rounds; ++i) {
    SCOPED_TRACE(i);
    {
      // Somebody has made the event before the service, and signalled it.
      const KernelHandle before(CreateEventA(nullptr, FALSE, TRUE, eventName.c_str()));
      ASSERT_TRUE(before);
      service.Start();
      ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
    }
    service.Start();
    KernelHandle event;
    ASSERT_TRUE(WaitUntil([&] {
      event.Reset(OpenEventA(EVENT_MODIFY_STATE, FALSE, eventName.c_str()));
      return static_cast<bool>(event);
    }));
    SetEvent(event.Get());
    ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
    event.Reset();
    // The next round finds the names free.
    ASSERT_TRUE(WaitUntil(
        [&] { return !KernelHandle(OpenEventA(SYNCHRONIZE, FALSE, eventName.c_str())); }));
  }
}

TEST_F(Torture, IsKilledAnywhereAndStartsAgain) {
  const int rounds = IsLongRun() ? 100 : 10;
  Install();
  const fs::path trace = installation.Folder() / "logs" / "vorltrace.log";
  const std::uintmax_t installed = fs::file_size(trace);
  StartAndAwait();
  ASSERT_TRUE(installation.WaitForText("CAcAsSvc::Run", "Before Calling WaitForSingleObject"));
  // What a start writes, bytes.
  const std::uintmax_t whole = fs::file_size(trace) - installed;
  ASSERT_EQ(installation.Run("-stop").exitCode, 0U);
  for (int i = 0; i < rounds; ++i) {
    SCOPED_TRACE(i);
    // Each round lets it write a little more.
    const std::uintmax_t begin = fs::file_size(trace);
    const std::uintmax_t share =
        whole * static_cast<std::uintmax_t>(i) / static_cast<std::uintmax_t>(rounds);
    DWORD startError = ERROR_SUCCESS;
    std::thread starter([&] { startError = service.Start(); });
    const bool hasWritten = WaitUntil([&] { return fs::file_size(trace) > begin + share; });
    const KernelHandle process = Process();
    if (process) {
      TerminateProcess(process.Get(), 1);
      ExpectNoProcess(process);
    }
    starter.join();
    ASSERT_TRUE(hasWritten) << startError;
    ExpectGoodHealth();
    ASSERT_FALSE(HasFailure());
  }
}

struct Misbehaviour {
  const char* module;
  const char* what;
  bool endsItself;  // the service ends without a stop
  bool isFatal;     // its process ends with the module
};

class TortureByModules : public Torture, public ::testing::WithParamInterface<Misbehaviour> {};

INSTANTIATE_TEST_SUITE_P(
    All, TortureByModules,
    ::testing::Values(Misbehaviour{"vorlcore", "start:fails", true, false},
                      Misbehaviour{"vorlcore", "start:throws", true, true},
                      Misbehaviour{"vorlcore", "start:crashes", true, true},
                      Misbehaviour{"vorlcore", "start:takes-its-time", false, false},
                      Misbehaviour{"vorlcore", "start:ends-the-service", true, false},
                      Misbehaviour{"vorlcore", "cleanup:fails", false, false},
                      Misbehaviour{"vorlcore", "cleanup:throws", false, true},
                      Misbehaviour{"vorlcore", "cleanup:crashes", false, true},
                      Misbehaviour{"vorlcore", "cleanup:takes-its-time", false, false},
                      Misbehaviour{"vorlcore", "cleanup:ends-the-service", false, false},
                      Misbehaviour{"vorlupd", "update:fails", false, false},
                      Misbehaviour{"vorlupd", "update:throws", true, true},
                      Misbehaviour{"vorlupd", "update:takes-its-time", false, false},
                      Misbehaviour{"vorlupd", "no module", false, false}),
    [](const ::testing::TestParamInfo<Misbehaviour>& misbehaviour) {
      std::string name = std::string(misbehaviour.param.module) + "_" + misbehaviour.param.what;
      std::replace_if(
          name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }, '_');
      return name;
    });

TEST_P(TortureByModules, LeaveNothingThatTheNextStartWouldMeet) {
  const Misbehaviour& misbehaviour = GetParam();
  const std::string file = std::string(misbehaviour.module) + ".dll";
  if (std::string(misbehaviour.what) == "no module") {
    std::ofstream(installation.Folder() / file) << "no module";
  } else {
    installation.Replace("awkward_module.dll", file);
    std::ofstream(installation.Folder() / (file + ".txt")) << misbehaviour.what;
  }
  Install();
  service.Start();
  const KernelHandle process = Process();
  if (!misbehaviour.endsItself) {
    ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING));
    ASSERT_TRUE(installation.WaitForText("CAcAsSvc::Run", "Before Calling WaitForSingleObject"));
    const DWORD error = service.Control(SERVICE_CONTROL_STOP);
    // The process may be gone before it has answered.
    ASSERT_TRUE(error == ERROR_SUCCESS || misbehaviour.isFatal) << error;
  }
  if (misbehaviour.isFatal) {
    // Wine may go on calling a service running whose process is gone.
    ExpectNoProcess(process);
  } else {
    EXPECT_TRUE(service.WaitForState(SERVICE_STOPPED));
    EXPECT_TRUE(installation.WaitForText("CNTService::ServiceMain", "Exit"));
  }
  ExpectGoodHealth();
}

}  // namespace
