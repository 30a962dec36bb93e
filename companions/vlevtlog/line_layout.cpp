#include "companions/vlevtlog/line_layout.h"

#include <cstdlib>
#include <string_view>

#include "companions/vlevtlog/line_text.h"
#include "support/vlevtlog.h"

namespace {

constexpr std::size_t kNameLimit = 260;
constexpr unsigned kMinutesPerHour = 60;

// What the viewers know.
constexpr unsigned long kCmTraceTypeInformation = 1;
constexpr unsigned long kCmTraceTypeError = 3;

void AppendName(LineText& line, const char* name) noexcept {
  const std::size_t length = name != nullptr ? line.ReadableLength(name, kNameLimit) : 0;
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

// Text of a fixed width: most of a line's time goes into appending, so the many small parts of a
// time are put together first.
class TimeText {
 public:
  void Put(char character) noexcept { m_text[m_size++] = character; }
  void Put(unsigned number, std::size_t digits) noexcept {
    for (std::size_t i = digits; i > 0; --i) {
      m_text[m_size + i - 1] = static_cast<char>('0' + number % 10);
      number /= 10;
    }
    m_size += digits;
  }
  void PutTimeOfDay(const LocalTime& time) noexcept {
    Put(time.hour, 2);
    Put(':');
    Put(time.minute, 2);
    Put(':');
    Put(time.second, 2);
    Put('.');
    Put(time.millisecond, 3);
  }
  std::string_view View() const noexcept { return {m_text, m_size}; }

 private:
  char m_text[40];
  std::size_t m_size = 0;
};

void BeginTextLine(LineText& line, const TraceCall& call) noexcept {
  const LocalTime& time = call.time;
  const auto offset = static_cast<unsigned>(std::abs(time.utcOffsetMinutes));
  TimeText stamp;
  stamp.Put(static_cast<unsigned>(time.year), 4);
  stamp.Put('-');
  stamp.Put(time.month, 2);
  stamp.Put('-');
  stamp.Put(time.day, 2);
  stamp.Put(' ');
  stamp.PutTimeOfDay(time);
  stamp.Put(' ');
  stamp.Put(time.utcOffsetMinutes < 0 ? '-' : '+');
  stamp.Put(offset / kMinutesPerHour, 2);
  stamp.Put(':');
  stamp.Put(offset % kMinutesPerHour, 2);
  stamp.Put(' ');
  line.AppendLiteral(stamp.View());
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
  TimeText stamp;
  stamp.PutTimeOfDay(time);
  // These viewers count from local time to UTC.
  stamp.Put(time.utcOffsetMinutes > 0 ? '-' : '+');
  stamp.Put(static_cast<unsigned>(std::abs(time.utcOffsetMinutes)), 3);
  TimeText date;
  date.Put(time.month, 2);
  date.Put('-');
  date.Put(time.day, 2);
  date.Put('-');
  date.Put(static_cast<unsigned>(time.year), 4);
  line.AppendLiteral("]LOG]!><time=\"");
  line.AppendLiteral(stamp.View());
  line.AppendLiteral("\" date=\"");
  line.AppendLiteral(date.View());
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
