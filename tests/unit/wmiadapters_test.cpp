// The reader of the network addresses by WMI, against a WMI server in this process.
#include <gmock/gmock.h>

#include "tests/support/collector_test.h"
#include "tests/support/no_memory.h"
#include "tests/support/reported_version.h"

// wbemidl.h needs the COM interfaces that the headers above bring.
#include <wbemidl.h>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

class NetworkAdapters : public CollectorTest {
 protected:
  void AddAdapters(std::vector<FakeObject> objects) {
    server.Add({"adapters",
                L"ROOT\\CIMV2",
                L"SELECT * FROM Win32_NetworkAdapter WHERE Manufacturer != 'Microsoft' AND NOT "
                L"PNPDeviceID LIKE 'ROOT\\\\%'",
                std::move(objects),
                {}});
  }
  void AddInterfaces(std::vector<FakeObject> objects) {
    server.Add({"interfaces",
                L"ROOT\\StandardCIMV2",
                L"SELECT * FROM MSFT_NetAdapter WHERE ConnectorPresent = TRUE",
                std::move(objects),
                {}});
  }
  static FakeObject Adapter(const std::string& name, FakeValue address, FakeValue guid) {
    return {name, {{L"MACAddress", std::move(address)}, {L"GUID", std::move(guid)}}};
  }
  static FakeObject Interface(const std::string& name, FakeValue guid, FakeValue address) {
    return {name, {{L"InterfaceGUID", std::move(guid)}, {L"PermanentAddress", std::move(address)}}};
  }

  static std::vector<std::string> Addresses(const std::list<NetAdapterEntry>& list) {
    std::vector<std::string> addresses;
    for (const NetAdapterEntry& entry : list) {
      addresses.emplace_back(entry.MacAddress);
    }
    return addresses;
  }
  static NetAdapterEntry Entry(const char* address, const char* guid) {
    NetAdapterEntry entry{};
    StringCchCopyA(entry.MacAddress, sizeof(entry.MacAddress), address);
    StringCchCopyA(entry.Guid, sizeof(entry.Guid), guid);
    return entry;
  }

  std::list<NetAdapterEntry> list;
};

constexpr wchar_t kGuid1[] = L"{11111111-aaaa-1111-1111-111111111111}";
constexpr wchar_t kGuid2[] = L"{22222222-bbbb-2222-2222-222222222222}";
constexpr char kGuid1Upper[] = "{11111111-AAAA-1111-1111-111111111111}";
constexpr char kGuid2Narrow[] = "{22222222-bbbb-2222-2222-222222222222}";

class GetNetworkAdapterList : public NetworkAdapters {};

TEST_F(GetNetworkAdapterList, KeepsAddressesAndGuidsInTheOrderOfWmi) {
  AddAdapters({Adapter("adapter 1", Text(L"00:1A:2B:3C:4D:5E"), Text(kGuid2)),
               Adapter("adapter 2", Text(L"00:aa:bb:cc:dd:ee"), Text(kGuid1))});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  ASSERT_EQ(list.size(), 2U);
  EXPECT_STREQ(list.front().MacAddress, "00:1A:2B:3C:4D:5E");
  EXPECT_STREQ(list.front().Guid, "{22222222-bbbb-2222-2222-222222222222}");
  EXPECT_STREQ(list.back().MacAddress, "00:aa:bb:cc:dd:ee");
  EXPECT_THAT(
      server.Journal(),
      ElementsAre("create locator", "ConnectServer ROOT\\CIMV2", "SetBlanket", "ExecQuery adapters",
                  "Next adapters", "Get MACAddress of adapter 1", "Get GUID of adapter 1",
                  "release adapter 1", "Next adapters", "Get MACAddress of adapter 2",
                  "Get GUID of adapter 2", "release adapter 2", "release adapters",
                  "release services", "release locator"));
  ExpectRecorded(1, 1);
}

TEST_F(GetNetworkAdapterList, OfThreeAdaptersTheFirstTwoAreKept) {
  AddAdapters({Adapter("adapter 1", Text(L"1"), Text(kGuid1)),
               Adapter("adapter 2", Text(L"2"), Text(kGuid2)),
               Adapter("adapter 3", Text(L"3"), Text(kGuid2))});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  EXPECT_THAT(Addresses(list), ElementsAre("1", "2"));
}

