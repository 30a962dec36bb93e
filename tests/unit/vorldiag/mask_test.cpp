#include "tools/vorldiag/bundle/mask.h"

#include <gmock/gmock.h>

namespace {

class MaskTest : public ::testing::Test {
 protected:
  Mask mask;
};

TEST_F(MaskTest, ReplacesAValueWithAndWithoutSeparatorsInAnyLetters) {
  mask.AddValue("address", "a4:bb:6d:11:22:33");
  EXPECT_EQ(mask.Apply("A4:BB:6D:11:22:33 a4-bb-6d-11-22-33 xA4BB6D112233y"),
            "[address-1] [address-1] x[address-1]y");
}

TEST_F(MaskTest, ReplacesTheLongestFirst) {
  mask.AddValue("serial", "0M512345");
  mask.AddValue("serial", "WD-0M512345");
  EXPECT_EQ(mask.Apply("WD-0M512345 0m512345"), "[serial-2] [serial-1]");
  // Also of two that begin alike, in either order.
  mask.AddValue("serial", "ABCD1");
  mask.AddValue("serial", "ABCD12345");
  mask.AddValue("serial", "ABCD");
  EXPECT_EQ(mask.Apply("ABCD12345 ABCD1 ABCD"), "[serial-4] [serial-3] [serial-5]");
}

TEST_F(MaskTest, ReplacesNamesAsWordsOnly) {
  mask.AddName("computer", "PC");
  EXPECT_EQ(mask.Apply("on pc, not UPC, PC_1 nor pc1; \\\\PC\\x"),
            "on [computer-1], not UPC, PC_1 nor pc1; \\\\[computer-1]\\x");
}

TEST_F(MaskTest, LeavesValuesThatAreTooShortToTellAComputer) {
  for (const char* value : {"", "0", "12", "A-7", "123", "      0      ", "1-2-3"}) {
    mask.AddValue("serial", value);
  }
  EXPECT_EQ(mask.Apply("2026-12-00 07:12:00.123 error 0, step 12 of 123, A-7 1-2-3"),
            "2026-12-00 07:12:00.123 error 0, step 12 of 123, A-7 1-2-3");
  mask.AddValue("serial", "A-12");
  EXPECT_EQ(mask.Apply("A-12 1234"), "A-12 1234");
  mask.AddValue("serial", "1234");
  EXPECT_EQ(mask.Apply("x1234y"), "x[serial-1]y");
}

TEST_F(MaskTest, ReplacesAValueThatWasPadded) {
  mask.AddValue("serial", "     WD-0M51     ");
  EXPECT_EQ(mask.Apply("<WD-0M51> wd0m51 [     WD-0M51     ]"),
            "<[serial-1]> [serial-1] [     [serial-1]     ]");
}

TEST_F(MaskTest, ReplacesNamesBeyondAsciiEachByItsOwn) {
  mask.AddName("user",
               "\xE7\x8E\x8B"
               "1");
  mask.AddName("user",
               "\xE6\x9D\x8E"
               "1");
  mask.AddName("user", "J\xC3\xBCrgen");
  EXPECT_EQ(mask.Apply("\xE7\x8E\x8B"
                       "1 \xE6\x9D\x8E"
                       "1 J\xC3\x9CRGEN"),
            "[user-1] [user-2] [user-3]");
}

TEST_F(MaskTest, KnowsFormsOfItself) {
  EXPECT_EQ(mask.Apply("{01234567-89ab-cdef-0123-456789ABCDEF}"), "{[uuid-1]}");
  EXPECT_EQ(mask.Apply("0123456789abcdef0123456789abcdef, F123456789ABCDEF0123456789ABCDEF"),
            "[uuid-1], [identifier-1]");
  EXPECT_EQ(mask.Apply("S-1-5-21-1-2-3-500 S-1-5-18"), "[user-1] S-1-5-18");
  EXPECT_EQ(mask.Apply("C:\\Users\\A B\\x c:\\users\\jane, C:\\Users\\Public\\x"),
            "C:\\Users\\[user-2]\\x c:\\users\\[user-3], C:\\Users\\Public\\x");
  EXPECT_EQ(mask.Apply("C:\\USERS\\JANE is full"), "C:\\USERS\\[user-3] is full");
}

// Sums of files, versions and times have none of the forms.
TEST_F(MaskTest, LeavesOtherTexts) {
  for (const std::string text :
       {"35d5017d9cd904376befef195f26193e34ab8f425491261762773d2e8a2b5c12", "1.0.0.0",
        "2026-03-09 07:05:02.041 +01:00", "Entry", "", "0123456789abcdef0123456789abcdeg"}) {
    EXPECT_EQ(mask.Apply(text), text);
  }
}

TEST_F(MaskTest, LeavesWhatOnlyLooksLikeAnAccount) {
  EXPECT_EQ(mask.Apply("xS-1-5-21-1-2 C:\\Users\\Default\\x \\Users\\"),
            "xS-1-5-21-1-2 C:\\Users\\Default\\x \\Users\\");
  EXPECT_EQ(mask.Apply("C:\\Users\\jane"), "C:\\Users\\[user-1]");
  EXPECT_EQ(mask.Apply("S-1-12-1-7-8"), "[user-2]");
}

// Two kinds of the same value are one.
TEST_F(MaskTest, ReplacesAValueThatIsAddedTwiceByItsFirstWord) {
  mask.AddValue("serial", "WD-0M51");
  mask.AddValue("uuid", "wd0m51");
  mask.AddName("user", "");
  EXPECT_EQ(mask.Apply("WD0M51 WD-0M51"), "[serial-1] [serial-1]");
}

}  // namespace
