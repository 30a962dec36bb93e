// Collection and composition on whole machines, played by a WMI server, an IP Helper interface and
// a reported Windows version in this process. The expected digests are md5sum's.
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <thread>

#include "identity/ztuuid.h"
#include "tests/support/fake_wmi.h"
#include "tests/support/import_patch.h"
#include "tests/support/no_memory.h"
#include "tests/support/reported_version.h"
#include "tests/support/trace_recorder.h"

// iphlpapi.h needs the types of windows.h.
#include <iphlpapi.h>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr char kSource[] = "identity/ztuuid.cpp";
constexpr HRESULT kCut = static_cast<HRESULT>(0x8007007A);
constexpr HRESULT kChangedMode = static_cast<HRESULT>(0x80010106);
constexpr HRESULT kTooLate = static_cast<HRESULT>(0x80010119);

TraceLine Of(const std::string& function, int level, const std::string& text) {
  return Line(level, "CZTUUID::" + function, kSource, text);
}
TraceLine DirectOf(const std::string& function, int level, const std::string& format,
                   const std::string& text) {
  return DirectLine(level, "CZTUUID::" + function, kSource, format, text);
}

// What the product does to set COM up; the calls go into the server's journal.
class ComSetUp {
 public:
  explicit ComSetUp(FakeWmi& server)
      : m_initialize("ole32.dll", "CoInitializeEx",
                     [this, &server](void* reserved, DWORD apartment) {
                       EXPECT_EQ(reserved, nullptr);
                       EXPECT_EQ(apartment, 0U);
                       server.Note("CoInitializeEx");
                       return isReal ? m_initialize.CallOriginal(reserved, apartment)
                                     : initializeResult;
                     }),
        m_security("ole32.dll", "CoInitializeSecurity",
                   [this, &server](PSECURITY_DESCRIPTOR descriptor, LONG services,
                                   SOLE_AUTHENTICATION_SERVICE* list, void* reserved1,
                                   DWORD authentication, DWORD impersonation, void* authentications,
                                   DWORD capabilities, void* reserved3) {
                     EXPECT_EQ(descriptor, nullptr);
                     EXPECT_EQ(services, -1);
                     EXPECT_EQ(list, nullptr);
                     EXPECT_EQ(reserved1, nullptr);
                     EXPECT_EQ(authentication, 0U);
                     EXPECT_EQ(impersonation, 3U);
                     EXPECT_EQ(authentications, nullptr);
                     EXPECT_EQ(capabilities, 0U);
                     EXPECT_EQ(reserved3, nullptr);
                     server.Note("CoInitializeSecurity");
                     return securityResult;
                   }),
        m_uninitialize("ole32.dll", "CoUninitialize", [this, &server] {
          server.Note("CoUninitialize");
          // The test's own apartment must outlive a call that answers no successful set-up.
          if (isReal && SUCCEEDED(initializeResult)) {
            m_uninitialize.CallOriginal();
          }
        }) {}

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

// A machine on this thread: nothing in it at first, Windows 10.
class Machine {
 public:
  explicit Machine(DWORD apartment = COINIT_MULTITHREADED)
      : server(apartment),
        com(server),
        m_adapters("iphlpapi.dll", "GetAdaptersInfo", [this](IP_ADAPTER_INFO* list, ULONG* size) {
          return ReadAdapters(list, size);
        }) {
    const char* const present = std::getenv("SystemDrive");
    m_systemDrive = present != nullptr ? present : "";
    _putenv_s("SystemDrive", "C:");
    version.emplace(10U, 0U);
  }
  ~Machine() {
    _putenv_s("SystemDrive", m_systemDrive.c_str());
    EXPECT_THAT(server.Problems(), IsEmpty());
  }
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  void SetBiosUuid(FakeValue uuid) {
    Set("products", L"ROOT\\CIMV2", L"SELECT * FROM Win32_ComputerSystemProduct",
        {{"product", {{L"UUID", std::move(uuid)}}}});
  }

  void SetDiskSerial(const std::wstring& serial) {
    Set("media", L"ROOT\\CIMV2", L"SELECT * FROM Win32_PhysicalMedia",
        {{"media", {{L"Tag", Text(L"\\\\.\\PHYSICALDRIVE0")}, {L"SerialNumber", Text(serial)}}}});
    Set("partitions", L"ROOT\\CIMV2",
        L"Associators of {Win32_DiskDrive.DeviceID='\\\\.\\PHYSICALDRIVE0'} where "
        L"AssocClass=Win32_DiskDriveToDiskPartition",
        {{"partition", {{L"DeviceID", Text(L"Disk #0, Partition #0")}}}});
    Set("drives", L"ROOT\\CIMV2",
        L"Associators of {Win32_DiskPartition.DeviceID='Disk #0, Partition #0'} where "
        L"AssocClass=Win32_LogicalDiskToPartition",
        {{"drive", {{L"DeviceID", Text(L"C:")}}}});
  }

  // Adapters without GUIDs, which therefore keep these addresses.
  void SetAddresses(const std::vector<std::wstring>& addresses) {
    std::vector<FakeObject> adapters;
    for (const std::wstring& address : addresses) {
      adapters.push_back({"adapter", {{L"MACAddress", Text(address)}, {L"GUID", Null()}}});
    }
    Set("adapters", L"ROOT\\CIMV2",
        L"SELECT * FROM Win32_NetworkAdapter WHERE Manufacturer != 'Microsoft' AND NOT PNPDeviceID "
        L"LIKE 'ROOT\\\\%'",
        std::move(adapters));
    Set("interfaces", L"ROOT\\StandardCIMV2",
        L"SELECT * FROM MSFT_NetAdapter WHERE ConnectorPresent = TRUE", {});
  }

  void SetEverything() {
    SetBiosUuid(Text(L"4C4C4544-0035-3010-8048-B4C04F4B3732"));
    SetDiskSerial(L"WD-WCC4E1234567");
    SetAddresses({L"00:AA:BB:CC:DD:EE", L"00:1A:2B:3C:4D:5E"});
  }

