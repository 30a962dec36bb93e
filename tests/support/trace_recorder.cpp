#include "tests/support/trace_recorder.h"

#include <ostream>

std::ostream& operator<<(std::ostream& out, const TraceLine& line) {
  return out << "\n  " << line.level << " " << line.function << " [" << line.source << "] "
             << (line.wide ? "(wide) " : "") << "\"" << line.format << "\" -> \"" << line.text
             << "\"";
}

std::vector<TraceLine> TraceRecorder::Lines() const {
  std::vector<TraceLine> lines;
  for (unsigned i = 0; i < FakeTraceCount(); ++i) {
    FakeTraceLine line{};
    FakeTraceGet(i, &line);
    EXPECT_STREQ(line.moduleName, "vorlsrvc.exe");
    EXPECT_GT(line.line, 0);
    lines.push_back(
        {line.level, line.functionName, line.sourceFile, line.format, line.text, line.isWide});
  }
  return lines;
}

std::vector<TraceLine> TraceRecorder::LinesOf(const std::string& function) const {
  std::vector<TraceLine> lines = Lines();
  std::erase_if(lines, [&](const TraceLine& line) { return line.function != function; });
  return lines;
}

TraceLine Line(int level, const std::string& function, const std::string& source,
               const std::string& text) {
  return {level, function, source, "%s", text};
}

TraceLine DirectLine(int level, const std::string& function, const std::string& source,
                     const std::string& format, const std::string& text) {
  return {level, function, source, format, text};
}

TraceLine WideLine(int level, const std::string& function, const std::string& source,
                   const std::string& format, const std::string& text) {
  return {level, function, source, format, text, true};
}
