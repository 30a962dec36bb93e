#include "support/textconv.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>

#include "tests/support/import_patch.h"

namespace {

TEST(NarrowToWide, ConvertsFromTheAnsiCodePage) {
  wchar_t wide[8] = {};
  EXPECT_TRUE(NarrowToWide("Agent 1", wide, 8));
  EXPECT_STREQ(wide, L"Agent 1");
}

TEST(NarrowToWide, PassesTheCodePageTheFlagAndTheLimit) {
  std::optional<CallPatch<struct ToWide, int(UINT, DWORD, const char*, int, wchar_t*, int)>> patch;
  UINT codePage = 1;
  DWORD flags = 0;
  int length = 0;
  int capacity = 0;
  patch.emplace("KERNEL32.dll", "MultiByteToWideChar",
                [&](UINT page, DWORD flag, const char* text, int count, wchar_t* wide, int room) {
                  codePage = page;
                  flags = flag;
                  length = count;
                  capacity = room;
                  return patch->CallOriginal(page, flag, text, count, wide, room);
                });
  wchar_t wide[20];
  EXPECT_TRUE(NarrowToWide("x", wide, 20));
  EXPECT_EQ(codePage, 0U);
  EXPECT_EQ(flags, 1U);
  EXPECT_EQ(length, -1);
  EXPECT_EQ(capacity, 20);
}

// Documented for a machine whose code page is UTF-8: any such flag is refused.
TEST(NarrowToWide, ConvertsWithoutTheFlagWhereTheCodePageTakesNone) {
  std::optional<CallPatch<struct Utf8, int(UINT, DWORD, const char*, int, wchar_t*, int)>> patch;
  patch.emplace("KERNEL32.dll", "MultiByteToWideChar",
                [&](UINT page, DWORD flags, const char* text, int count, wchar_t* wide, int room) {
                  EXPECT_EQ(page, 0U);
                  EXPECT_EQ(count, -1);
                  EXPECT_EQ(room, 8);
                  if (flags != 0) {
                    SetLastError(ERROR_INVALID_FLAGS);
                    return 0;
                  }
                  return patch->CallOriginal(CP_UTF8, flags, text, count, wide, room);
                });
  wchar_t wide[8] = {};
  EXPECT_TRUE(NarrowToWide("\xC3\xA9", wide, 8));
  EXPECT_STREQ(wide, L"\x00E9");
}

TEST(NarrowToWide, AsksOnceWhereTheTextIsTooLong) {
  std::optional<CallPatch<struct Once, int(UINT, DWORD, const char*, int, wchar_t*, int)>> patch;
  int calls = 0;
  patch.emplace("KERNEL32.dll", "MultiByteToWideChar",
                [&](UINT page, DWORD flags, const char* text, int count, wchar_t* wide, int room) {
                  ++calls;
                  return patch->CallOriginal(page, flags, text, count, wide, room);
                });
  wchar_t wide[4];
  EXPECT_FALSE(NarrowToWide("too long", wide, 4));
  EXPECT_EQ(calls, 1);
}

TEST(NarrowToWide, TextThatFillsTheLimitWithItsTerminatorFits) {
  const std::string text(259, 'a');
  wchar_t wide[260];
  EXPECT_TRUE(NarrowToWide(text.c_str(), wide, 260));
  EXPECT_EQ(std::wstring(wide), std::wstring(259, L'a'));
}

TEST(NarrowToWide, FailsWithAnEmptyResultBeyondTheLimit) {
  const std::string text(260, 'a');
  wchar_t wide[261];
  wide[260] = L'!';
  EXPECT_FALSE(NarrowToWide(text.c_str(), wide, 260));
  EXPECT_STREQ(wide, L"");
  EXPECT_EQ(wide[260], L'!');
}

TEST(NarrowToWide, EmptyTextIsConverted) {
  wchar_t wide[2] = L"x";
  EXPECT_TRUE(NarrowToWide("", wide, 2));
  EXPECT_STREQ(wide, L"");
}

TEST(WideToNarrow, ConvertsToTheAnsiCodePage) {
  char narrow[8] = {};
  EXPECT_TRUE(WideToNarrow(L"Agent 1", narrow, 8));
  EXPECT_STREQ(narrow, "Agent 1");
}

TEST(WideToNarrow, PassesTheCodePageNoFlagAndTheLimit) {
  std::optional<CallPatch<struct ToNarrow,
                          int(UINT, DWORD, const wchar_t*, int, char*, int, const char*, BOOL*)>>
      patch;
  UINT codePage = 1;
  DWORD flags = 1;
  int length = 0;
  int capacity = 0;
  const char* defaultChar = "";
  patch.emplace("KERNEL32.dll", "WideCharToMultiByte",
                [&](UINT page, DWORD flag, const wchar_t* text, int count, char* narrow, int room,
                    const char* fallback, BOOL* used) {
                  codePage = page;
                  flags = flag;
                  length = count;
                  capacity = room;
                  defaultChar = fallback;
                  return patch->CallOriginal(page, flag, text, count, narrow, room, fallback, used);
                });
  char narrow[20];
  EXPECT_TRUE(WideToNarrow(L"x", narrow, 20));
  EXPECT_EQ(codePage, 0U);
  EXPECT_EQ(flags, 0U);
  EXPECT_EQ(length, -1);
  EXPECT_EQ(capacity, 20);
  EXPECT_EQ(defaultChar, nullptr);
}

TEST(WideToNarrow, TextThatFillsTheLimitWithItsTerminatorFits) {
  const std::wstring text(259, L'a');
  char narrow[260];
  EXPECT_TRUE(WideToNarrow(text.c_str(), narrow, 260));
  EXPECT_EQ(std::string(narrow), std::string(259, 'a'));
}

TEST(WideToNarrow, FailsWithAnEmptyResultBeyondTheLimit) {
  const std::wstring text(260, L'a');
  char narrow[261];
  narrow[260] = '!';
  EXPECT_FALSE(WideToNarrow(text.c_str(), narrow, 260));
  EXPECT_STREQ(narrow, "");
  EXPECT_EQ(narrow[260], '!');
}

}  // namespace