  FakeWmi server;
  ComSetUp com;
  std::optional<ReportedVersion> version;
  // What the IP Helper interface answers.
  std::vector<std::vector<BYTE>> ipAdapters;

 private:
  void Set(const std::string& name, const std::wstring& path, const std::wstring& text,
           std::vector<FakeObject> objects) {
    server.Add({name, path, text, std::move(objects), {}});
  }

  ULONG ReadAdapters(IP_ADAPTER_INFO* list, ULONG* size) {
    if (ipAdapters.empty()) {
      return ERROR_NO_DATA;
    }
    const auto needed = static_cast<ULONG>(ipAdapters.size() * sizeof(IP_ADAPTER_INFO));
    if (*size < needed) {
      *size = needed;
      return ERROR_BUFFER_OVERFLOW;
    }
    for (std::size_t i = 0; i < ipAdapters.size(); ++i) {
      list[i] = {};
      list[i].Next = i + 1 < ipAdapters.size() ? &list[i + 1] : nullptr;
      std::copy(ipAdapters[i].begin(), ipAdapters[i].end(), list[i].Address);
    }
    return ERROR_SUCCESS;
  }

  CallPatch<struct AdaptersTag, ULONG WINAPI(IP_ADAPTER_INFO*, ULONG*)> m_adapters;
  std::string m_systemDrive;
};

// While one lives, the trace lines stand among the calls in the server's journal.
class LinesInJournal {
 public:
  explicit LinesInJournal(FakeWmi& server) {
    FakeTraceSetCallback(
        [](const FakeTraceLine* line, void* context) {
          static_cast<FakeWmi*>(context)->Note(std::to_string(line->level) + " " +
                                               line->functionName + ": " + line->text);
        },
        &server);
  }
  ~LinesInJournal() { FakeTraceSetCallback(nullptr, nullptr); }
  LinesInJournal(const LinesInJournal&) = delete;
  LinesInJournal& operator=(const LinesInJournal&) = delete;
};

class MachineTest : public ::testing::Test {
 protected:
  MachineTest() { fingerprint.LastError = {1, 1}; }

  void ExpectRecorded(HRESULT code, unsigned stage) {
    EXPECT_EQ(fingerprint.LastError.ErrorCode, code);
    EXPECT_EQ(fingerprint.LastError.ErrorStage, stage);
  }

  // The identifier of the machine as it is now; empty when there is none.
  static std::string Identifier() {
    CZTUUID fresh;
    char text[33] = "";
    return fresh.GetZTUUID(text, 33) ? text : "";
  }

  Machine machine;
  TraceRecorder recorder;
  CZTUUID fingerprint;
  char out[33] = "";
};

// ---- Collection ----

class GetUUIDParameters : public MachineTest {};
class GetUUIDParametersEx : public MachineTest {};

TEST_F(GetUUIDParameters, FillsEveryParameterBetweenSettingComUpAndLeavingIt) {
  machine.SetEverything();
  fingerprint.IsWindows2000 = true;
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_FALSE(fingerprint.IsWindows2000);
  EXPECT_STREQ(fingerprint.BiosUuid, "4C4C4544-0035-3010-8048-B4C04F4B3732");
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00:AA:BB:CC:DD:EE", "00:1A:2B:3C:4D:5E"));
  const std::vector<std::string> journal = machine.server.Journal();
  EXPECT_EQ(journal[0], "CoInitializeEx");
  EXPECT_EQ(journal[1], "CoInitializeSecurity");
  EXPECT_EQ(journal[journal.size() - 2], "release locator");
  EXPECT_EQ(journal.back(), "CoUninitialize");
  EXPECT_THAT(recorder.Lines(), ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                                            DirectOf("GetUUIDParameters", 2, "UUID:(%s)",
                                                     "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                                            Of("GetUUIDParameters", 2, "Success...")));
}

TEST_F(GetUUIDParametersEx, FillsEveryParameterUnderItsOwnName) {
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
  EXPECT_THAT(recorder.Lines(), ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                                            DirectOf("GetUUIDParametersEx", 2, "UUID:(%s)",
                                                     "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                                            Of("GetUUIDParametersEx", 2, "Success...")));
}

TEST_F(GetUUIDParameters, OnVersion50OnlyTheAdapterListIsRead) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.SetEverything();
  machine.ipAdapters = {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}};
  StringCchCopyA(fingerprint.BiosUuid, kBiosUuidSize, "as it was");
  StringCchCopyA(fingerprint.PrimaryHddSerial, kPrimaryHddSerialSize, "as it was");
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_TRUE(fingerprint.IsWindows2000);
  EXPECT_STREQ(fingerprint.BiosUuid, "as it was");
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "as it was");
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00-1a-2b-3c-4d-5e"));
  EXPECT_THAT(machine.server.Journal(), IsEmpty());
  EXPECT_THAT(recorder.Lines(), ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                                            Of("GetUUIDParameters", 2, "Success...")));
}

TEST_F(GetUUIDParameters, OnVersion50AFailedAdapterListFails) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  EXPECT_FALSE(fingerprint.GetUUIDParameters());
  EXPECT_TRUE(fingerprint.IsWindows2000);
  EXPECT_THAT(recorder.Lines(), ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                                            Of("GetUUIDParameters", 1, "GetMacAddresses failed.")));
  ExpectRecorded(ERROR_NO_DATA, 0);
}

TEST_F(GetUUIDParametersEx, OnVersion50OnlyTheAdapterListIsReadUnderItsOwnName) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.SetEverything();
  machine.ipAdapters = {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}};
  StringCchCopyA(fingerprint.BiosUuid, kBiosUuidSize, "as it was");
  StringCchCopyA(fingerprint.PrimaryHddSerial, kPrimaryHddSerialSize, "as it was");
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_TRUE(fingerprint.IsWindows2000);
  EXPECT_STREQ(fingerprint.BiosUuid, "as it was");
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "as it was");
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00-1a-2b-3c-4d-5e"));
  EXPECT_THAT(machine.server.Journal(), IsEmpty());
  EXPECT_THAT(recorder.Lines(), ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                                            Of("GetUUIDParametersEx", 2, "Success...")));
  ExpectRecorded(1, 1);
}

