#include "support/trace.h"

#include <gmock/gmock.h>

#include <string>

#include "tests/support/trace_recorder.h"

using ::testing::ElementsAre;

namespace {

constexpr char kSource[] = "tests/unit/trace_test.cpp";
constexpr Trace trace{"CSample::Operation"};

TEST(Trace, FixedTextTravelsAsTheArgumentOfAStringConversion) {
  const TraceRecorder recorder;
  trace.Info("Entry");
  trace.Error("100% of %s");
  trace.Verbose(" Exit");
  EXPECT_THAT(recorder.Lines(), ElementsAre(Line(2, "CSample::Operation", kSource, "Entry"),
                                            Line(1, "CSample::Operation", kSource, "100% of %s"),
                                            Line(8, "CSample::Operation", kSource, " Exit")));
}

TEST(Trace, TextWithValuesIsFormattedBeforeItIsHandedOver) {
  const TraceRecorder recorder;
  const DWORD error = 4294967295U;
  trace.Error("CreateService Failed %u", error);
  trace.Info("path (%S)", L"C:\\Program Files\\x.exe");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(Line(1, "CSample::Operation", kSource, "CreateService Failed 4294967295"),
                  Line(2, "CSample::Operation", kSource, "path (C:\\Program Files\\x.exe)")));
}

TEST(Trace, FormattedTextIsCutAt499Characters) {
  const TraceRecorder recorder;
  const std::string text(600, 'x');
  trace.Info("<%s>", text.c_str());
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(Line(2, "CSample::Operation", kSource, "<" + std::string(498, 'x'))));
}

TEST(Trace, DirectFormatsReachTheLibraryAsTheyAre) {
  const TraceRecorder recorder;
  trace.ErrorDirect("Load Library Fail... with error (%lu)", 126UL);
  trace.InfoDirect(L"wszFilePath: %s", L"C:\\x");
  EXPECT_THAT(recorder.Lines(), ElementsAre(DirectLine(1, "CSample::Operation", kSource,
                                                       "Load Library Fail... with error (%lu)",
                                                       "Load Library Fail... with error (126)"),
                                            WideLine(2, "CSample::Operation", kSource,
                                                     "wszFilePath: %s", "wszFilePath: C:\\x")));
}

TEST(Trace, NamesTheLineOfTheCall) {
  const TraceRecorder recorder;
  const int line = __builtin_LINE() + 1;
  trace.Info("Entry");
  FakeTraceLine recorded{};
  FakeTraceGet(0, &recorded);
  EXPECT_EQ(recorded.line, line);
}

TEST(Trace, KeepsTheLastErrorWhateverTheLibraryDoes) {
  const TraceRecorder recorder;
  FakeTraceSetCallback([](const FakeTraceLine*, void*) { SetLastError(1234); }, nullptr);
  SetLastError(5);
  trace.Info("Entry");
  trace.Error("CreateService Failed %u", 5U);
  trace.ErrorDirect("Load Library Fail... with error (%lu)", 126UL);
  trace.InfoDirect(L"wszFilePath: %s", L"C:\\x");
  EXPECT_EQ(GetLastError(), 5U);
}

TEST(Trace, ModuleNameIsReadAtEveryCall) {
  const TraceRecorder recorder;
  const char* const own = g_pszModuleName;
  g_pszModuleName = "other.exe";
  trace.Info("Entry");
  g_pszModuleName = own;
  FakeTraceLine recorded{};
  FakeTraceGet(0, &recorded);
  EXPECT_STREQ(recorded.moduleName, "other.exe");
}

}  // namespace
