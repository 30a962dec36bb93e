#include "support/handle.h"

#include <gmock/gmock.h>

#include <utility>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::vector<int> g_closed;

struct NumberTraits {
  using Type = int;
  static Type Invalid() noexcept { return -1; }
  static void Close(Type number) noexcept {
    g_closed.push_back(number);
    SetLastError(ERROR_INVALID_HANDLE);
  }
};
using Number = UniqueHandle<NumberTraits>;

class Handles : public ::testing::Test {
 protected:
  Handles() { g_closed.clear(); }
};

TEST_F(Handles, AreClosedOnceAndLeaveTheLastErrorAsItWas) {
  SetLastError(ERROR_MORE_DATA);
  {
    const Number none;
    const Number zero(0);
    EXPECT_FALSE(none);
    EXPECT_TRUE(zero);
    EXPECT_EQ(zero.Get(), 0);
  }
  EXPECT_THAT(g_closed, ElementsAre(0));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_MORE_DATA});
}

TEST_F(Handles, AreClosedBeforeAnotherOneComes) {
  Number number(1);
  number.Reset(2);
  EXPECT_THAT(g_closed, ElementsAre(1));
  *number.Receive() = 3;
  EXPECT_THAT(g_closed, ElementsAre(1, 2));
  number.Reset();
  EXPECT_THAT(g_closed, ElementsAre(1, 2, 3));
  EXPECT_FALSE(number);
}

TEST_F(Handles, HaveOneOwner) {
  Number first(1);
  Number second(std::move(first));
  EXPECT_EQ(first.Get(), -1);
  Number third(3);
  third = std::move(second);
  EXPECT_THAT(g_closed, ElementsAre(3));
  EXPECT_EQ(second.Get(), -1);
  EXPECT_EQ(third.Release(), 1);
  EXPECT_FALSE(third);
  EXPECT_THAT(g_closed, ElementsAre(3));
}

TEST_F(Handles, StayWhenTheyAreGivenToThemselves) {
  Number number(1);
  Number& same = number;
  number = std::move(same);
  EXPECT_EQ(number.Get(), 1);
  EXPECT_THAT(g_closed, IsEmpty());
}

}  // namespace
