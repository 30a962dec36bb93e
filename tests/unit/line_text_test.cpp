#include "companions/vlevtlog/line_text.h"

#include <gtest/gtest.h>

#include <string>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"

namespace {

std::string Narrow(std::string_view text, Escaping escaping = Escaping::kText) {
  LineText line;
  line.SetEscaping(escaping);
  line.AppendNarrow(text);
  return std::string(line.View());
}

std::string Wide(std::wstring_view text) {
  LineText line;
  line.AppendWide(text.data(), text.size());
  return std::string(line.View());
}

// By way of the system's own conversions.
std::string Utf8OfAnsi(const std::string& text) {
  wchar_t wide[512];
  const int count =
      MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), wide, 512);
  char utf8[2048];
  const int size = WideCharToMultiByte(CP_UTF8, 0, wide, count, utf8, 2048, nullptr, nullptr);
  return std::string(utf8, static_cast<std::size_t>(size));
}

TEST(LineText, KeepsPrintableCharacters) {
  std::string printable;
  for (char c = ' '; c < 0x7F; ++c) {
    printable += c;
  }
  EXPECT_EQ(Narrow(printable), printable);
}

TEST(LineText, EscapesWhatWouldBreakALine) {
  EXPECT_EQ(Narrow("a\nb\r\nc\td"), "a\\nb\\r\\nc\\td");
  EXPECT_EQ(Narrow({"\0\x01\x1B\x7F", 4}), "\\x00\\x01\\x1B\\x7F");
  EXPECT_EQ(Wide(L"a\nb\x0085"
                 L"c\x2028"
                 L"d\x2029"
                 L"e\x009F"),
            "a\\nb\\u0085c\\u2028d\\u2029e\\u009F");
}

// A name like L"gpj.exe" behind one of them would read exe.jpg.
TEST(LineText, EscapesWhatTurnsTheDirectionOfAText) {
  const std::wstring directions =
      L"\x061C\x200E\x200F\x202A\x202B\x202C\x202D\x202E\x2066\x2067\x2068\x2069";
  EXPECT_EQ(Wide(directions),
            "\\u061C\\u200E\\u200F\\u202A\\u202B\\u202C\\u202D\\u202E"
            "\\u2066\\u2067\\u2068\\u2069");
  EXPECT_EQ(Wide(L"\x061B\x061D\x200D\x2010\x2029\x202F\x2065\x206A"),
            "\xD8\x9B\xD8\x9D\xE2\x80\x8D\xE2\x80\x90\\u2029\xE2\x80\xAF\xE2\x81\xA5\xE2\x81\xAA");
}

// Code pages of the Near East have two of them in one byte.
TEST(LineText, EscapesWhatTurnsTheDirectionInTheCodePageOfTheSystem) {
  CallPatch<struct CodePage, int WINAPI(UINT, DWORD, const char*, int, wchar_t*, int)> arabic(
      "KERNEL32.dll", "MultiByteToWideChar",
      [&](UINT, DWORD flags, const char* text, int length, wchar_t* wide, int size) {
        return arabic.CallOriginal(1256, flags, text, length, wide, size);
      });
  EXPECT_EQ(Narrow("a\xFD"
                   "b\xFE\xC7"),
            "a\\u200Eb\\u200F\xD8\xA7");
}

TEST(LineText, LeavesBackslashesOfPathsAlone) {
  EXPECT_EQ(Narrow("C:\\new\\table"), "C:\\new\\table");
}

TEST(LineText, EscapesWhatSeparatesFields) {
  EXPECT_EQ(Narrow("operator new", Escaping::kField), "operator\\x20new");
  EXPECT_EQ(Narrow("f<\"x\">", Escaping::kCmTraceAttribute), "f\\x3C\\x22x\\x22\\x3E");
}

TEST(LineText, EscapesTheMarkThatEndsACmTraceText) {
  EXPECT_EQ(Narrow("a > b ]LOG]!> c", Escaping::kCmTraceText), "a > b ]LOG]!\\x3E c");
  LineText line;
  line.SetEscaping(Escaping::kCmTraceText);
  line.AppendNarrow("]LOG");
  line.AppendWide(L"]!>", 3);
  EXPECT_EQ(line.View(), "]LOG]!\\x3E");
}

TEST(LineText, ConvertsTheCodePageOfTheSystem) {
  const std::string ansi = "caf\xE9 \xFC\xDF";
  EXPECT_EQ(Narrow(ansi), Utf8OfAnsi(ansi));
  const std::string longer = std::string(300, 'x') + "\xE4" + std::string(300, '\xF6');
  LineText line;
  line.AppendNarrow(longer);
  EXPECT_EQ(line.View().substr(0, 300), std::string(300, 'x'));
  EXPECT_GT(line.View().size(), 600U);
}

TEST(LineText, CutsAMessageAtItsLimitAndSaysSo) {
  LineText line;
  line.AppendLiteral("head ");
  line.BeginMessage();
  line.AppendNarrow(std::string(262143, 'x'));
  // Neither half a character nor a later one that would fit.
  line.AppendWide(
      L"\x20AC"
      L"y",
      2);
  line.EndMessage();
  line.AppendLiteral(" tail");
  line.EndLine();
  EXPECT_EQ(line.View(), "head " + std::string(262143, 'x') + " [cut] tail\r\n");
}

TEST(LineText, KeepsAMessageThatJustFits) {
  LineText line;
  line.BeginMessage();
  line.AppendNarrow(std::string(262144, 'x'));
  line.EndMessage();
  EXPECT_EQ(line.View(), std::string(262144, 'x'));
}

TEST(LineText, EndsTheLineWithoutMemory) {
  const std::string fits(1000, 'x');
  const std::string doesNotFit(1000, 'y');
  LineText line;
  {
    // The first growth may reach the runtime as either of the two.
    const CallPatch<struct NoMalloc, void* __cdecl(std::size_t)> malloc(
        "msvcrt.dll", "malloc", [](std::size_t) -> void* { return nullptr; });
    const CallPatch<struct NoRealloc, void* __cdecl(void*, std::size_t)> realloc(
        "msvcrt.dll", "realloc", [](void*, std::size_t) -> void* { return nullptr; });
    line.BeginMessage();
    line.AppendNarrow(fits);
    line.AppendNarrow(doesNotFit);
    line.EndMessage();
    line.EndLine();
  }
  EXPECT_EQ(line.View(), fits + " [cut]\r\n");
}

TEST(LineText, CutsAMessageWhereTextCannotBeConverted) {
  const std::string text = "before \xE4 behind";
  {
    const CallPatch<struct ConvertTag, int WINAPI(UINT, DWORD, const char*, int, wchar_t*, int)>
        patch("KERNEL32.dll", "MultiByteToWideChar",
              [](UINT, DWORD, const char*, int, wchar_t*, int) { return 0; });
    LineText line;
    line.BeginMessage();
    line.AppendNarrow(text);
    line.EndMessage();
    EXPECT_EQ(line.View(), "before  [cut]");
  }
  const std::string longer = "before " + std::string(300, '\xE4');
  const CallPatch<struct MallocTag, void* __cdecl(std::size_t)> patch(
      "msvcrt.dll", "malloc", [&](std::size_t size) -> void* {
        return size == 300 * sizeof(wchar_t) ? nullptr : patch.CallOriginal(size);
      });
  LineText line;
  line.BeginMessage();
  line.AppendNarrow(longer);
  line.EndMessage();
  EXPECT_EQ(line.View(), "before  [cut]");
}

}  // namespace