TEST_F(GetUUIDParametersEx, OnVersion50AFailedAdapterListFailsUnderItsOwnName) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  EXPECT_FALSE(fingerprint.GetUUIDParametersEx());
  EXPECT_TRUE(fingerprint.IsWindows2000);
  EXPECT_THAT(machine.server.Journal(), IsEmpty());
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                          Of("GetUUIDParametersEx", 1, "GetMacAddresses failed.")));
  ExpectRecorded(ERROR_NO_DATA, 0);
}

TEST_F(GetUUIDParameters, OtherVersionsThan50GoThroughWmi) {
  machine.SetEverything();
  for (const auto& [major, minor] : {std::pair(5U, 1U), std::pair(6U, 0U), std::pair(4U, 0U)}) {
    machine.version.reset();
    machine.version.emplace(major, minor);
    CZTUUID fresh;
    EXPECT_TRUE(fresh.GetUUIDParameters());
    EXPECT_FALSE(fresh.IsWindows2000);
    EXPECT_STREQ(fresh.PrimaryHddSerial, "WD-WCC4E1234567");
  }
}

TEST_F(GetUUIDParameters, VersionTestThatCannotBeMadeGoesThroughWmi) {
  machine.version.reset();
  const ReportedVersion version = ReportedVersion::Unavailable();
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
  // The readers of the adapters cannot do without the test.
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
  EXPECT_THAT(recorder.Lines(),
              Contains(Of("GetUUIDParameters", 1, "GetOnboardNICMacAddress failed.")));
}

TEST_F(GetUUIDParameters, MachineWithNothingHasEmptyParametersAndIsSuccess) {
  StringCchCopyA(fingerprint.BiosUuid, kBiosUuidSize, "half a value");
  StringCchCopyA(fingerprint.PrimaryHddSerial, kPrimaryHddSerialSize, "half a value");
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_STREQ(fingerprint.BiosUuid, "");
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                          Of("GetUUIDParameters", 1, "GetBiosUuid failed."),
                          DirectOf("GetUUIDParameters", 2, "UUID:(%s)", "UUID:()"),
                          Of("GetUUIDParameters", 1, "GetPrimaryHDDSrNo failed."),
                          Of("GetUUIDParameters", 1, "GetOnboardNICMacAddress failed."),
                          Of("GetUUIDParameters", 2, "Success...")));
}

TEST_F(GetUUIDParametersEx, MachineWithNothingIsTracedUnderItsOwnName) {
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                          Of("GetUUIDParametersEx", 1, "GetBiosUuid failed."),
                          DirectOf("GetUUIDParametersEx", 2, "UUID:(%s)", "UUID:()"),
                          Of("GetUUIDParametersEx", 1, "GetPrimaryHDDSrNo failed."),
                          Of("GetUUIDParametersEx", 1, "GetOnboardNICMacAddress failed."),
                          Of("GetUUIDParametersEx", 2, "Success...")));
}

// Every line at its place among the calls: "Success..." only when COM is left.
TEST_F(GetUUIDParameters, LinesStandWhereTheirCallsEnd) {
  const LinesInJournal lines(machine.server);
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre(
          "2 CZTUUID::GetUUIDParameters: Entry", "CoInitializeEx", "CoInitializeSecurity",
          "create locator", "ConnectServer ROOT\\CIMV2", "SetBlanket",
          "ExecQuery SELECT * FROM Win32_ComputerSystemProduct", "release services",
          "release locator", "1 CZTUUID::GetUUIDParameters: GetBiosUuid failed.",
          "2 CZTUUID::GetUUIDParameters: UUID:()", "create locator", "ConnectServer ROOT\\CIMV2",
          "SetBlanket", "ExecQuery SELECT * FROM Win32_PhysicalMedia", "release services",
          "release locator", "1 CZTUUID::GetUUIDParameters: GetPrimaryHDDSrNo failed.",
          "create locator", "ConnectServer ROOT\\CIMV2", "SetBlanket",
          "ExecQuery SELECT * FROM Win32_NetworkAdapter WHERE Manufacturer != 'Microsoft' AND NOT "
          "PNPDeviceID LIKE 'ROOT\\\\%'",
          "release services", "release locator",
          "1 CZTUUID::GetUUIDParameters: GetOnboardNICMacAddress failed.", "CoUninitialize",
          "2 CZTUUID::GetUUIDParameters: Success..."));
}

TEST_F(GetUUIDParametersEx, LinesOfAForeignComStandWhereTheirCallsEnd) {
  machine.com.initializeResult = kChangedMode;
  machine.com.securityResult = kTooLate;
  machine.server.locatorResult = E_FAIL;
  const LinesInJournal lines(machine.server);
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre(
          "2 CZTUUID::GetUUIDParametersEx: Entry", "CoInitializeEx",
          "1 CZTUUID::GetUUIDParametersEx: CoInitializeEx failed\tError code:(80010106).",
          "CoInitializeSecurity",
          "1 CZTUUID::GetUUIDParametersEx: CoInitializeSecurity failed\tError code:(80010119).",
          "create locator", "1 CZTUUID::GetUUIDParametersEx: GetBiosUuid failed.",
          "2 CZTUUID::GetUUIDParametersEx: UUID:()", "create locator",
          "1 CZTUUID::GetUUIDParametersEx: GetPrimaryHDDSrNo failed.", "create locator",
          "1 CZTUUID::GetUUIDParametersEx: GetOnboardNICMacAddress failed.", "CoUninitialize",
          "2 CZTUUID::GetUUIDParametersEx: Success..."));
}

