// Where the output goes: characters and colours to a console, bytes to anything else. Windows'
// console functions are played, so that they can fail and show what they are given.
#include "tools/vorldiag/text/output.h"

#include <gmock/gmock.h>

#include <utility>

#include "support/handle.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorldiag/trace_lines.h"
#include "tools/vorldiag/report/printed.h"
#include "tools/vorldiag/trace/tracecommand.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// White on blue.
constexpr WORD kPlain = BACKGROUND_BLUE | FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE;
constexpr WORD kRed = BACKGROUND_BLUE | FOREGROUND_RED | FOREGROUND_INTENSITY;
constexpr WORD kGreen = BACKGROUND_BLUE | FOREGROUND_GREEN | FOREGROUND_INTENSITY;
constexpr WORD kYellow = BACKGROUND_BLUE | FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_INTENSITY;
constexpr WORD kGrey = BACKGROUND_BLUE | FOREGROUND_INTENSITY;

const HANDLE kConsole = reinterpret_cast<HANDLE>(std::uintptr_t{0x777});

class OutputOnAConsole : public ::testing::Test {
 protected:
  // What was written at once, and its colours.
  struct Piece {
    WORD attributes;
    std::wstring text;
  };

  std::wstring TextIn(WORD wanted) const {
    std::wstring text;
    for (const Piece& piece : pieces) {
      text += piece.attributes == wanted ? piece.text : L"";
    }
    return text;
  }

  std::vector<Piece> pieces;
  WORD attributes = kPlain;
  std::size_t brokenPiece = SIZE_MAX;  // the one that the console does not take

  CallPatch<struct HandleTag, HANDLE WINAPI(DWORD)> getHandle{"kernel32.dll", "GetStdHandle",
                                                              [](DWORD) { return kConsole; }};
  CallPatch<struct ModeTag, BOOL WINAPI(HANDLE, DWORD*)> getMode{
      "kernel32.dll", "GetConsoleMode", [](HANDLE handle, DWORD*) { return handle == kConsole; }};
  CallPatch<struct InfoTag, BOOL WINAPI(HANDLE, CONSOLE_SCREEN_BUFFER_INFO*)> getInfo{
      "kernel32.dll", "GetConsoleScreenBufferInfo", [&](HANDLE, CONSOLE_SCREEN_BUFFER_INFO* info) {
        info->wAttributes = attributes;
        return TRUE;
      }};
  CallPatch<struct ColourTag, BOOL WINAPI(HANDLE, WORD)> setColour{
      "kernel32.dll", "SetConsoleTextAttribute", [&](HANDLE, WORD value) {
        attributes = value;
        return TRUE;
      }};
  CallPatch<struct WriteTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, void*)> write{
      "kernel32.dll", "WriteConsoleW",
      [&](HANDLE, const void* text, DWORD count, DWORD* written, void*) {
        pieces.push_back({attributes, {static_cast<const wchar_t*>(text), count}});
        *written = count;
        return pieces.size() != brokenPiece + 1;
      }};
};

TEST_F(OutputOnAConsole, HasColoursOnTheConsolesOwnBackground) {
  Report report{"status", {{"service", "Service", {}}}};
  report.sections[0].Ok("a", "A", "fine");
  report.sections[0].Warn("b", "B", "doubtful", "look");
  report.sections[0].Fail("c", "C", "wrong", "mend");
  Output output(STD_OUTPUT_HANDLE);
  EXPECT_TRUE(PrintReport(report, output));
  EXPECT_THAT(TextIn(kGreen), HasSubstr(L"ok"));
  EXPECT_THAT(TextIn(kYellow), HasSubstr(L"warning"));
  EXPECT_THAT(TextIn(kRed), HasSubstr(L"ERROR"));
  EXPECT_THAT(TextIn(kPlain), HasSubstr(L"-> mend\r\n"));
  EXPECT_EQ(attributes, kPlain);
}

