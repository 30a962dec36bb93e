#include "tools/vorldiag/identity/placeholders.h"

#include <gmock/gmock.h>

using ::testing::IsEmpty;
using ::testing::Not;

namespace {

TEST(Placeholders, UuidsOfTheSameDigitThroughout) {
  EXPECT_EQ(PlaceholderUuid("00000000-0000-0000-0000-000000000000"),
            "it is the same digit throughout");
  EXPECT_THAT(PlaceholderUuid("ffffffff-ffff-ffff-FFFF-ffffffffffff"), Not(IsEmpty()));
}

TEST(Placeholders, UuidsThatFirmwareMakersLeaveIn) {
  EXPECT_EQ(PlaceholderUuid("03000200-0400-0500-0006-000700080009"),
            "it is a placeholder that many computers have");
  EXPECT_THAT(PlaceholderUuid("03020100-0504-0706-0809-0a0b0c0d0e0f"), Not(IsEmpty()));
}

TEST(Placeholders, SerialsAndAddresses) {
  EXPECT_THAT(PlaceholderSerial("To be filled by O.E.M."), Not(IsEmpty()));
  EXPECT_THAT(PlaceholderSerial("0000000000"), Not(IsEmpty()));
  EXPECT_THAT(PlaceholderAddress("FF:FF:FF:FF:FF:FF"), Not(IsEmpty()));
  EXPECT_THAT(PlaceholderAddress("00:05:9a:3c:7a:00"), Not(IsEmpty()));
}

TEST(Placeholders, OrdinaryValuesAndNone) {
  EXPECT_EQ(PlaceholderUuid("4C4C4544-0042-3510-8052-B9C04F384E32"), "");
  EXPECT_EQ(PlaceholderSerial("WD-ABC123"), "");
  EXPECT_EQ(PlaceholderAddress("A4:BB:6D:11:22:33"), "");
  EXPECT_EQ(PlaceholderUuid(""), "");
  EXPECT_EQ(PlaceholderAddress("--"), "");
}

}  // namespace