TEST_F(GetUUIDParameters, FailuresOfComAreTracedBeforeItIsLeft) {
  const LinesInJournal lines(machine.server);
  machine.com.securityResult = E_ACCESSDENIED;
  EXPECT_FALSE(fingerprint.GetUUIDParameters());
  machine.com.initializeResult = E_FAIL;
  EXPECT_FALSE(fingerprint.GetUUIDParameters());
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre("2 CZTUUID::GetUUIDParameters: Entry", "CoInitializeEx", "CoInitializeSecurity",
                  "1 CZTUUID::GetUUIDParameters: CoInitializeSecurity failed\tError "
                  "code:(80070005).",
                  "CoUninitialize", "2 CZTUUID::GetUUIDParameters: Entry", "CoInitializeEx",
                  "1 CZTUUID::GetUUIDParameters: CoInitializeEx failed\tError code:(80004005)."));
}

TEST_F(GetUUIDParameters, WithoutAccessToTheProductClassTheUuidIsEmpty) {
  machine.SetEverything();
  machine.server.Query("products").result = E_ACCESSDENIED;
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_STREQ(fingerprint.BiosUuid, "");
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                          Of("GetUUIDParameters", 1, "GetBiosUuid failed."),
                          DirectOf("GetUUIDParameters", 2, "UUID:(%s)", "UUID:()"),
                          Of("GetUUIDParameters", 2, "Success...")));
}

TEST_F(GetUUIDParameters, UuidThatIsTooLongIsEmptied) {
  machine.SetEverything();
  machine.server.Query("products").objects[0].properties[L"UUID"] = Text(std::wstring(37, L'x'));
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_STREQ(fingerprint.BiosUuid, "");
}

TEST_F(GetUUIDParameters, WithoutSystemDriveTheSerialIsEmpty) {
  machine.SetEverything();
  _putenv_s("SystemDrive", "");
  StringCchCopyA(fingerprint.PrimaryHddSerial, kPrimaryHddSerialSize, "as it was");
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
  EXPECT_THAT(recorder.Lines(), Contains(Of("GetUUIDParameters", 1, "GetPrimaryHDDSrNo failed.")));
}

TEST_F(GetUUIDParameters, SecondRunAppendsItsAddressesBehindThoseOfTheFirst) {
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00:AA:BB:CC:DD:EE", "00:1A:2B:3C:4D:5E",
                                                      "00:AA:BB:CC:DD:EE", "00:1A:2B:3C:4D:5E"));
}

TEST_F(GetUUIDParameters, FailureToEnterComFailsWithoutLeavingIt) {
  for (const HRESULT result : {kChangedMode, E_OUTOFMEMORY}) {
    machine.com.initializeResult = result;
    fingerprint.LastError = {1, 1};
    EXPECT_FALSE(fingerprint.GetUUIDParameters());
    ExpectRecorded(result, 0);
  }
  EXPECT_THAT(machine.server.Journal(), ElementsAre("CoInitializeEx", "CoInitializeEx"));
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                  DirectOf("GetUUIDParameters", 1, "CoInitializeEx failed\tError code:(%X).",
                           "CoInitializeEx failed\tError code:(80010106)."),
                  Of("GetUUIDParameters", 2, "Entry"),
                  DirectOf("GetUUIDParameters", 1, "CoInitializeEx failed\tError code:(%X).",
                           "CoInitializeEx failed\tError code:(8007000E).")));
}

TEST_F(GetUUIDParametersEx, AnotherApartmentIsAcceptedAndComIsLeftAllTheSame) {
  machine.SetEverything();
  machine.com.initializeResult = kChangedMode;
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
  EXPECT_EQ(machine.server.Journal().back(), "CoUninitialize");
  // Offered although it is accepted; its stage 0 keeps what comes later from being recorded.
  ExpectRecorded(kChangedMode, 0);
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                  DirectOf("GetUUIDParametersEx", 1, "CoInitializeEx failed\tError code:(%X).",
                           "CoInitializeEx failed\tError code:(80010106)."),
                  DirectOf("GetUUIDParametersEx", 2, "UUID:(%s)",
                           "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  Of("GetUUIDParametersEx", 2, "Success...")));
}

// What is accepted of one call is not accepted of the other.
TEST_F(GetUUIDParametersEx, OtherFailuresToEnterComFailWithoutLeavingIt) {
  for (const HRESULT result : {E_OUTOFMEMORY, kTooLate}) {
    machine.com.initializeResult = result;
    fingerprint.LastError = {1, 1};
    EXPECT_FALSE(fingerprint.GetUUIDParametersEx());
    ExpectRecorded(result, 0);
  }
  EXPECT_THAT(machine.server.Journal(), ElementsAre("CoInitializeEx", "CoInitializeEx"));
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                  DirectOf("GetUUIDParametersEx", 1, "CoInitializeEx failed\tError code:(%X).",
                           "CoInitializeEx failed\tError code:(8007000E)."),
                  Of("GetUUIDParametersEx", 2, "Entry"),
                  DirectOf("GetUUIDParametersEx", 1, "CoInitializeEx failed\tError code:(%X).",
                           "CoInitializeEx failed\tError code:(80010119).")));
}

TEST_F(GetUUIDParameters, ApartmentThatIsEnteredAlreadyIsFine) {
  machine.com.initializeResult = S_FALSE;
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_EQ(machine.server.Journal().back(), "CoUninitialize");
}

TEST_F(GetUUIDParameters, SecurityThatIsSetAlreadyFailsAfterLeavingCom) {
  for (const HRESULT result : {kTooLate, E_ACCESSDENIED}) {
    machine.com.securityResult = result;
    fingerprint.LastError = {1, 1};
    EXPECT_FALSE(fingerprint.GetUUIDParameters());
    ExpectRecorded(result, 0);
  }
  EXPECT_THAT(machine.server.Journal(),
              ElementsAre("CoInitializeEx", "CoInitializeSecurity", "CoUninitialize",
                          "CoInitializeEx", "CoInitializeSecurity", "CoUninitialize"));
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                  DirectOf("GetUUIDParameters", 1, "CoInitializeSecurity failed\tError code:(%X).",
                           "CoInitializeSecurity failed\tError code:(80010119)."),
                  Of("GetUUIDParameters", 2, "Entry"),
                  DirectOf("GetUUIDParameters", 1, "CoInitializeSecurity failed\tError code:(%X).",
                           "CoInitializeSecurity failed\tError code:(80070005).")));
}

