// Collection on whole machines, played by a WMI server, an IP Helper interface and a reported
// Windows version in this process.
#include <gmock/gmock.h>

#include <cstring>
#include <thread>

#include "tests/support/fake_machine.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

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
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kCollect.Info("Entry"),
                  kCollect.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  kCollect.Info("Success...")));
}

TEST_F(GetUUIDParametersEx, FillsEveryParameterUnderItsOwnName) {
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kCollectEx.Info("Entry"),
                  kCollectEx.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  kCollectEx.Info("Success...")));
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
  EXPECT_THAT(recorder.Lines(), ElementsAre(kCollect.Info("Entry"), kCollect.Info("Success...")));
}

TEST_F(GetUUIDParameters, OnVersion50AFailedAdapterListFails) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  EXPECT_FALSE(fingerprint.GetUUIDParameters());
  EXPECT_TRUE(fingerprint.IsWindows2000);
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kCollect.Info("Entry"), kCollect.Error("GetMacAddresses failed.")));
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
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kCollectEx.Info("Entry"), kCollectEx.Info("Success...")));
  ExpectRecorded(1, 1);
}

TEST_F(GetUUIDParametersEx, OnVersion50AFailedAdapterListFailsUnderItsOwnName) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  EXPECT_FALSE(fingerprint.GetUUIDParametersEx());
  EXPECT_TRUE(fingerprint.IsWindows2000);
  EXPECT_THAT(machine.server.Journal(), IsEmpty());
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kCollectEx.Info("Entry"), kCollectEx.Error("GetMacAddresses failed.")));
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
  EXPECT_THAT(recorder.Lines(), Contains(kCollect.Error("GetOnboardNICMacAddress failed.")));
}

TEST_F(GetUUIDParameters, MachineWithNothingHasEmptyParametersAndIsSuccess) {
  StringCchCopyA(fingerprint.BiosUuid, kBiosUuidSize, "half a value");
  StringCchCopyA(fingerprint.PrimaryHddSerial, kPrimaryHddSerialSize, "half a value");
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_STREQ(fingerprint.BiosUuid, "");
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kCollect.Info("Entry"), kCollect.Error("GetBiosUuid failed."),
                  kCollect.InfoDirect("UUID:(%s)", "UUID:()"),
                  kCollect.Error("GetPrimaryHDDSrNo failed."),
                  kCollect.Error("GetOnboardNICMacAddress failed."), kCollect.Info("Success...")));
}

TEST_F(GetUUIDParametersEx, MachineWithNothingIsTracedUnderItsOwnName) {
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kCollectEx.Info("Entry"), kCollectEx.Error("GetBiosUuid failed."),
                          kCollectEx.InfoDirect("UUID:(%s)", "UUID:()"),
                          kCollectEx.Error("GetPrimaryHDDSrNo failed."),
                          kCollectEx.Error("GetOnboardNICMacAddress failed."),
                          kCollectEx.Info("Success...")));
}

// Every line at its place among the calls: "Success..." only when COM is left.
TEST_F(GetUUIDParameters, LinesStandWhereTheirCallsEnd) {
  const LinesInJournal lines(machine.server);
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre(
          kCollect.Info("Entry"), "CoInitializeEx", "CoInitializeSecurity", "create locator",
          "ConnectServer ROOT\\CIMV2", "SetBlanket",
          "ExecQuery SELECT * FROM Win32_ComputerSystemProduct", "release services",
          "release locator", kCollect.Error("GetBiosUuid failed."),
          kCollect.InfoDirect("UUID:(%s)", "UUID:()"), "create locator",
          "ConnectServer ROOT\\CIMV2", "SetBlanket", "ExecQuery SELECT * FROM Win32_PhysicalMedia",
          "release services", "release locator", kCollect.Error("GetPrimaryHDDSrNo failed."),
          "create locator", "ConnectServer ROOT\\CIMV2", "SetBlanket",
          "ExecQuery SELECT * FROM Win32_NetworkAdapter WHERE Manufacturer != 'Microsoft' AND NOT "
          "PNPDeviceID LIKE 'ROOT\\\\%'",
          "release services", "release locator", kCollect.Error("GetOnboardNICMacAddress failed."),
          "CoUninitialize", kCollect.Info("Success...")));
}

TEST_F(GetUUIDParametersEx, LinesOfAForeignComStandWhereTheirCallsEnd) {
  machine.com.initializeResult = kChangedMode;
  machine.com.securityResult = kTooLate;
  machine.server.locatorResult = E_FAIL;
  const LinesInJournal lines(machine.server);
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre(kCollectEx.Info("Entry"), "CoInitializeEx",
                  kCollectEx.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
                                         "CoInitializeEx failed\tError code:(80010106)."),
                  "CoInitializeSecurity",
                  kCollectEx.ErrorDirect("CoInitializeSecurity failed\tError code:(%X).",
                                         "CoInitializeSecurity failed\tError code:(80010119)."),
                  "create locator", kCollectEx.Error("GetBiosUuid failed."),
                  kCollectEx.InfoDirect("UUID:(%s)", "UUID:()"), "create locator",
                  kCollectEx.Error("GetPrimaryHDDSrNo failed."), "create locator",
                  kCollectEx.Error("GetOnboardNICMacAddress failed."), "CoUninitialize",
                  kCollectEx.Info("Success...")));
}

