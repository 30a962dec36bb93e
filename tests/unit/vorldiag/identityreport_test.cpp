#include "tools/vorldiag/identity/identityreport.h"

#include <gmock/gmock.h>

#include "tests/unit/vorldiag/finding_of.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr char kIdentifier[] = "F6DDB1CAA36D124F6BF28F7F9EFB4B22";
constexpr char kOther[] = "0123456789abcdef0123456789ABCDEF";

class IdentityReportTest : public ::testing::Test {
 protected:
  IdentityReportTest() {
    hardware.identifier = kIdentifier;
    hardware.biosUuid = {"4C4C4544-0042-3510-8052-B9C04F384E32", "UUID's place", "", false};
    hardware.diskSerial = {"WD-0M512345", "serial's place", "", false};
    hardware.addresses = {{"A4:BB:6D:11:22:33", "address's place", "", false}};
  }

  // An empty one when there is none.
  Finding Look(const std::string& id) const {
    Finding found;
    for (const Section& section : IdentityReport(hardware, stored, collections).sections) {
      const Finding finding = FindingOf(section, id);
      found = finding.id.empty() ? found : finding;
    }
    return found;
  }

  Hardware hardware;
  IdentifierOnDisk stored{kIdentifier, ""};
  std::vector<Collection> collections;
};

TEST_F(IdentityReportTest, OfAHealthyComputerIsRight) {
  EXPECT_EQ(IdentityReport(hardware, stored, {}).Worst(), Verdict::kOk);
  EXPECT_EQ(Look("bios-uuid").value, "4C4C4544-0042-3510-8052-B9C04F384E32  (UUID's place)");
  EXPECT_EQ(Look("stored").value, std::string(kIdentifier) + ", equal to the hardware's");
  EXPECT_EQ(Look("identifier").value, kIdentifier);
  EXPECT_EQ(Look("part-1").value, "(empty)");
  hardware.processedBiosId = "4C4C";
  EXPECT_EQ(Look("part-1").value, "4C4C");
}

TEST_F(IdentityReportTest, SaysWhichValuesManyComputersHave) {
  hardware.diskSerial.value = "To be filled by O.E.M.";
  const Finding finding = Look("disk-serial");
  EXPECT_EQ(finding.verdict, Verdict::kWarning);
  EXPECT_EQ(finding.value,
            "To be filled by O.E.M.  (serial's place): it is a placeholder that many "
            "computers have");
  EXPECT_THAT(finding.advice, StartsWith("Other computers may make the same identifier"));
}

TEST_F(IdentityReportTest, TellsWhatIsNotThereFromWhatNobodyKnows) {
  hardware.diskSerial.value = "";
  EXPECT_EQ(Look("disk-serial").verdict, Verdict::kOk);
  EXPECT_EQ(Look("disk-serial").value, "(none) serial's place");
  hardware.diskSerial.error = "80041010 (query)";
  hardware.diskSerial.hasFailed = true;
  EXPECT_EQ(Look("disk-serial").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("disk-serial").value, "(none) serial's place, WMI: 80041010 (query)");

  hardware.addresses.clear();
  EXPECT_EQ(Look("network-address-1").verdict, Verdict::kOk);
  EXPECT_EQ(Look("network-address-1").value, "(none) Win32_NetworkAdapter.MACAddress");
  hardware.haveAddressesFailed = true;
  hardware.addressError = "8004100E";
  EXPECT_EQ(Look("network-address-1").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("identifier").value,
            std::string(kIdentifier) + " without disk serial, network addresses");
}

TEST_F(IdentityReportTest, OfHardwareThatCannotBeAskedSaysSo) {
  hardware.problem = "COM cannot be used";
  EXPECT_EQ(Look("identifier").verdict, Verdict::kError);
  EXPECT_EQ(Look("identifier").value, "(unknown) COM cannot be used");
  EXPECT_EQ(Look("bios-uuid").id, "");
}

TEST_F(IdentityReportTest, OfHardwareWithoutAnyPartSaysSo) {
  hardware.identifier = "";
  EXPECT_EQ(Look("identifier").verdict, Verdict::kError);
  EXPECT_EQ(Look("identifier").value, "(none)");
  // The stored one stays.
  EXPECT_EQ(Look("stored").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("stored").value, std::string(kIdentifier) + ", not compared");
}

TEST_F(IdentityReportTest, ComparesWhatIsStored) {
  stored.value = kOther;
  EXPECT_EQ(Look("stored").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("stored").value,
            std::string(kOther) + " differs from the hardware's " + kIdentifier);
  stored.value = "";
  EXPECT_EQ(Look("stored").value, "(none)");
  for (const char* const none :
       {"F6DDB1CAA36D124F6BF28F7F9EFB4B2", "F6DDB1CAA36D124F6BF28F7F9EFB4B2G",
        "F6DDB1CAA36D124F6BF28F7F9EFB4B222"}) {
    stored.value = none;
    EXPECT_THAT(Look("stored").value, HasSubstr(" is no identifier")) << none;
  }
  stored.problem = "the file is in use";
  EXPECT_EQ(Look("stored").verdict, Verdict::kError);
  EXPECT_EQ(Look("stored").value, "(unknown) the file is in use");
}

// While a part is unknown only an equal one says something.
TEST_F(IdentityReportTest, ComparesNothingWhileAPartIsUnknown) {
  hardware.biosUuid.hasFailed = true;
  EXPECT_EQ(Look("stored").verdict, Verdict::kOk);
  stored.value = kOther;
  EXPECT_EQ(Look("stored").value,
            std::string(kOther) + ", not compared: WMI could not answer for BIOS UUID");
}

TEST_F(IdentityReportTest, ShowsBothCollectionsOfTheProgram) {
  collections = {{"GetZTUUID", kIdentifier, {"a line"}}, {"GetZTUUIDEx", "", {"first", "second"}}};
  EXPECT_EQ(Look("collection-1").verdict, Verdict::kOk);
  EXPECT_EQ(Look("collection-1").value, kIdentifier);
  EXPECT_EQ(Look("collection-2").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("collection-2").title, "GetZTUUIDEx");
  EXPECT_EQ(Look("collection-2").value, "(failed): first | second");
  collections[1] = {"GetZTUUIDEx", kOther, {}};
  EXPECT_EQ(Look("collection-2").value, std::string(kOther) + ": ");
}

}  // namespace
