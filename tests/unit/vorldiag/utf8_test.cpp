#include "tools/vorldiag/text/utf8.h"

#include <gmock/gmock.h>

#include "support/windows_api.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

TEST(Utf8, IsGivenBothWays) {
  EXPECT_EQ(Utf8(L"J\u00FCrgen \u5BA2"), "J\xC3\xBCrgen \xE5\xAE\xA2");
  EXPECT_EQ(Wide("J\xC3\xBCrgen \xE5\xAE\xA2"), L"J\u00FCrgen \u5BA2");
  EXPECT_EQ(Utf8(L""), "");
  EXPECT_EQ(Wide(""), L"");
  EXPECT_EQ(Utf8FromAnsi("abc"), "abc");
  EXPECT_EQ(ValidUtf8("a\xFFz"), "a\xEF\xBF\xBDz");
}

TEST(ErrorText, IsTheNumberWithWindowsOwnWords) {
  EXPECT_THAT(ErrorText(ERROR_ACCESS_DENIED),
              AllOf(StartsWith("error 5 ("), EndsWith(")"), Not(HasSubstr("\n"))));
  // One that nobody knows.
  EXPECT_EQ(ErrorText(0xE0000001), "error 3758096385");
}

TEST(EqualsIgnoringCase, IsWhatWindowsTakesForTheSameName) {
  EXPECT_TRUE(EqualsIgnoringCase(L"\u00FCBER", L"\u00DCber"));
  EXPECT_FALSE(EqualsIgnoringCase(L"a", L"ab"));
  EXPECT_FALSE(EqualsIgnoringCase(L"a", L"b"));
}

}  // namespace
