// A whole machine for the fingerprint: a WMI server, an IP Helper interface, COM and a reported
// Windows version in the test process.
#pragma once

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/fake_wmi.h"
#include "tests/support/fingerprint_test.h"
#include "tests/support/import_patch.h"
#include "tests/support/reported_version.h"
#include "tests/support/trace_recorder.h"

// iphlpapi.h needs the types of windows.h.
#include <iphlpapi.h>

// What the product does to set COM up; the calls go into the server's journal.
class ComSetUp {
 public:
  explicit ComSetUp(FakeWmi& server);

  HRESULT initializeResult = S_OK;
  HRESULT securityResult = S_OK;
  // Whether CoInitializeEx is COM's own.
  bool isReal = false;

 private:
  CallPatch<struct InitializeTag, HRESULT WINAPI(void*, DWORD)> m_initialize;
  CallPatch<struct SecurityTag,
            HRESULT WINAPI(PSECURITY_DESCRIPTOR, LONG, SOLE_AUTHENTICATION_SERVICE*, void*, DWORD,
                           DWORD, void*, DWORD, void*)>
      m_security;
  CallPatch<struct UninitializeTag, void WINAPI()> m_uninitialize;
};

// A machine on this thread: nothing in it at first, Windows 10, system drive C:. At the end
// everything that was made through its WMI server must be released.
class Machine {
 public:
  explicit Machine(DWORD apartment = COINIT_MULTITHREADED);
  ~Machine();
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  void SetBiosUuid(FakeValue uuid);

  // The serial number of the one disk, which carries the system drive.
  void SetDiskSerial(const std::wstring& serial);

  // Adapters without GUIDs, which therefore keep these addresses.
  void SetAddresses(const std::vector<std::wstring>& addresses);

  // One of each, and two addresses.
  void SetEverything();

  FakeWmi server;
  ComSetUp com;
  std::optional<ReportedVersion> version;
  // What the IP Helper interface answers.
  std::vector<std::vector<BYTE>> ipAdapters;

 private:
  void Set(const std::string& name, const std::wstring& path, const std::wstring& text,
           std::vector<FakeObject> objects);
  ULONG ReadAdapters(IP_ADAPTER_INFO* list, ULONG* size);

  CallPatch<struct AdaptersTag, ULONG WINAPI(IP_ADAPTER_INFO*, ULONG*)> m_adapters;
  std::string m_systemDrive;
};

// While one lives, the trace lines stand among the calls in the server's journal.
class LinesInJournal {
 public:
  explicit LinesInJournal(FakeWmi& server);
  ~LinesInJournal();
  LinesInJournal(const LinesInJournal&) = delete;
  LinesInJournal& operator=(const LinesInJournal&) = delete;
};

class MachineTest : public FingerprintTest {
 protected:
  // The identifier of the machine as it is now; empty when there is none.
  static std::string Identifier() {
    CZTUUID fresh;
    char text[33] = "";
    return fresh.GetZTUUID(text, 33) ? text : "";
  }

  Machine machine;
  TraceRecorder recorder;
  char out[33] = "";
};