TEST_F(GetNetworkAdapterList, AdapterWithoutAnAddressIsSkippedWithStage9) {
  AddAdapters({Adapter("adapter 1", Fails(E_ACCESSDENIED), Text(kGuid1)),
               Adapter("adapter 2", Null(), Text(kGuid1)),
               Adapter("adapter 3", Text(L"3"), Text(kGuid2))});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  EXPECT_THAT(Addresses(list), ElementsAre("3"));
  EXPECT_THAT(server.Journal(), Not(Contains("Get GUID of adapter 1")));
  ExpectRecorded(0, 9);
}

TEST_F(GetNetworkAdapterList, AddressThatIsTooLongByOneIsSkippedWithStage0) {
  AddAdapters({Adapter("adapter 1", Text(std::wstring(18, L'1')), Text(kGuid1)),
               Adapter("adapter 2", Text(std::wstring(17, L'2')), Text(kGuid2))});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  EXPECT_THAT(Addresses(list), ElementsAre(std::string(17, '2')));
  EXPECT_THAT(server.Journal(), Not(Contains("Get GUID of adapter 1")));
  ExpectRecorded(kCut, 0);
}

TEST_F(GetNetworkAdapterList, GuidThatCannotBeReadStaysEmptyWithStage9) {
  // The walk stops at the second adapter, so that nothing is recorded behind its failure.
  AddAdapters({Adapter("adapter 1", Text(L"1"), Text(kGuid1)),
               Adapter("adapter 2", Text(L"2"), Fails(E_ACCESSDENIED))});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  EXPECT_THAT(Addresses(list), ElementsAre("1", "2"));
  EXPECT_STREQ(list.back().Guid, "");
  ExpectRecorded(E_ACCESSDENIED, 9);
}

TEST_F(GetNetworkAdapterList, EndOfTheWalkIsRecordedBehindAFailure) {
  AddAdapters({Adapter("adapter 1", Text(L"1"), Fails(E_ACCESSDENIED))});
  server.Query("adapters").end = {kShuttingDown, 0, false};
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  EXPECT_THAT(Addresses(list), ElementsAre("1"));
  ExpectRecorded(kShuttingDown, 8);
}

TEST_F(GetNetworkAdapterList, MissingGuidStaysEmptyWithStage9) {
  AddAdapters({Adapter("adapter 1", Text(L"1"), Null())});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  ASSERT_EQ(list.size(), 1U);
  EXPECT_STREQ(list.front().Guid, "");
  ExpectRecorded(0, 9);
}

TEST_F(GetNetworkAdapterList, GuidThatIsTooLongByOneStaysEmptyWithStage0) {
  AddAdapters({Adapter("adapter 1", Text(L"1"), Text(std::wstring(39, L'x'))),
               Adapter("adapter 2", Text(L"2"), Text(std::wstring(38, L'y')))});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  EXPECT_THAT(Addresses(list), ElementsAre("1", "2"));
  EXPECT_STREQ(list.front().Guid, "");
  EXPECT_EQ(list.back().Guid, std::string(38, 'y'));
  ExpectRecorded(kCut, 0);
}

TEST_F(GetNetworkAdapterList, NoQualifyingAdapterIsSuccess) {
  AddAdapters({});
  EXPECT_TRUE(fingerprint.GetNetworkAdapterList(list));
  EXPECT_THAT(list, IsEmpty());
  ExpectRecorded(1, 8);
}

TEST_F(GetNetworkAdapterList, EachStepBeforeTheWalkMayFail) {
  AddAdapters({Adapter("adapter 1", Text(L"1"), Text(kGuid1))});
  ExpectEachStepToFail("adapters", [&] { return fingerprint.GetNetworkAdapterList(list); });
  EXPECT_THAT(list, IsEmpty());
}

TEST_F(GetNetworkAdapterList, MissingMemoryIsThrownWithEverythingReleased) {
  AddAdapters({Adapter("adapter 1", Text(L"1"), Text(kGuid1))});
  ExpectEachAllocationToThrow(5, [&] { fingerprint.GetNetworkAdapterList(list); });
}

class ApplyPermanentAddresses : public NetworkAdapters {};

TEST_F(ApplyPermanentAddresses, ReplacesTheAddressesOfMatchingAdaptersWhateverTheLetterCase) {
  list = {Entry("old 1", kGuid1Upper), Entry("old 2", kGuid2Narrow)};
  AddInterfaces({Interface("interface 2", Text(kGuid2), Text(L"001A2B3C4D5E")),
                 Interface("interface 1", Text(kGuid1), Text(L"00AABBCCDDEE"))});
  EXPECT_TRUE(fingerprint.ApplyPermanentAddresses(list));
  EXPECT_THAT(Addresses(list), ElementsAre("00AABBCCDDEE", "001A2B3C4D5E"));
  EXPECT_THAT(
      server.Journal(),
      ElementsAre("create locator", "ConnectServer ROOT\\StandardCIMV2", "SetBlanket",
                  "ExecQuery interfaces", "Next interfaces", "Get InterfaceGUID of interface 2",
                  "Get PermanentAddress of interface 2", "release interface 2", "Next interfaces",
                  "Get InterfaceGUID of interface 1", "Get PermanentAddress of interface 1",
                  "release interface 1", "Next interfaces", "release interfaces",
                  "release services", "release locator"));
  ExpectRecorded(1, 8);
}

