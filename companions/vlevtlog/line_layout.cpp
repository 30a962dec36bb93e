#include "companions/vlevtlog/line_layout.h"

#include <cstdlib>
#include <string_view>

#include "companions/vlevtlog/line_text.h"
#include "companions/vlevtlog/readable_text.h"
#include "support/vlevtlog.h"

namespace {

constexpr std::size_t kNameLimit = 260;
constexpr unsigned kMinutesPerHour = 60;

// What the viewers know.
constexpr unsigned long kCmTraceTypeInformation = 1;
constexpr unsigned long kCmTraceTypeError = 3;

void AppendName(LineText& line, const char* name) noexcept {
  const std::size_t length = name != nullptr ? ReadableLength(name, kNameLimit) : 0;
  if (length == 0 || length == kUnreadable) {
    line.AppendLiteral("-");
    return;
  }
  line.AppendNarrow(name, length);
}

void AppendSigned(LineText& line, int number) noexcept {
  if (number < 0) {
    line.AppendLiteral("-");
  }
  const auto bits = static_cast<unsigned>(number);
  line.AppendNumber(number < 0 ? 0 - bits : bits);
}

void AppendLevel(LineText& line, int level) noexcept {
  switch (level) {
    case kTraceLevelError:
      line.AppendLiteral("ERROR");
      break;
    case kTraceLevelInfo:
      line.AppendLiteral("INFO");
      break;
    case kTraceLevelVerbose:
      line.AppendLiteral("VERBOSE");
      break;
    default:
      line.AppendLiteral("LEVEL");
      AppendSigned(line, level);
      break;
  }
}

void AppendPlace(LineText& line, const TraceCall& call) noexcept {
  AppendName(line, call.sourceFile);
  line.AppendLiteral(":");
  AppendSigned(line, call.line);
}

void AppendTimeOfDay(LineText& line, const LocalTime& time) noexcept {
  line.AppendNumber(time.hour, 2);
  line.AppendLiteral(":");
  line.AppendNumber(time.minute, 2);
  line.AppendLiteral(":");
  line.AppendNumber(time.second, 2);
  line.AppendLiteral(".");
  line.AppendNumber(time.millisecond, 3);
}

void BeginTextLine(LineText& line, const TraceCall& call) noexcept {
  const LocalTime& time = call.time;
  line.AppendNumber(static_cast<unsigned long>(time.year), 4);
  line.AppendLiteral("-");
  line.AppendNumber(time.month, 2);
  line.AppendLiteral("-");
  line.AppendNumber(time.day, 2);
  line.AppendLiteral(" ");
  AppendTimeOfDay(line, time);
  const auto offset = static_cast<unsigned>(std::abs(time.utcOffsetMinutes));
  line.AppendLiteral(time.utcOffsetMinutes < 0 ? " -" : " +");
  line.AppendNumber(offset / kMinutesPerHour, 2);
  line.AppendLiteral(":");
  line.AppendNumber(offset % kMinutesPerHour, 2);
  line.AppendLiteral(" ");
  AppendLevel(line, call.level);
  line.AppendLiteral(" ");
  line.AppendNumber(call.processId);
  line.AppendLiteral(" ");
  line.AppendNumber(call.threadId);
  line.AppendLiteral(" ");
  line.SetEscaping(Escaping::kField);
  AppendName(line, call.moduleName);
  line.AppendLiteral(" ");
  AppendName(line, call.functionName);
  line.AppendLiteral(" ");
  AppendPlace(line, call);
  line.AppendLiteral(" ");
  line.SetEscaping(Escaping::kText);
}

void EndCmTraceLine(LineText& line, const TraceCall& call) noexcept {
  const LocalTime& time = call.time;
  line.AppendLiteral("]LOG]!><time=\"");
  AppendTimeOfDay(line, time);
  // These viewers count from local time to UTC.
  line.AppendLiteral(time.utcOffsetMinutes > 0 ? "-" : "+");
  line.AppendNumber(static_cast<unsigned>(std::abs(time.utcOffsetMinutes)), 3);
  line.AppendLiteral("\" date=\"");
  line.AppendNumber(time.month, 2);
  line.AppendLiteral("-");
  line.AppendNumber(time.day, 2);
  line.AppendLiteral("-");
  line.AppendNumber(static_cast<unsigned long>(time.year), 4);
  line.SetEscaping(Escaping::kCmTraceAttribute);
  line.AppendLiteral("\" component=\"");
  AppendName(line, call.moduleName);
  line.AppendLiteral("\" context=\"");
  AppendLevel(line, call.level);
  line.AppendLiteral(" ");
  line.AppendNumber(call.processId);
  line.AppendLiteral(" ");
  AppendName(line, call.functionName);
  line.AppendLiteral("\" type=\"");
  line.AppendNumber(call.level == kTraceLevelError ? kCmTraceTypeError : kCmTraceTypeInformation);
  line.AppendLiteral("\" thread=\"");
  line.AppendNumber(call.threadId);
  line.AppendLiteral("\" file=\"");
  AppendPlace(line, call);
  line.AppendLiteral("\">");
}

}  // namespace

void BeginLine(LineText& line, TraceFormat format, const TraceCall& call) noexcept {
  if (format == TraceFormat::kCmTrace) {
    line.AppendLiteral("<![LOG[");
    line.SetEscaping(Escaping::kCmTraceText);
  } else {
    BeginTextLine(line, call);
  }
  line.BeginMessage();
}

void EndLine(LineText& line, TraceFormat format, const TraceCall& call) noexcept {
  line.EndMessage();
  if (format == TraceFormat::kCmTrace) {
    EndCmTraceLine(line, call);
  }
  line.EndLine();
}