TEST_F(GetUUIDParametersEx, SecurityThatIsSetAlreadyIsTracedAndAccepted) {
  machine.SetEverything();
  machine.com.securityResult = kTooLate;
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  // Offered although it is accepted; its stage 0 keeps what comes later from being recorded.
  ExpectRecorded(kTooLate, 0);
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                          DirectOf("GetUUIDParametersEx", 1,
                                   "CoInitializeSecurity failed\tError code:(%X).",
                                   "CoInitializeSecurity failed\tError code:(80010119)."),
                          DirectOf("GetUUIDParametersEx", 2, "UUID:(%s)",
                                   "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                          Of("GetUUIDParametersEx", 2, "Success...")));
}

TEST_F(GetUUIDParametersEx, OtherSecurityFailuresFailAfterLeavingCom) {
  machine.com.securityResult = E_ACCESSDENIED;
  EXPECT_FALSE(fingerprint.GetUUIDParametersEx());
  ExpectRecorded(E_ACCESSDENIED, 0);
  EXPECT_THAT(machine.server.Journal(),
              ElementsAre("CoInitializeEx", "CoInitializeSecurity", "CoUninitialize"));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                          DirectOf("GetUUIDParametersEx", 1,
                                   "CoInitializeSecurity failed\tError code:(%X).",
                                   "CoInitializeSecurity failed\tError code:(80070005).")));
}

TEST_F(GetUUIDParametersEx, OtherSecurityFailuresFailInAnotherApartmentToo) {
  machine.SetEverything();
  machine.com.initializeResult = kChangedMode;
  for (const HRESULT result : {E_ACCESSDENIED, kChangedMode}) {
    machine.com.securityResult = result;
    EXPECT_FALSE(fingerprint.GetUUIDParametersEx());
  }
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
  EXPECT_THAT(machine.server.Journal(),
              ElementsAre("CoInitializeEx", "CoInitializeSecurity", "CoUninitialize",
                          "CoInitializeEx", "CoInitializeSecurity", "CoUninitialize"));
}

TEST_F(GetUUIDParametersEx, AnotherApartmentAndSecurityThatIsSetAreAcceptedTogether) {
  machine.SetEverything();
  machine.com.initializeResult = kChangedMode;
  machine.com.securityResult = kTooLate;
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
}

