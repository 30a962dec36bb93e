// What the tests of the service base class share.
#pragma once

#include "service/ntservc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/unit/operations.h"

// Its lower 32 bits are 591751049.
inline const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{0x1'2345'6789});

// Opens the parts of the base class that are for derived classes only.
class ExposedService : public CNTService {
 public:
  using CNTService::CNTService;

  using CNTService::DebugMsg;
  using CNTService::Handler;
  using CNTService::Initialize;
  using CNTService::OnContinue;
  using CNTService::OnInit;
  using CNTService::OnInterrogate;
  using CNTService::OnPause;
  using CNTService::OnShutdown;
  using CNTService::OnStop;
  using CNTService::OnUserControl;
  using CNTService::Run;
  using CNTService::ServiceMain;
  using CNTService::SetStatus;

  using CNTService::m_bNotifyServer;
  using CNTService::m_bRunning;
  using CNTService::m_hEventLogSource;
  using CNTService::m_hServiceStatus;
  using CNTService::m_nSpare1;
  using CNTService::m_nSpare2;
  using CNTService::m_ServiceStatus;
  using CNTService::m_szServiceName;

  template <typename Member>
  std::size_t OffsetOf(const Member& member) const {
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&member) -
                                    reinterpret_cast<const char*>(this));
  }
};

// A service whose hooks go to the journal and then do what the test says.
class JournalService : public ExposedService {
 public:
  JournalService(Journal& journal, const char* serviceName)
      : ExposedService(serviceName), m_journal(journal) {
    journal.Clear();
  }

  std::function<void()> run = [] {};
  std::function<BOOL()> init = [] { return TRUE; };
  std::function<void()> stop = [] {};
  std::function<void()> interrogate = [] {};

 protected:
  void Run() override {
    m_journal.Call("Run");
    run();
  }
  BOOL OnInit() override {
    m_journal.Call("OnInit");
    return init();
  }
  void OnStop() override {
    m_journal.Call("OnStop");
    stop();
  }
  void OnInterrogate() override {
    m_journal.Call("OnInterrogate");
    interrogate();
  }
  void OnPause() override { m_journal.Call("OnPause"); }
  void OnContinue() override { m_journal.Call("OnContinue"); }
  void OnShutdown() override { m_journal.Call("OnShutdown"); }
  BOOL OnUserControl(DWORD code) override {
    m_journal.Call("OnUserControl(" + std::to_string(code) + ")");
    return FALSE;
  }

 private:
  Journal& m_journal;
};

// What the journal shows of a report: the state, then all other members of the record.
inline std::string Report(DWORD state, DWORD exitCode = 0, DWORD checkPoint = 0,
                          DWORD waitHint = 0) {
  return "SetServiceStatus(state " + std::to_string(state) + ", type 0x10, accepts 0x5, exit " +
         std::to_string(exitCode) + ", specific 0, check point " + std::to_string(checkPoint) +
         ", hint " + std::to_string(waitHint) + ")";
}

// Everything that reporting a state on this thread writes and calls.
inline std::vector<std::string> SetStatusSteps(DWORD state, const std::string& report,
                                               const std::string& handle = "591751049") {
  return {kSetStatus.Info("Entry"),
          kDebugMsg.Info("Entry"),
          "OutputDebugStringA([Sample](" + std::to_string(GetCurrentThreadId()) +
              "): CNTService::SetStatus(" + handle + ", " + std::to_string(state) + ")\n)",
          kDebugMsg.Info("Exit"),
          report,
          kSetStatus.Info("Exit")};
}

inline std::vector<std::string> Joined(const std::vector<std::vector<std::string>>& parts) {
  std::vector<std::string> all;
  for (const std::vector<std::string>& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// The service control manager's side: takes registrations, reports and debugger texts.
class NTService : public ::testing::Test {
 protected:
  // The states that were reported, in the order in which the reports arrived.
  std::vector<DWORD> States() {
    const std::lock_guard guard(m_statesMutex);
    return m_states;
  }

  Journal m_journal;
  // Called with a copy of the record before a report arrives; may block.
  std::function<void(const SERVICE_STATUS&)> m_beforeReport = [](const SERVICE_STATUS&) {};
  SERVICE_STATUS_HANDLE m_registration = kStatusHandle;

 private:
  std::mutex m_statesMutex;
  std::vector<DWORD> m_states;

  CallPatch<struct RegisterTag, SERVICE_STATUS_HANDLE(LPCSTR, LPHANDLER_FUNCTION)> m_register{
      "ADVAPI32.dll", "RegisterServiceCtrlHandlerA",
      [this](LPCSTR name, LPHANDLER_FUNCTION handler) {
        m_journal.Call("RegisterServiceCtrlHandlerA(" + Quoted(name) + ", " +
                       (handler == &ExposedService::Handler ? "Handler" : "another function") +
                       ")");
        return m_registration;
      }};
  CallPatch<struct ReportTag, BOOL(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS)> m_report{
      "ADVAPI32.dll", "SetServiceStatus",
      [this](SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS record) {
        const SERVICE_STATUS status = *record;
        m_beforeReport(status);
        {
          const std::lock_guard guard(m_statesMutex);
          m_states.push_back(status.dwCurrentState);
        }
        m_journal.Call("SetServiceStatus(" +
                       std::string(handle == kStatusHandle ? "" : "without the handle, ") +
                       "state " + std::to_string(status.dwCurrentState) + ", type " +
                       Hex(status.dwServiceType) + ", accepts " + Hex(status.dwControlsAccepted) +
                       ", exit " + std::to_string(status.dwWin32ExitCode) + ", specific " +
                       std::to_string(status.dwServiceSpecificExitCode) + ", check point " +
                       std::to_string(status.dwCheckPoint) + ", hint " +
                       std::to_string(status.dwWaitHint) + ")");
        SetLastError(kRubbishError);
        return FALSE;  // which nobody minds
      }};
  CallPatch<struct DebugTag, void(LPCSTR)> m_debug{
      "KERNEL32.dll", "OutputDebugStringA", [this](LPCSTR text) {
        m_journal.Call(std::string("OutputDebugStringA(") + text + ")");
        SetLastError(kRubbishError);
      }};
};

struct ControlCase {
  DWORD control;
  const char* hook;  // null: none

  friend std::ostream& operator<<(std::ostream& out, const ControlCase& test) {
    return out << test.control;
  }
};
