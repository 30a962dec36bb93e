#include "companions/vlevtlog/line_layout.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

#include "companions/vlevtlog/line_text.h"
#include "support/vlevtlog.h"

namespace {

constexpr std::size_t kNameLimit = 260;
constexpr unsigned kMinutesPerHour = 60;

// The types of line that the viewers know.
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

// The parts of a line that have a bounded size: most of a line's time goes into appending, so they
// are put together first.
class ShortText {
 public:
  void Put(char character) noexcept {
    if (m_size < sizeof m_text) {
      m_text[m_size++] = character;
    }
  }
  void Put(std::string_view text) noexcept {
    for (const char character : text) {
      Put(character);
    }
  }
  void PutDigits(unsigned number, std::size_t digits) noexcept {
    for (std::size_t i = digits; i > 0; --i) {
      m_text[m_size + i - 1] = static_cast<char>('0' + number % 10);
      number /= 10;
    }
    m_size += digits;
  }
  void PutNumber(unsigned long number) noexcept {
    m_size = static_cast<std::size_t>(
        std::to_chars(m_text + m_size, m_text + sizeof m_text, number).ptr - m_text);
  }
  void PutNumber(int number) noexcept {
    m_size = static_cast<std::size_t>(
        std::to_chars(m_text + m_size, m_text + sizeof m_text, number).ptr - m_text);
  }
  void PutTimeOfDay(const LocalTime& time) noexcept {
    PutDigits(time.hour, 2);
    Put(':');
    PutDigits(time.minute, 2);
    Put(':');
    PutDigits(time.second, 2);
    Put('.');
    PutDigits(time.millisecond, 3);
  }
  void PutLevel(int level) noexcept {
    switch (level) {
      case kTraceLevelError:
        Put("ERROR");
        break;
      case kTraceLevelInfo:
        Put("INFO");
        break;
      case kTraceLevelVerbose:
        Put("VERBOSE");
        break;
      default:
        Put("LEVEL");
        PutNumber(level);
        break;
    }
  }
  std::string_view View() const noexcept { return {m_text, m_size}; }

 private:
  // The longest is date, time, offset, level, process and thread.
  char m_text[128];
  std::size_t m_size = 0;
};

// File and line, with what follows them.
void AppendPlace(LineText& line, const TraceCall& call, std::string_view behind) noexcept {
  AppendName(line, call.sourceFile);
  ShortText number;
  number.Put(':');
  number.PutNumber(call.line);
  number.Put(behind);
  line.AppendLiteral(number.View());
}

void BeginTextLine(LineText& line, const TraceCall& call) noexcept {
  const LocalTime& time = call.time;
  const auto offset = static_cast<unsigned>(std::abs(time.utcOffsetMinutes));
  ShortText head;
  head.PutDigits(static_cast<unsigned>(time.year), 4);
  head.Put('-');
  head.PutDigits(time.month, 2);
  head.Put('-');
  head.PutDigits(time.day, 2);
  head.Put(' ');
  head.PutTimeOfDay(time);
  head.Put(' ');
  head.Put(time.utcOffsetMinutes < 0 ? '-' : '+');
  head.PutDigits(offset / kMinutesPerHour, 2);
  head.Put(':');
  head.PutDigits(offset % kMinutesPerHour, 2);
  head.Put(' ');
  head.PutLevel(call.level);
  head.Put(' ');
  head.PutNumber(call.processId);
  head.Put(' ');
  head.PutNumber(call.threadId);
  head.Put(' ');
  line.AppendLiteral(head.View());
  line.SetEscaping(Escaping::kField);
  AppendName(line, call.moduleName);
  line.AppendLiteral(" ");
  AppendName(line, call.functionName);
  line.AppendLiteral(" ");
  AppendPlace(line, call, " ");
  line.SetEscaping(Escaping::kText);
}

void EndCmTraceLine(LineText& line, const TraceCall& call) noexcept {
  const LocalTime& time = call.time;
  ShortText when;
  when.Put("]LOG]!><time=\"");
  when.PutTimeOfDay(time);
  // These viewers want what must be added to local time to get UTC.
  when.Put(time.utcOffsetMinutes > 0 ? '-' : '+');
  when.PutDigits(static_cast<unsigned>(std::abs(time.utcOffsetMinutes)), 3);
  when.Put("\" date=\"");
  when.PutDigits(time.month, 2);
  when.Put('-');
  when.PutDigits(time.day, 2);
  when.Put('-');
  when.PutDigits(static_cast<unsigned>(time.year), 4);
  when.Put("\" component=\"");
  line.AppendLiteral(when.View());
  line.SetEscaping(Escaping::kCmTraceAttribute);
  AppendName(line, call.moduleName);
  ShortText context;
  context.Put("\" context=\"");
  context.PutLevel(call.level);
  context.Put(' ');
  context.PutNumber(call.processId);
  context.Put(' ');
  line.AppendLiteral(context.View());
  AppendName(line, call.functionName);
  ShortText thread;
  thread.Put("\" type=\"");
  thread.PutNumber(call.level == kTraceLevelError ? kCmTraceTypeError : kCmTraceTypeInformation);
  thread.Put("\" thread=\"");
  thread.PutNumber(call.threadId);
  thread.Put("\" file=\"");
  line.AppendLiteral(thread.View());
  AppendPlace(line, call, "\">");
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