// With COM's own answer, on a thread that is in a single-threaded apartment.
TEST(GetUUIDParametersInASingleThreadedApartment, OnlyTheExVariantCollects) {
  std::thread([] {
    Machine machine(COINIT_APARTMENTTHREADED);
    machine.SetEverything();
    machine.com.isReal = true;
    machine.com.initializeResult = kChangedMode;
    const TraceRecorder recorder;

    CZTUUID refused;
    EXPECT_FALSE(refused.GetUUIDParameters());
    EXPECT_THAT(
        recorder.Lines(),
        ElementsAre(Of("GetUUIDParameters", 2, "Entry"),
                    DirectOf("GetUUIDParameters", 1, "CoInitializeEx failed\tError code:(%X).",
                             "CoInitializeEx failed\tError code:(80010106).")));

    CZTUUID accepted;
    EXPECT_TRUE(accepted.GetUUIDParametersEx());
    EXPECT_STREQ(accepted.BiosUuid, "4C4C4544-0035-3010-8048-B4C04F4B3732");
    EXPECT_STREQ(accepted.PrimaryHddSerial, "WD-WCC4E1234567");
    EXPECT_THAT(
        recorder.LinesOf("CZTUUID::GetUUIDParametersEx"),
        ElementsAre(Of("GetUUIDParametersEx", 2, "Entry"),
                    DirectOf("GetUUIDParametersEx", 1, "CoInitializeEx failed\tError code:(%X).",
                             "CoInitializeEx failed\tError code:(80010106)."),
                    DirectOf("GetUUIDParametersEx", 2, "UUID:(%s)",
                             "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                    Of("GetUUIDParametersEx", 2, "Success...")));
  }).join();
}

// ---- Composition ----

class GetZTUUID : public MachineTest {};
class GetZTUUIDEx : public MachineTest {};

TEST_F(GetZTUUID, TracesEveryStepOnAMachineWithEverything) {
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetZTUUID(out, 33));
  EXPECT_STREQ(out, "6519F7C59F825CB9C3EB7873769899BE");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(
          Of("GetZTUUID", 2, "Entry"), Of("GetUUIDParameters", 2, "Entry"),
          DirectOf("GetUUIDParameters", 2, "UUID:(%s)",
                   "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
          Of("GetUUIDParameters", 2, "Success..."), Of("ProcessUUIDParameters", 2, "Entry"),
          Of("ProcessMACAddresses", 2, "Entry"), Of("SortMacAddress", 2, "Entry"),
          Of("ValidateUUID", 2, "Entry"), Of("GetOptimumHDDSrNo", 2, "Entry"),
          Of("ProcessBiosId", 2, "Entry"), Of("ProcessBiosId", 2, "Success.."),
          Of("ProcessUUIDParameters", 2, "Success...."),
          DirectOf("GetZTUUID", 2, "Client MAC Address:(%s)", "Client MAC Address:(001A2B3C4D5E)"),
          DirectOf("GetZTUUID", 2, "Client MAC Address:(%s)", "Client MAC Address:(00AABBCCDDEE)"),
          DirectOf("GetZTUUID", 2, "Combined UUID:(%s)",
                   "Combined UUID:(4C4C4544003530108048B4C04F4B3732E1234567001A2B3C4D5E"
                   "00AABBCCDDEE)"),
          Of("StringifyMD5", 2, "Entry"),
          DirectOf("GetZTUUID", 2, "MD5 of combined ZT UUID:(%s)\tSuccess...",
                   "MD5 of combined ZT UUID:(6519F7C59F825CB9C3EB7873769899BE)\tSuccess...")));
}

TEST_F(GetZTUUIDEx, TracesEveryStepButTheAddresses) {
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_STREQ(out, "6519F7C59F825CB9C3EB7873769899BE");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(
          Of("GetZTUUIDEx", 2, "Entry"), Of("GetUUIDParametersEx", 2, "Entry"),
          DirectOf("GetUUIDParametersEx", 2, "UUID:(%s)",
                   "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
          Of("GetUUIDParametersEx", 2, "Success..."), Of("ProcessUUIDParameters", 2, "Entry"),
          Of("ProcessMACAddresses", 2, "Entry"), Of("SortMacAddress", 2, "Entry"),
          Of("ValidateUUID", 2, "Entry"), Of("GetOptimumHDDSrNo", 2, "Entry"),
          Of("ProcessBiosId", 2, "Entry"), Of("ProcessBiosId", 2, "Success.."),
          Of("ProcessUUIDParameters", 2, "Success...."),
          DirectOf("GetZTUUIDEx", 2, "Combined UUID:(%s)",
                   "Combined UUID:(4C4C4544003530108048B4C04F4B3732E1234567001A2B3C4D5E"
                   "00AABBCCDDEE)"),
          Of("StringifyMD5", 2, "Entry"),
          DirectOf("GetZTUUIDEx", 2, "MD5 of combined ZT UUID:(%s)\tSuccess...",
                   "MD5 of combined ZT UUID:(6519F7C59F825CB9C3EB7873769899BE)\tSuccess...")));
}

TEST_F(GetZTUUID, EveryComponentEmptyIsAFailure) {
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_STREQ(out, "");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(
          Of("GetZTUUID", 2, "Entry"), Of("GetUUIDParameters", 2, "Entry"),
          Of("GetUUIDParameters", 1, "GetBiosUuid failed."),
          DirectOf("GetUUIDParameters", 2, "UUID:(%s)", "UUID:()"),
          Of("GetUUIDParameters", 1, "GetPrimaryHDDSrNo failed."),
          Of("GetUUIDParameters", 1, "GetOnboardNICMacAddress failed."),
          Of("GetUUIDParameters", 2, "Success..."), Of("ProcessUUIDParameters", 2, "Entry"),
          Of("ProcessMACAddresses", 2, "Entry"), Of("SortMacAddress", 2, "Entry"),
          Of("ValidateUUID", 2, "Entry"), Of("ProcessUUIDParameters", 1, "ValidateUUID failed."),
          Of("GetOptimumHDDSrNo", 2, "Entry"), Of("ProcessBiosId", 2, "Entry"),
          Of("ProcessBiosId", 2, "Success.."), Of("ProcessUUIDParameters", 2, "Success...."),
          DirectOf("GetZTUUID", 2, "Client MAC Address:(%s)", "Client MAC Address:()"),
          DirectOf("GetZTUUID", 2, "Client MAC Address:(%s)", "Client MAC Address:()"),
          DirectOf("GetZTUUID", 2, "Combined UUID:(%s)", "Combined UUID:()"),
          Of("GetZTUUID", 1, "Empty ZT UUID found.")));
}

TEST_F(GetZTUUID, EmptyFingerprintIsStage10) {
  machine.SetEverything();
  for (const char* query : {"products", "media", "adapters"}) {
    machine.server.Query(query).objects.clear();
  }
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_EQ(recorder.Lines().back(), Of("GetZTUUID", 1, "Empty ZT UUID found."));
  ExpectRecorded(0, 10);
}

TEST_F(GetZTUUID, OnVersion50TheAddressesAloneMakeTheIdentifier) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.SetEverything();
  machine.ipAdapters = {{0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA}, {1, 2, 3, 4, 5, 6}, {7}};
  EXPECT_TRUE(fingerprint.GetZTUUID(out, 33));
  EXPECT_STREQ(out, "FBCDF456B606EAE683FD241BFD444F3E");
  EXPECT_THAT(machine.server.Journal(), IsEmpty());
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(
          Of("GetZTUUID", 2, "Entry"), Of("GetUUIDParameters", 2, "Entry"),
          Of("GetUUIDParameters", 2, "Success..."), Of("ProcessUUIDParameters", 2, "Entry"),
          Of("ProcessMACAddresses", 2, "Entry"), Of("SortMacAddress", 2, "Entry"),
          Of("ProcessUUIDParameters", 2, "Success..."),
          DirectOf("GetZTUUID", 2, "Client MAC Address:(%s)", "Client MAC Address:(010203040506)"),
          DirectOf("GetZTUUID", 2, "Client MAC Address:(%s)", "Client MAC Address:(fffefdfcfbfa)"),
          DirectOf("GetZTUUID", 2, "Combined UUID:(%s)",
                   "Combined UUID:(010203040506fffefdfcfbfa)"),
          Of("StringifyMD5", 2, "Entry"),
          DirectOf("GetZTUUID", 2, "MD5 of combined ZT UUID:(%s)\tSuccess...",
                   "MD5 of combined ZT UUID:(FBCDF456B606EAE683FD241BFD444F3E)\tSuccess...")));
}

TEST_F(GetZTUUID, MissingOutputIsRefusedBeforeAnythingElse) {
  EXPECT_FALSE(fingerprint.GetZTUUID(nullptr, 33));
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 0));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(nullptr, 33));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 0));
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(Of("GetZTUUID", 2, "Entry"), Of("GetZTUUID", 1, "Invalid i/p params."),
                  Of("GetZTUUID", 2, "Entry"), Of("GetZTUUID", 1, "Invalid i/p params."),
                  Of("GetZTUUIDEx", 2, "Entry"), Of("GetZTUUIDEx", 1, "Invalid i/p params."),
                  Of("GetZTUUIDEx", 2, "Entry"), Of("GetZTUUIDEx", 1, "Invalid i/p params.")));
}