TEST_F(OutputOnAConsole, ShowsErrorsOfTheTraceInRedUnlessTheyAreUsual) {
  Output output(STD_OUTPUT_HANDLE);
  PrintLine(ServiceLine(0, "f", "LoadAcresDll() failed.", /*level=*/1), output);
  PrintLine(ServiceLine(0, "f", "asServiceObj.ParseStandardArgs Failed", /*level=*/1), output);
  PrintLine(ServiceLine(0, "f", "wszFilePath: x", /*level=*/8), output);
  EXPECT_THAT(TextIn(kRed), HasSubstr(L"LoadAcresDll"));
  EXPECT_THAT(TextIn(kRed), Not(HasSubstr(L"ParseStandardArgs")));
  EXPECT_THAT(TextIn(kPlain), HasSubstr(L"ParseStandardArgs"));
  EXPECT_THAT(TextIn(kGrey), HasSubstr(L"wszFilePath"));
}

TEST_F(OutputOnAConsole, GetsCharactersWhateverItsCodePageIs) {
  Output output(STD_OUTPUT_HANDLE);
  EXPECT_TRUE(output.IsConsole());
  EXPECT_TRUE(output.Write("J\xC3\xBCrgen \xE5\xAE\xA2\n"));
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].text, L"J\u00FCrgen \u5BA2\r\n");
}

// Old consoles take no more than 64 KB at once.
TEST_F(OutputOnAConsole, GetsLongTextsInPieces) {
  Output output(STD_OUTPUT_HANDLE);
  EXPECT_TRUE(output.Write(std::string(50000, 'x')));
  std::size_t length = 0;
  for (const Piece& piece : pieces) {
    EXPECT_LE(piece.text.size(), 16000U);
    length += piece.text.size();
  }
  EXPECT_EQ(length, 50000U);
}

TEST_F(OutputOnAConsole, ThatIsClosedIsSaid) {
  Output output(STD_OUTPUT_HANDLE);
  brokenPiece = 0;
  EXPECT_FALSE(output.Write("x", Colour::kRed));
  EXPECT_EQ(attributes, kPlain);
}

TEST_F(OutputOnAConsole, ThatBreaksInTheMiddleOfAReportIsSaid) {
  Report report{"status", {{"service", "Service", {}}}};
  report.sections[0].Fail("c", "C", "wrong", "mend");
  // Title, indent, verdict, value, advice, blank line, sum.
  constexpr std::size_t writes = 7;
  for (std::size_t broken = 0; broken <= writes; ++broken) {
    pieces.clear();
    brokenPiece = broken;
    Output output(STD_OUTPUT_HANDLE);
    EXPECT_EQ(PrintReport(report, output), broken == writes) << broken;
  }
}

TEST_F(OutputOnAConsole, ShowsStartsAndStopsAsTrees) {
  std::vector<TraceLine> lines;
  const auto add = [&](const char* function, const char* text, int level) {
    lines.push_back(
        ServiceLine(static_cast<std::int64_t>(lines.size()) * 5, function, text, level));
  };
  Output output(STD_OUTPUT_HANDLE);
  EXPECT_TRUE(PrintEpisode(LastStart({}), output));
  EXPECT_TRUE(PrintEpisode(LastStop({}), output));
  EXPECT_EQ(TextIn(kPlain),
            L"The trace shows no start of the service.\r\n"
            L"The trace shows no stop of the service.\r\n");
  add("main", "Entry", 2);
  add("CNTService::ParseStandardArgs", "No Arguments hence returning", 2);
  EXPECT_TRUE(PrintEpisode(LastStop(RunsOf(lines)), output));
  pieces.clear();
  EXPECT_TRUE(PrintEpisode(LastStart(RunsOf(lines)), output));
  EXPECT_THAT(TextIn(kPlain), HasSubstr(L"now, process 47: step 2 of 14 is missing: \"After"));
  EXPECT_THAT(TextIn(kPlain), HasSubstr(L"\r\nThread 11\r\n      +0  main  5 ms, without Exit\r\n"
                                        L"      +5    No Arguments hence returning\r\n"));
  add("CAcAsSvc::OnStop", "Entry", 2);
  add("CAcAsSvc::OnStop", "it failed", 1);
  add("CAcAsSvc::OnStop", "Exit", 2);
  pieces.clear();
  EXPECT_TRUE(PrintEpisode(LastStop(RunsOf(lines)), output));
  EXPECT_THAT(TextIn(kPlain), HasSubstr(L"now, process 47: stop control, not over\r\n"));
  EXPECT_THAT(TextIn(kPlain), HasSubstr(L"      +0  CAcAsSvc::OnStop  10 ms\r\n"));
  EXPECT_THAT(TextIn(kRed), HasSubstr(L"      +5    it failed\r\n"));
  add("main", "Exit", 2);
  pieces.clear();
  EXPECT_TRUE(PrintEpisode(LastStop(RunsOf(lines)), output));
  EXPECT_THAT(TextIn(kPlain), HasSubstr(L"now, process 47: stop control, took 15 ms\r\n"));
  // Whichever piece it does not take, what follows changes nothing of it.
  const std::size_t count = std::exchange(pieces, {}).size();
  for (std::size_t broken = 0; broken <= count; ++broken) {
    pieces.clear();
    brokenPiece = broken;
    EXPECT_EQ(PrintEpisode(LastStop(RunsOf(lines)), output), broken == count) << broken;
  }
}

