// What the tests of the program's main and of its identifier share.
#pragma once

#include "app/vorlsrvc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/console_capture.h"
#include "tests/support/fake_helper_pipe.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/fake_wmi.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/support/library_calls.h"
#include "tests/support/text.h"
#include "tests/unit/configuration_folder.h"
#include "tests/unit/operations.h"

// The program's main, under the name that the tests' build gives it.
int VorlsrvcMain(int argc, char** argv);

// Of a machine that has nothing but a BIOS UUID; the digest is md5sum's.
inline constexpr wchar_t kBiosUuid[] = L"4C4C4544-0035-3010-8048-B4C04F4B3732";
inline constexpr char kIdentifierOfBiosUuid[] = "C35B15042D89CBEA48C4CD7FBC0C11AA";

class ClientUUID : public ::testing::Test {
 protected:
  const ConfigurationFolder configuration;
  Journal journal;
};

using IsClientUUIDPresentTest = ClientUUID;
using SetClientUUIDTest = ClientUUID;

inline std::string FetchedLine(const std::string& text) {
  return kIsPresent.InfoDirect("ClientUUID fetched : %s", "ClientUUID fetched : " + text);
}
inline std::string MissingLine() {
  return kIsPresent.Error("Client UUID is not present in INI .Creating new ...");
}

// The machine's real WMI takes no part in the tests of the new identifier.
class CreateAndSetClientUUIDTest : public ClientUUID {
 protected:
  // The machine has a BIOS UUID and nothing else.
  void HaveBiosUuid() {
    m_wmi.Add({"products",
               L"ROOT\\CIMV2",
               L"SELECT * FROM Win32_ComputerSystemProduct",
               {{"product", {{L"UUID", Text(kBiosUuid)}}}},
               {}});
  }

  unsigned comSetUps = 0;

 private:
  FakeWmi m_wmi;
  // COM itself sets security once in a process only.
  CallPatch<struct ComSecurityTag, HRESULT(PSECURITY_DESCRIPTOR, LONG, SOLE_AUTHENTICATION_SERVICE*,
                                           void*, DWORD, DWORD, void*, DWORD, void*)>
      m_security{"ole32.dll", "CoInitializeSecurity",
                 [](PSECURITY_DESCRIPTOR, LONG, SOLE_AUTHENTICATION_SERVICE*, void*, DWORD, DWORD,
                    void*, DWORD, void*) { return S_OK; }};

 protected:
  HRESULT comResult = S_OK;

 private:
  CallPatch<struct ComTag, HRESULT(void*, DWORD)> m_com{
      "ole32.dll", "CoInitializeEx", [this](void* reserved, DWORD apartment) {
        ++comSetUps;
        return FAILED(comResult) ? comResult : m_com.CallOriginal(reserved, apartment);
      }};
};

inline std::string NewIdentifierLine() {
  return kCreateIdentifier.ErrorDirect("Client Unique ID: %s",
                                       std::string("Client Unique ID: ") + kIdentifierOfBiosUuid);
}