TEST_F(GetUUIDParameters, FailuresOfComAreTracedBeforeItIsLeft) {
  const LinesInJournal lines(machine.server);
  machine.com.securityResult = E_ACCESSDENIED;
  EXPECT_FALSE(fingerprint.GetUUIDParameters());
  machine.com.initializeResult = E_FAIL;
  EXPECT_FALSE(fingerprint.GetUUIDParameters());
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre(kCollect.Info("Entry"), "CoInitializeEx", "CoInitializeSecurity",
                  kCollect.ErrorDirect("CoInitializeSecurity failed\tError code:(%X).",
                                       "CoInitializeSecurity failed\tError code:(80070005)."),
                  "CoUninitialize", kCollect.Info("Entry"), "CoInitializeEx",
                  kCollect.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
                                       "CoInitializeEx failed\tError code:(80004005).")));
}

TEST_F(GetUUIDParameters, WithoutAccessToTheProductClassTheUuidIsEmpty) {
  machine.SetEverything();
  machine.server.Query("products").result = E_ACCESSDENIED;
  EXPECT_TRUE(fingerprint.GetUUIDParameters());
  EXPECT_STREQ(fingerprint.BiosUuid, "");
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-WCC4E1234567");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kCollect.Info("Entry"), kCollect.Error("GetBiosUuid failed."),
                  kCollect.InfoDirect("UUID:(%s)", "UUID:()"), kCollect.Info("Success...")));
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
  EXPECT_THAT(recorder.Lines(), Contains(kCollect.Error("GetPrimaryHDDSrNo failed.")));
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
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kCollect.Info("Entry"),
                          kCollect.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
                                               "CoInitializeEx failed\tError code:(80010106)."),
                          kCollect.Info("Entry"),
                          kCollect.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
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
      ElementsAre(kCollectEx.Info("Entry"),
                  kCollectEx.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
                                         "CoInitializeEx failed\tError code:(80010106)."),
                  kCollectEx.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  kCollectEx.Info("Success...")));
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
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kCollectEx.Info("Entry"),
                          kCollectEx.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
                                                 "CoInitializeEx failed\tError code:(8007000E)."),
                          kCollectEx.Info("Entry"),
                          kCollectEx.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
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
      ElementsAre(kCollect.Info("Entry"),
                  kCollect.ErrorDirect("CoInitializeSecurity failed\tError code:(%X).",
                                       "CoInitializeSecurity failed\tError code:(80010119)."),
                  kCollect.Info("Entry"),
                  kCollect.ErrorDirect("CoInitializeSecurity failed\tError code:(%X).",
                                       "CoInitializeSecurity failed\tError code:(80070005).")));
}

TEST_F(GetUUIDParametersEx, SecurityThatIsSetAlreadyIsTracedAndAccepted) {
  machine.SetEverything();
  machine.com.securityResult = kTooLate;
  EXPECT_TRUE(fingerprint.GetUUIDParametersEx());
  // Offered although it is accepted; its stage 0 keeps what comes later from being recorded.
  ExpectRecorded(kTooLate, 0);
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kCollectEx.Info("Entry"),
                  kCollectEx.ErrorDirect("CoInitializeSecurity failed\tError code:(%X).",
                                         "CoInitializeSecurity failed\tError code:(80010119)."),
                  kCollectEx.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  kCollectEx.Info("Success...")));
}

TEST_F(GetUUIDParametersEx, OtherSecurityFailuresFailAfterLeavingCom) {
  machine.com.securityResult = E_ACCESSDENIED;
  EXPECT_FALSE(fingerprint.GetUUIDParametersEx());
  ExpectRecorded(E_ACCESSDENIED, 0);
  EXPECT_THAT(machine.server.Journal(),
              ElementsAre("CoInitializeEx", "CoInitializeSecurity", "CoUninitialize"));
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kCollectEx.Info("Entry"),
                  kCollectEx.ErrorDirect("CoInitializeSecurity failed\tError code:(%X).",
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
    EXPECT_THAT(recorder.Lines(),
                ElementsAre(kCollect.Info("Entry"),
                            kCollect.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
                                                 "CoInitializeEx failed\tError code:(80010106).")));

    CZTUUID accepted;
    EXPECT_TRUE(accepted.GetUUIDParametersEx());
    EXPECT_STREQ(accepted.BiosUuid, "4C4C4544-0035-3010-8048-B4C04F4B3732");
    EXPECT_STREQ(accepted.PrimaryHddSerial, "WD-WCC4E1234567");
    EXPECT_THAT(recorder.LinesOf("CZTUUID::GetUUIDParametersEx"),
                ElementsAre(kCollectEx.Info("Entry"),
                            kCollectEx.ErrorDirect("CoInitializeEx failed\tError code:(%X).",
                                                   "CoInitializeEx failed\tError code:(80010106)."),
                            kCollectEx.InfoDirect("UUID:(%s)",
                                                  "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                            kCollectEx.Info("Success...")));
  }).join();
}

}  // namespace
