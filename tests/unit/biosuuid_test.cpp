// The reader of the BIOS UUID, against a WMI server in this process.
#include <gmock/gmock.h>

#include "tests/support/collector_test.h"

using ::testing::ElementsAre;

namespace {

class GetBiosUuid : public CollectorTest {
 protected:
  void AddProducts(std::vector<FakeObject> products) {
    server.Add({"products",
                L"ROOT\\CIMV2",
                L"SELECT * FROM Win32_ComputerSystemProduct",
                std::move(products),
                {}});
  }
  static FakeObject Product(const std::string& name, FakeValue uuid) {
    return {name, {{L"UUID", std::move(uuid)}}};
  }
};

TEST_F(GetBiosUuid, StoresTheTextExactlyAsWmiGivesIt) {
  AddProducts({Product("product", Text(L"4c4C4544-0035-3010-8048-b4C04F4B3732"))});
  EXPECT_TRUE(fingerprint.GetBiosUuid());
  EXPECT_STREQ(fingerprint.BiosUuid, "4c4C4544-0035-3010-8048-b4C04F4B3732");
  ExpectRecorded(1, 1);
}

TEST_F(GetBiosUuid, DoesNotCareWhatTheTextLooksLike) {
  AddProducts({Product("product", Text(L"To be filled by O.E.M."))});
  EXPECT_TRUE(fingerprint.GetBiosUuid());
  EXPECT_STREQ(fingerprint.BiosUuid, "To be filled by O.E.M.");
}

TEST_F(GetBiosUuid, FirstObjectWithAValueEndsTheWalk) {
  AddProducts({Product("product 1", Fails(E_ACCESSDENIED)), Product("product 2", Null()),
               Product("product 3", Text(L"third")), Product("product 4", Text(L"fourth"))});
  EXPECT_TRUE(fingerprint.GetBiosUuid());
  EXPECT_STREQ(fingerprint.BiosUuid, "third");
  EXPECT_THAT(
      server.Journal(),
      ElementsAre("create locator", "ConnectServer ROOT\\CIMV2", "SetBlanket", "ExecQuery products",
                  "Next products", "Get UUID of product 1", "release product 1", "Next products",
                  "Get UUID of product 2", "release product 2", "Next products",
                  "Get UUID of product 3", "release product 3", "release products",
                  "release services", "release locator"));
  ExpectRecorded(0, 9);
}

TEST_F(GetBiosUuid, NoObjectIsSuccessAndLeavesTheFieldEmpty) {
  AddProducts({});
  EXPECT_TRUE(fingerprint.GetBiosUuid());
  EXPECT_STREQ(fingerprint.BiosUuid, "");
  ExpectRecorded(1, 8);
}

TEST_F(GetBiosUuid, WalkThatEndsWithAnErrorIsSuccessToo) {
  AddProducts({});
  server.Query("products").end = {kShuttingDown, 0, false};
  StringCchCopyA(fingerprint.BiosUuid, kBiosUuidSize, "as it was");
  EXPECT_TRUE(fingerprint.GetBiosUuid());
  EXPECT_STREQ(fingerprint.BiosUuid, "as it was");
  ExpectRecorded(kShuttingDown, 8);
}

TEST_F(GetBiosUuid, TextThatIsTooLongByOneIsCutAndAFailure) {
  const std::wstring longest(36, L'x');
  AddProducts({Product("product", Text(longest))});
  EXPECT_TRUE(fingerprint.GetBiosUuid());
  EXPECT_EQ(fingerprint.BiosUuid, std::string(36, 'x'));

  server.Query("products").objects = {Product("product", Text(longest + L"y"))};
  EXPECT_FALSE(fingerprint.GetBiosUuid());
  EXPECT_EQ(fingerprint.BiosUuid, std::string(36, 'x'));
  ExpectRecorded(kCut, 0);
}

TEST_F(GetBiosUuid, EachStepBeforeTheWalkMayFail) {
  AddProducts({Product("product", Text(L"uuid"))});
  ExpectEachStepToFail("products", [&] { return fingerprint.GetBiosUuid(); });
  EXPECT_STREQ(fingerprint.BiosUuid, "");
}

TEST_F(GetBiosUuid, MissingMemoryIsThrownWithEverythingReleased) {
  AddProducts({Product("product", Text(L"uuid"))});
  ExpectEachAllocationToThrow(4, [&] { fingerprint.GetBiosUuid(); });
}

}  // namespace