TEST(OutputWithoutAConsole, IsUtf8WithoutColours) {
  const TempFolder folder;
  {
    const FileHandle file(CreateFileW((folder.Path() / "out").c_str(), GENERIC_WRITE, 0, nullptr,
                                      CREATE_ALWAYS, 0, nullptr));
    CallPatch<struct FileTag, HANDLE WINAPI(DWORD)> getHandle("kernel32.dll", "GetStdHandle",
                                                              [&](DWORD) { return file.Get(); });
    Output output(STD_OUTPUT_HANDLE);
    EXPECT_FALSE(output.IsConsole());
    EXPECT_TRUE(output.Write("J\xC3\xBCrgen\n", Colour::kRed));
  }
  const ByteVector bytes = ReadBytes(folder.File("out"));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "J\xC3\xBCrgen\r\n");
}

TEST(OutputWithoutAConsole, SaysOnceWhyItCannotBeWritten) {
  const FileHandle file(CreateFileW(L"NUL", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  DWORD error = ERROR_DISK_FULL;
  CallPatch<struct FullTag, HANDLE WINAPI(DWORD)> getHandle("kernel32.dll", "GetStdHandle",
                                                            [&](DWORD) { return file.Get(); });
  CallPatch<struct FailTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> write(
      "kernel32.dll", "WriteFile", [&](HANDLE, const void*, DWORD, DWORD* written, OVERLAPPED*) {
        *written = 0;
        SetLastError(error);
        return error == ERROR_SUCCESS;
      });
  Output full(STD_OUTPUT_HANDLE);
  EXPECT_EQ(full.Error(), DWORD{ERROR_SUCCESS});
  EXPECT_FALSE(full.Write("x"));
  error = ERROR_NO_DATA;
  EXPECT_FALSE(full.Write("x"));
  EXPECT_EQ(full.Error(), DWORD{ERROR_DISK_FULL});
  EXPECT_FALSE(full.IsAbandoned());
  Output abandoned(STD_OUTPUT_HANDLE);
  EXPECT_FALSE(abandoned.IsAbandoned());
  EXPECT_FALSE(abandoned.Write("x"));
  EXPECT_TRUE(abandoned.IsAbandoned());
  error = ERROR_SUCCESS;
  Output stuck(STD_OUTPUT_HANDLE);
  EXPECT_FALSE(stuck.Write("x"));
  EXPECT_EQ(stuck.Error(), DWORD{ERROR_WRITE_FAULT});
}

// As a service or a scheduled task may be started.
TEST(OutputWithoutAConsole, MayBeNowhereAtAll) {
  const HANDLE closed = reinterpret_cast<HANDLE>(std::uintptr_t{0x7777778});
  for (const HANDLE handle : {HANDLE{nullptr}, INVALID_HANDLE_VALUE, closed}) {
    CallPatch<struct NoneTag, HANDLE WINAPI(DWORD)> getHandle("kernel32.dll", "GetStdHandle",
                                                              [&](DWORD) { return handle; });
    Output output(STD_OUTPUT_HANDLE);
    EXPECT_TRUE(output.Write("x"));
    EXPECT_EQ(output.Error(), DWORD{ERROR_SUCCESS});
    EXPECT_FALSE(output.IsAbandoned());
  }
}

}  // namespace