TEST_F(ApplyPermanentAddresses, TwoEntriesWithTheSameGuidBothTakeThePermanentAddress) {
  list = {Entry("old 1", kGuid1Upper), Entry("old 2", kGuid1Upper)};
  AddInterfaces({Interface("interface", Text(kGuid1), Text(L"00AABBCCDDEE"))});
  EXPECT_TRUE(fingerprint.ApplyPermanentAddresses(list));
  EXPECT_THAT(Addresses(list), ElementsAre("00AABBCCDDEE", "00AABBCCDDEE"));
}

TEST_F(ApplyPermanentAddresses, EntryWithoutAMatchKeepsItsAddress) {
  list = {Entry("old 1", ""), Entry("old 2", kGuid2Narrow)};
  AddInterfaces({Interface("interface", Text(kGuid1), Text(L"00AABBCCDDEE"))});
  EXPECT_TRUE(fingerprint.ApplyPermanentAddresses(list));
  EXPECT_THAT(Addresses(list), ElementsAre("old 1", "old 2"));
  EXPECT_THAT(server.Journal(), Not(Contains("Get PermanentAddress of interface")));
}

TEST_F(ApplyPermanentAddresses, InterfaceWithoutAGuidIsSkippedWithStage9) {
  list = {Entry("old", kGuid1Upper)};
  AddInterfaces({Interface("interface 1", Fails(E_ACCESSDENIED), Text(L"001A2B3C4D5E")),
                 Interface("interface 2", Null(), Text(L"001A2B3C4D5E")),
                 Interface("interface 3", Text(kGuid1), Text(L"00AABBCCDDEE"))});
  EXPECT_TRUE(fingerprint.ApplyPermanentAddresses(list));
  EXPECT_THAT(Addresses(list), ElementsAre("00AABBCCDDEE"));
  EXPECT_THAT(server.Journal(), Not(Contains("Get PermanentAddress of interface 1")));
  // The second one's: its code 0 keeps the end of the walk from being recorded.
  ExpectRecorded(0, 9);
}

TEST_F(ApplyPermanentAddresses, AddressThatCannotBeReadIsStage9AndEndsTheComparisonForItsAdapter) {
  list = {Entry("old 1", kGuid1Upper), Entry("old 2", kGuid1Upper), Entry("old 3", kGuid2Narrow)};
  AddInterfaces({Interface("interface 1", Text(kGuid1), Null()),
                 Interface("interface 2", Text(kGuid2), Text(L"001A2B3C4D5E"))});
  EXPECT_TRUE(fingerprint.ApplyPermanentAddresses(list));
  EXPECT_THAT(Addresses(list), ElementsAre("old 1", "old 2", "001A2B3C4D5E"));
  int reads = 0;
  for (const std::string& line : server.Journal()) {
    reads += line == "Get PermanentAddress of interface 1" ? 1 : 0;
  }
  EXPECT_EQ(reads, 1);
  ExpectRecorded(0, 9);
}

TEST_F(ApplyPermanentAddresses, AddressThatIsTooLongByOneIsStage0AndAFailure) {
  list = {Entry("old", kGuid1Upper)};
  AddInterfaces({Interface("interface 1", Text(kGuid1), Text(std::wstring(17, L'1'))),
                 Interface("interface 2", Text(kGuid1), Text(std::wstring(18, L'2'))),
                 Interface("interface 3", Text(kGuid1), Text(L"3"))});
  EXPECT_FALSE(fingerprint.ApplyPermanentAddresses(list));
  EXPECT_THAT(server.Journal(), Not(Contains("Get InterfaceGUID of interface 3")));
  ExpectRecorded(kCut, 0);
}

TEST_F(ApplyPermanentAddresses, EachStepBeforeTheWalkMayFail) {
  list = {Entry("old", kGuid1Upper)};
  AddInterfaces({Interface("interface", Text(kGuid1), Text(L"00AABBCCDDEE"))});
  ExpectEachStepToFail("interfaces", [&] { return fingerprint.ApplyPermanentAddresses(list); });
  EXPECT_THAT(Addresses(list), ElementsAre("old"));
}