TEST_F(GetZTUUID, FailedCollectionIsAFailure) {
  machine.com.initializeResult = E_FAIL;
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_THAT(
      recorder.LinesOf("CZTUUID::GetZTUUID"),
      ElementsAre(Of("GetZTUUID", 2, "Entry"), Of("GetZTUUID", 1, "GetUUIDParameters failed.")));
  EXPECT_THAT(recorder.LinesOf("CZTUUID::GetZTUUIDEx"),
              ElementsAre(Of("GetZTUUIDEx", 2, "Entry"),
                          Of("GetZTUUIDEx", 1, "GetUUIDParametersEx failed.")));
}

TEST_F(GetZTUUID, CollectionThatRunsOutOfMemoryIsAFailureThatLeavesComAndReleasesEverything) {
  machine.SetEverything();
  const CallPatch<struct NoTextTag, BSTR WINAPI(const OLECHAR*, UINT)> noText(
      "oleaut32.dll", "SysAllocStringLen", [](const OLECHAR*, UINT) -> BSTR { return nullptr; });
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre("CoInitializeEx", "CoInitializeSecurity", "create locator", "release locator",
                  "CoUninitialize", "CoInitializeEx", "CoInitializeSecurity", "create locator",
                  "release locator", "CoUninitialize"));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetZTUUID", 2, "Entry"), Of("GetUUIDParameters", 2, "Entry"),
                          Of("GetZTUUID", 1, "GetUUIDParameters failed."),
                          Of("GetZTUUIDEx", 2, "Entry"), Of("GetUUIDParametersEx", 2, "Entry"),
                          Of("GetZTUUIDEx", 1, "GetUUIDParametersEx failed.")));
}

// A query's text needs memory of its own, whose lack is another exception than that of COM's texts.
TEST_F(GetZTUUID, CollectionWithoutMemoryForAQueryIsAFailureThatLeavesComAndReleasesEverything) {
  machine.SetEverything();
  const NoMemoryFor noMemory(sizeof(L"Associators of {Win32_DiskDrive.DeviceID='"));
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_EQ(machine.server.Journal().back(), "CoUninitialize");
  EXPECT_THAT(machine.server.Problems(), IsEmpty());
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_EQ(machine.server.Journal().back(), "CoUninitialize");
  EXPECT_THAT(machine.server.Journal(), Not(Contains("ExecQuery partitions")));
  EXPECT_STREQ(out, "");
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Of("GetZTUUID", 2, "Entry"), Of("GetUUIDParameters", 2, "Entry"),
                          DirectOf("GetUUIDParameters", 2, "UUID:(%s)",
                                   "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                          Of("GetZTUUID", 1, "GetUUIDParameters failed."),
                          Of("GetZTUUIDEx", 2, "Entry"), Of("GetUUIDParametersEx", 2, "Entry"),
                          DirectOf("GetUUIDParametersEx", 2, "UUID:(%s)",
                                   "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                          Of("GetZTUUIDEx", 1, "GetUUIDParametersEx failed.")));
}

TEST_F(GetZTUUID, UuidThatIsNotGuidShapedYieldsAnIdentifierFromDiskAndAddressesOnly) {
  machine.SetEverything();
  machine.server.Query("products").objects[0].properties[L"UUID"] =
      Text(L"4C4C4544003530108048B4C04F4B3732");
  EXPECT_EQ(Identifier(), "C695A0596E2E73DD6CB48500DE75D5E9");
}

TEST_F(GetZTUUID, EitherCollectionOrderOfTwoAddressesGivesTheSameIdentifier) {
  machine.SetEverything();
  std::vector<FakeObject>& adapters = machine.server.Query("adapters").objects;
  std::swap(adapters[0], adapters[1]);
  EXPECT_EQ(Identifier(), "6519F7C59F825CB9C3EB7873769899BE");
}

TEST_F(GetZTUUID, EveryFormOfAnAddressGivesTheSameIdentifier) {
  machine.SetAddresses({L""});
  for (const wchar_t* address : {L"00:1a:2b:3c:4d:5e", L"00-1a-2b-3c-4d-5e", L"001a2b3c4d5e"}) {
    machine.server.Query("adapters").objects[0].properties[L"MACAddress"] = Text(address);
    EXPECT_EQ(Identifier(), "66EFB1A45C262D043508813DC97C1D0B");
  }
}

TEST_F(GetZTUUID, LetterCaseOfAnAddressCounts) {
  machine.SetAddresses({L"001A2B3C4D5E"});
  EXPECT_EQ(Identifier(), "7598B725A578EE13656D280B6520F326");
}

TEST_F(GetZTUUID, OutputOf32CharactersFailsAtTheFinalCopyAnd33Succeed) {
  machine.SetAddresses({L"001A2B3C4D5E"});
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 32));
  EXPECT_EQ(recorder.LinesOf("CZTUUID::GetZTUUID").back(),
            DirectOf("GetZTUUID", 1, "StringCchPrintfW failed for szZTUUIDA\tError code:(%X).",
                     "StringCchPrintfW failed for szZTUUIDA\tError code:(8007007A)."));
  EXPECT_EQ(Identifier().size(), 32U);
}

TEST_F(GetZTUUID, FailedFinalCopyIsStage0) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.ipAdapters = {{1}};
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 1));
  ExpectRecorded(kCut, 0);
}

