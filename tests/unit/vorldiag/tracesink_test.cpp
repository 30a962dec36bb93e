#include "tools/vorldiag/identity/tracesink.h"

#include <gmock/gmock.h>

#include "support/vlevtlog.h"
#include "support/windows_api.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST(TraceSink, KeepsLinesOfBothKindsUntilTheyAreTaken) {
  TakeWrittenLines();
  SetLastError(4711);
  LogTrace(1, "module", "F", "file", 1, "%d of %s", 7, "x");
  LogTraceW(1, "module", "G", "file", 1, L"%d of %ls", 8, L"\u5BA2");
  EXPECT_EQ(GetLastError(), 4711U);
  EXPECT_THAT(TakeWrittenLines(), ElementsAre("F: 7 of x", "G: 8 of \xE5\xAE\xA2"));
  EXPECT_THAT(TakeWrittenLines(), IsEmpty());
}

TEST(TraceSink, CutsEndlessLines) {
  TakeWrittenLines();
  LogTrace(1, "module", "F", "file", 1, "%s", std::string(5000, 'x').c_str());
  LogTraceW(1, "module", "F", "file", 1, L"%ls", std::wstring(5000, L'x').c_str());
  const std::string cut = "F: " + std::string(2000, 'x');
  EXPECT_THAT(TakeWrittenLines(), ElementsAre(cut, cut));
}

}  // namespace
