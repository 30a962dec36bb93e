#include "companions/vlevtlog/message_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <random>
#include <string>

#include "companions/vlevtlog/line_text.h"
#include "support/windows_api.h"

namespace {

template <typename Char>
std::string Formatted(const Char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LineText line;
  AppendFormatted(line, format, arguments);
  va_end(arguments);
  return std::string(line.View());
}

// What the C runtime makes of the same.
std::string Reference(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = _vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return std::string(text, static_cast<std::size_t>(length));
}

const char* NarrowAt(std::uintptr_t address) { return reinterpret_cast<const char*>(address); }
const wchar_t* WideAt(std::uintptr_t address) { return reinterpret_cast<const wchar_t*>(address); }

TEST(AppendFormatted, TakesTheConversionsOfTheProduct) {
  EXPECT_EQ(Formatted("%s", "Entry"), "Entry");
  EXPECT_EQ(Formatted("[%S]", L"wide"), "[wide]");
  EXPECT_EQ(Formatted("failed %u", 4294967295U), "failed 4294967295");
  EXPECT_EQ(Formatted("error (%lu)", 126UL), "error (126)");
  EXPECT_EQ(Formatted("%d and %d", -1, 2147483647), "-1 and 2147483647");
  EXPECT_EQ(Formatted("HRESULT %X", 0x80041003U), "HRESULT 80041003");
  EXPECT_EQ(Formatted("100%% of %s", "it"), "100% of it");
  EXPECT_EQ(Formatted(L"wszFilePath: %s", L"C:\\Agent\\vorlcore.dll"),
            "wszFilePath: C:\\Agent\\vorlcore.dll");
  EXPECT_EQ(Formatted(""), "");
  EXPECT_EQ(Formatted("no conversion"), "no conversion");
}

TEST(AppendFormatted, KeepsNarrowAndWideTextApart) {
  EXPECT_EQ(Formatted("%s %hs %S %ls %ws", "a", "b", L"c", L"d", L"e"), "a b c d e");
  EXPECT_EQ(Formatted(L"%s %ls %ws %S %hs", L"a", L"b", L"c", "d", "e"), "a b c d e");
  EXPECT_EQ(Formatted("%c%C%lc%hc", 'a', L'\x20AC', L'\xE4', 'z'), "a\xE2\x82\xAC\xC3\xA4z");
  EXPECT_EQ(Formatted(L"%c%C%hc", L'\x20AC', 'b', 'c'),
            "\xE2\x82\xAC"
            "bc");
}

TEST(AppendFormatted, WritesWideTextAsUtf8WhateverTheLocale) {
  EXPECT_EQ(Formatted("%S", L"\x042F \x4E2D \xD83D\xDE00"),
            "\xD0\xAF \xE4\xB8\xAD \xF0\x9F\x98\x80");
  EXPECT_EQ(Formatted(L"%s", L"half \xD83D pair"), "half \xEF\xBF\xBD pair");
  EXPECT_EQ(Formatted(L"\x00E4%s", L""), "\xC3\xA4");
}

TEST(AppendFormatted, TakesSizes) {
  EXPECT_EQ(Formatted("%hhd %hu %ld %lld %I64u %I32u %zu", 300, 65537U, -5L, -6000000000LL,
                      18446744073709551615ULL, 7U, std::size_t{8}),
            "44 1 -5 -6000000000 18446744073709551615 7 8");
  EXPECT_EQ(Formatted("%lld", -9223372036854775807LL - 1), "-9223372036854775808");
  EXPECT_EQ(Formatted("%hhu %hu", 300U, 65537U), "44 1");
  EXPECT_EQ(Formatted("%p", NarrowAt(0x1234ABCD)), "000000001234ABCD");
}

TEST(AppendFormatted, MarksTheBaseOfAllButNothing) {
  EXPECT_EQ(Formatted("%#o %#x %#X", 8U, 255U, 255U), "010 0xff 0XFF");
  EXPECT_EQ(Formatted("%#o %#x %#X", 0U, 0U, 0U), "0 0 0");
}

TEST(AppendFormatted, TakesWidthAndPrecision) {
  EXPECT_EQ(Formatted("[%5s][%-5s][%.2s][%*s][%.*s]", "abc", "abc", "abc", -4, "x", 1, "yz"),
            "[  abc][abc  ][ab][x   ][y]");
  EXPECT_EQ(Formatted("[%8.3f][%-9.1e][%G][%a]", -3.14159, 12345.678, 0.5, 1.0),
            "[  -3.142][1.2e+04  ][0.5][0x1p+0]");
  EXPECT_EQ(Formatted("%.1000f", 1.0).substr(0, 4), "1.00");
}

TEST(AppendFormatted, WritesFloatingPointNumbersAsTheStandardSays) {
  EXPECT_EQ(Formatted("[%f][%e][%g][%a]", 0.5, 1234.5, 1e-10, 0.5),
            "[0.500000][1.234500e+03][1e-10][0x1p-1]");
  EXPECT_EQ(Formatted("[%F][%E][%G][%A]", 0.5, 1234.5, 1e-10, 0.5),
            "[0.500000][1.234500E+03][1E-10][0X1P-1]");
  EXPECT_EQ(Formatted("[%f][%e][%g][%a]", HUGE_VAL, -HUGE_VAL, HUGE_VAL, HUGE_VAL),
            "[inf][-inf][inf][inf]");
  EXPECT_EQ(Formatted("[%F][%E][%G][%A]", HUGE_VAL, -HUGE_VAL, HUGE_VAL, HUGE_VAL),
            "[INF][-INF][INF][INF]");
  EXPECT_EQ(Formatted("[%+010.2f][%-10.2f][% 010.2f][%010f]", 1.5, 1.5, 1.5, HUGE_VAL),
            "[+000001.50][1.50      ][ 000001.50][       inf]");
  EXPECT_EQ(Formatted("[%012a][%+.3A][%.0f][%.3g]", 1.0, 1.0, 2.5, 12345.0),
            "[0x0000001p+0][+0X1.000P+0][2][1.23e+04]");
}

// The decimal point and the zeros after it stay.
TEST(AppendFormatted, ObeysTheAlternateFormOfFloatingPointNumbers) {
  EXPECT_EQ(Formatted("[%#.0f][%#.0F][%#.0e][%#.0E]", 3.0, 3.0, 3.0, 3.0),
            "[3.][3.][3.e+00][3.E+00]");
  EXPECT_EQ(Formatted("[%#g][%#G][%#.3g][%#.1G]", 0.5, 0.5, 100.0, 1e9),
            "[0.500000][0.500000][100.][1.E+09]");
  EXPECT_EQ(Formatted("[%#a][%#A][%#.0a]", 1.0, 2.0, 1.0), "[0x1.p+0][0X1.P+1][0x1.p+0]");
  EXPECT_EQ(Formatted(L"[%#08.0f][%-#6.0f]", 3.0, 3.0), "[0000003.][3.    ]");
  EXPECT_EQ(Formatted("[%#.99f]", 1e308).size(), 376U);
}

TEST(AppendFormatted, AgreesWithTheRuntimeOnWholeNumbers) {
  std::mt19937 random(1);
  const std::string flags = "-+ #0";
  const std::string types = "diuxXo";
  for (int round = 0; round < 20000; ++round) {
    std::string format = "%";
    for (const char flag : flags) {
      if (random() % 4 == 0) {
        format += flag;
      }
    }
    if (random() % 2 == 0) {
      format += std::to_string(1 + random() % 30);
    }
    if (random() % 3 == 0) {
      format += "." + std::to_string(random() % 25);
    }
    const char type = types[random() % types.size()];
    const unsigned value = random() % 5 == 0 ? random() % 3 : random();
    // An octal prefix counts as one of the digits that a precision asks for, and not every runtime
    // lets a precision switch the zeros of a width off.
    const bool isAlternateOctal = type == 'o' && format.find('#') != std::string::npos;
    const bool hasZerosAndPrecision =
        format.find('0') < format.find_first_of("123456789.") && format.find('.') < format.size();
    if (isAlternateOctal || hasZerosAndPrecision) {
      continue;
    }
    format += type;
    ASSERT_EQ(Formatted(format.c_str(), value), Reference(format.c_str(), value))
        << format << " of " << value;
  }
}

TEST(AppendFormatted, SurvivesWrongArguments) {
  EXPECT_EQ(Formatted("[%s] %u", NarrowAt(0), 5U), "[(null)] 5");
  EXPECT_EQ(Formatted("[%S] %u", WideAt(0), 5U), "[(null)] 5");
  EXPECT_EQ(Formatted("[%s] %u", NarrowAt(0x1234), 5U), "[(unreadable)] 5");
  EXPECT_EQ(Formatted("[%S] %u", WideAt(0xFFFFFFFFFFFFFFF0), 5U), "[(unreadable)] 5");
  EXPECT_EQ(Formatted(L"[%s]", WideAt(0xDEAD000000000000)), "[(unreadable)]");
  EXPECT_EQ(Formatted(NarrowAt(0)), "(null)");
  EXPECT_EQ(Formatted(NarrowAt(0x1234)), "(unreadable)");
  EXPECT_EQ(Formatted(WideAt(0x1234)), "(unreadable)");
}

TEST(AppendFormatted, ReadsNoFurtherThanThePrecisionOrTheLastReadablePage) {
  auto* const pages =
      static_cast<char*>(VirtualAlloc(nullptr, 2 * 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  ASSERT_NE(pages, nullptr);
  DWORD old = 0;
  ASSERT_TRUE(VirtualProtect(pages + 4096, 4096, PAGE_NOACCESS, &old));
  char* const unterminated = pages + 4096 - 4;
  memcpy(unterminated, "abcd", 4);
  EXPECT_EQ(Formatted("%.4s", unterminated), "abcd");
  EXPECT_EQ(Formatted("%s", unterminated), "(unreadable)");
  VirtualFree(pages, 0, MEM_RELEASE);
}

TEST(AppendFormatted, WritesNothingToAnArgument) {
  int target = 77;
  EXPECT_EQ(Formatted("ab%ncd %u", &target, 5U), "abcd 5");
  EXPECT_EQ(target, 77);
}

TEST(AppendFormatted, LeavesTheRestBehindAnUnknownConversion) {
  EXPECT_EQ(Formatted("%u %y %s", 1U, "x"), "1 %y %s");
  EXPECT_EQ(Formatted("at the end %"), "at the end %");
  EXPECT_EQ(Formatted("at the end %-08."), "at the end %-08.");
  EXPECT_EQ(Formatted(L"%\x0142"), "%\xC5\x82");
}

TEST(AppendFormatted, CutsGiantWidths) {
  LineText line;
  line.BeginMessage();
  const auto append = [&](const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    AppendFormatted(line, format, arguments);
    va_end(arguments);
  };
  append("%99999999999999999999d", 1);
  line.EndMessage();
  EXPECT_EQ(line.View().size(), 262144U + 6U);
  EXPECT_TRUE(line.View().ends_with("  [cut]"));
}

}  // namespace