TEST_F(GetZTUUID, IdentifierIs32CharactersOf0To9AndAToF) {
  machine.SetAddresses({L""});
  for (int i = 0; i < 100; ++i) {
    machine.server.Query("adapters").objects[0].properties[L"MACAddress"] =
        Text(std::to_wstring(100000000000 + i));
    const std::string identifier = Identifier();
    EXPECT_EQ(identifier.size(), 32U);
    EXPECT_EQ(identifier.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  }
}

using Format = int __cdecl(char*, std::size_t, const char*, char*);

TEST_F(GetZTUUID, CombinedTextThatDoesNotFitIsTracedAndStage0) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.ipAdapters = {{1}};
  const CallPatch<struct CombineTag, Format> format(
      "msvcrt.dll", "_vsnprintf",
      [&](char* text, std::size_t size, const char* pattern, char* arguments) {
        if (std::strcmp(pattern, "%s%s%s%s") == 0) {
          EXPECT_EQ(size, 259U);
          return -1;
        }
        return format.CallOriginal(text, size, pattern, arguments);
      });
  // The addresses are traced behind the composition, so not at all here.
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_THAT(
      recorder.LinesOf("CZTUUID::GetZTUUID"),
      ElementsAre(
          Of("GetZTUUID", 2, "Entry"),
          DirectOf("GetZTUUID", 1, "StringCchPrintfA failed for Combined ZT UUID\tError code:(%X).",
                   "StringCchPrintfA failed for Combined ZT UUID\tError code:(8007007A).")));
  ExpectRecorded(kCut, 0);

  fingerprint.LastError = {1, 1};
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_THAT(
      recorder.LinesOf("CZTUUID::GetZTUUIDEx"),
      ElementsAre(
          Of("GetZTUUIDEx", 2, "Entry"),
          DirectOf("GetZTUUIDEx", 1,
                   "StringCchPrintfA failed for Combined ZT UUID\tError code:(%X).",
                   "StringCchPrintfA failed for Combined ZT UUID\tError code:(8007007A).")));
  ExpectRecorded(kCut, 0);
}

TEST_F(GetZTUUID, DigestThatCannotBeWrittenIsTraced) {
  machine.SetAddresses({L"001A2B3C4D5E"});
  const CallPatch<struct DigitsTag, Format> format(
      "msvcrt.dll", "_vsnprintf",
      [&](char* text, std::size_t size, const char* pattern, char* arguments) {
        return std::strcmp(pattern, "%02X") == 0
                   ? -1
                   : format.CallOriginal(text, size, pattern, arguments);
      });
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_EQ(recorder.Lines().back(),
            Of("GetZTUUID", 1, "StringifyMD5 failed for Combined ZT UUID."));
}

// ---- Entry points ----

// The four by one signature.
using EntryPoint = std::function<bool(char*, unsigned, FingerprintStatus*)>;

EntryPoint Reserved(bool (*function)(void*, char*, unsigned, FingerprintStatus*)) {
  return [function](char* out, unsigned outChars, FingerprintStatus* status) {
    int ignored = 0;
    return function(&ignored, out, outChars, status);
  };
}

class ComputeZTUUIDTest : public MachineTest {
 protected:
  const std::vector<EntryPoint> all = {Reserved(&ComputeZTUUID), ComputeZTUUIDEx,
                                       Reserved(&ComputeZTUUIDInto), ComputeZTUUIDExInto};
  const std::vector<EntryPoint> copying = {Reserved(&ComputeZTUUID), ComputeZTUUIDEx};
  const std::vector<EntryPoint> direct = {Reserved(&ComputeZTUUIDInto), ComputeZTUUIDExInto};
};

TEST_F(ComputeZTUUIDTest, AllWriteTheIdentifierAndLeaveTheStatusUntouched) {
  machine.SetEverything();
  for (const EntryPoint& compute : all) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_TRUE(compute(text, 33, &status));
    EXPECT_STREQ(text, "6519F7C59F825CB9C3EB7873769899BE");
    EXPECT_EQ(status.ErrorCode, 7);
    EXPECT_EQ(status.ErrorStage, 8U);
  }
}

TEST_F(ComputeZTUUIDTest, EachRunsItsOwnMember) {
  machine.SetEverything();
  machine.com.securityResult = kTooLate;
  FingerprintStatus status{};
  char text[33] = "";
  EXPECT_FALSE(ComputeZTUUID(nullptr, text, 33, &status));
  EXPECT_TRUE(ComputeZTUUIDEx(text, 33, &status));
  EXPECT_FALSE(ComputeZTUUIDInto(nullptr, text, 33, &status));
  EXPECT_TRUE(ComputeZTUUIDExInto(text, 33, &status));
}

TEST_F(ComputeZTUUIDTest, FailedMemberHandsBackTheZerosOfItsFreshRecord) {
  for (const EntryPoint& compute : all) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 33, &status));
    EXPECT_EQ(status.ErrorCode, 0);
    EXPECT_EQ(status.ErrorStage, 0U);
  }
}

TEST_F(ComputeZTUUIDTest, CopyThatDoesNotFitHandsBackItsResultAndStage0) {
  machine.SetEverything();
  for (const EntryPoint& compute : copying) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 32, &status));
    EXPECT_EQ(status.ErrorCode, kCut);
    EXPECT_EQ(status.ErrorStage, 0U);
  }
}

TEST_F(ComputeZTUUIDTest, CopyToNowhereIsAnInvalidArgument) {
  machine.SetEverything();
  for (const EntryPoint& compute : copying) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 0, &status));
    EXPECT_EQ(status.ErrorCode, E_INVALIDARG);
    EXPECT_FALSE(compute(nullptr, 33, &status));
    EXPECT_EQ(status.ErrorCode, E_INVALIDARG);
  }
}

TEST_F(ComputeZTUUIDTest, DirectOutputThatIsTooSmallFailsInTheMember) {
  machine.SetEverything();
  for (const EntryPoint& compute : direct) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 32, &status));
    EXPECT_EQ(status.ErrorCode, 0);
    EXPECT_EQ(status.ErrorStage, 0U);
    EXPECT_FALSE(compute(nullptr, 33, &status));
  }
}

}  // namespace