TEST_F(ApplyPermanentAddresses, MissingMemoryIsThrownWithEverythingReleased) {
  list = {Entry("old", kGuid1Upper)};
  AddInterfaces({Interface("interface", Text(kGuid1), Text(L"00AABBCCDDEE"))});
  ExpectEachAllocationToThrow(5, [&] { fingerprint.ApplyPermanentAddresses(list); });
}

class GetOnboardNICMacAddress : public NetworkAdapters {
 protected:
  void AddTwoAdapters() {
    AddAdapters({Adapter("adapter 1", Text(L"00:1A:2B:3C:4D:5E"), Fails(E_ACCESSDENIED)),
                 Adapter("adapter 2", Text(L"00:AA:BB:CC:DD:EE"), Text(kGuid2))});
  }
};

TEST_F(GetOnboardNICMacAddress, BeforeVersion62CurrentAddressesAreTaken) {
  const ReportedVersion version(6, 1);
  AddTwoAdapters();
  EXPECT_TRUE(fingerprint.GetOnboardNICMacAddress());
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00:1A:2B:3C:4D:5E", "00:AA:BB:CC:DD:EE"));
  EXPECT_THAT(server.Journal(), Not(Contains("ConnectServer ROOT\\StandardCIMV2")));
}

TEST_F(GetOnboardNICMacAddress, FromVersion62AnAdapterWithoutAGuidKeepsItsColonSeparatedAddress) {
  for (const auto& [major, minor] : {std::pair(6U, 2U), std::pair(6U, 3U), std::pair(10U, 0U)}) {
    const ReportedVersion version(major, minor);
    CZTUUID fresh;
    if (major == 6 && minor == 2) {
      AddTwoAdapters();
      AddInterfaces({Interface("interface", Text(kGuid2), Text(L"112233445566"))});
    }
    EXPECT_TRUE(fresh.GetOnboardNICMacAddress());
    EXPECT_THAT(fresh.MacAddressList, ElementsAre("00:1A:2B:3C:4D:5E", "112233445566"));
  }
}

TEST_F(GetOnboardNICMacAddress, FailingQueryForPermanentAddressesFailsWithNothingAppended) {
  const ReportedVersion version(6, 2);
  AddTwoAdapters();
  server.connectResults[L"ROOT\\StandardCIMV2"] = static_cast<HRESULT>(WBEM_E_INVALID_NAMESPACE);
  EXPECT_FALSE(fingerprint.GetOnboardNICMacAddress());
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
}

TEST_F(GetOnboardNICMacAddress, VersionTestThatCannotBeMadeIsAFailure) {
  const ReportedVersion version = ReportedVersion::Unavailable();
  AddTwoAdapters();
  EXPECT_FALSE(fingerprint.GetOnboardNICMacAddress());
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
}

TEST_F(GetOnboardNICMacAddress, FailingListIsAFailure) {
  const ReportedVersion version(6, 1);
  server.connectResult = E_ACCESSDENIED;
  EXPECT_FALSE(fingerprint.GetOnboardNICMacAddress());
  ExpectRecorded(E_ACCESSDENIED, 5);
}

TEST_F(GetOnboardNICMacAddress, MachineWithoutAQualifyingAdapterGivesAnEmptyListAndSuccess) {
  const ReportedVersion version(10, 0);
  AddAdapters({});
  AddInterfaces({Interface("interface", Text(kGuid2), Text(L"112233445566"))});
  EXPECT_TRUE(fingerprint.GetOnboardNICMacAddress());
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
}

TEST_F(GetOnboardNICMacAddress, AppendsBehindWhatTheListHolds) {
  const ReportedVersion version(6, 1);
  fingerprint.MacAddressList = {"first"};
  AddTwoAdapters();
  EXPECT_TRUE(fingerprint.GetOnboardNICMacAddress());
  EXPECT_THAT(fingerprint.MacAddressList,
              ElementsAre("first", "00:1A:2B:3C:4D:5E", "00:AA:BB:CC:DD:EE"));
}

TEST_F(GetOnboardNICMacAddress, ExceptionWhileAppendingIsStage3) {
  const ReportedVersion version(6, 1);
  AddAdapters({Adapter("adapter", Text(L"1"), Text(kGuid1))});
  server.Query("adapters").end = {kShuttingDown, 0, false};
  const NoMemoryFor noMemory(kListNodeSize);
  EXPECT_FALSE(fingerprint.GetOnboardNICMacAddress());
  ExpectRecorded(0, 3);
}

}  // namespace
