#include "tools/vorldiag/trace/traceline.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>

namespace {

template <typename Number>
bool ParseNumber(std::string_view text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

// Cuts what stands before the next `separator` off `text`, the separator too.
bool Take(std::string_view& text, std::string_view separator, std::string_view& field) {
  const std::size_t end = text.find(separator);
  if (end == std::string_view::npos) {
    return false;
  }
  field = text.substr(0, end);
  text.remove_prefix(end + separator.size());
  return true;
}

std::string Unescaped(std::string_view field) {
  std::string text(field == "-" ? std::string_view() : field);
  constexpr std::string_view blank = "\\x20";
  for (std::size_t found = text.find(blank); found != std::string::npos; found = text.find(blank)) {
    text.replace(found, blank.size(), " ");
  }
  return text;
}

// `offset`: local time minus UTC in minutes.
bool SetMoment(std::string_view date, std::string_view time, int offset, TraceLine& line) {
  int year = 0;
  unsigned month = 0;
  unsigned day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int milliseconds = 0;
  if (date.size() != 10 || time.size() != 12 || !ParseNumber(date.substr(0, 4), year) ||
      !ParseNumber(date.substr(5, 2), month) || !ParseNumber(date.substr(8, 2), day) ||
      !ParseNumber(time.substr(0, 2), hour) || !ParseNumber(time.substr(3, 2), minute) ||
      !ParseNumber(time.substr(6, 2), second) || !ParseNumber(time.substr(9, 3), milliseconds)) {
    return false;
  }
  using namespace std::chrono;
  const year_month_day calendar{std::chrono::year(year), std::chrono::month(month),
                                std::chrono::day(day)};
  if (!calendar.ok()) {
    return false;
  }
  const auto moment = sys_days{calendar}.time_since_epoch() + hours{hour} +
                      minutes{minute - offset} + seconds{second} +
                      std::chrono::milliseconds{milliseconds};
  line.moment = duration_cast<std::chrono::milliseconds>(moment).count();
  const int distance = offset < 0 ? -offset : offset;
  char zone[16];
  std::snprintf(zone, sizeof(zone), " %c%02d:%02d", offset < 0 ? '-' : '+', distance / 60,
                distance % 60);
  line.time = std::string(date) + " " + std::string(time) + zone;
  return true;
}

// "+01:00"
bool ParseOffset(std::string_view text, int& minutes) {
  int hour = 0;
  int minute = 0;
  if (text.size() != 6 || (text[0] != '+' && text[0] != '-') ||
      !ParseNumber(text.substr(1, 2), hour) || !ParseNumber(text.substr(4, 2), minute)) {
    return false;
  }
  minutes = (hour * 60 + minute) * (text[0] == '-' ? -1 : 1);
  return true;
}

bool ParsePlain(std::string_view text, TraceLine& line) {
  std::array<std::string_view, 9> fields;
  for (std::string_view& field : fields) {
    if (!Take(text, " ", field)) {
      return false;
    }
  }
  int offset = 0;
  line.level = LevelOf(fields[3]);
  if (!ParseOffset(fields[2], offset) || !SetMoment(fields[0], fields[1], offset, line) ||
      line.level == 0 || !ParseNumber(fields[4], line.processId) ||
      !ParseNumber(fields[5], line.threadId)) {
    return false;
  }
  line.module = Unescaped(fields[6]);
  line.function = Unescaped(fields[7]);
  line.source = Unescaped(fields[8]);
  line.text = text;
  return true;
}

constexpr std::string_view kLogBegin = "<![LOG[";
constexpr std::string_view kLogEnd = "]LOG]!><";

// The value of `name="value"`.
std::string_view Attribute(std::string_view text, std::string_view name) {
  const std::string key = std::string(name) + "=\"";
  std::string_view value;
  const std::size_t begin = text.find(key);
  if (begin == std::string_view::npos) {
    return {};
  }
  text.remove_prefix(begin + key.size());
  return Take(text, "\"", value) ? value : std::string_view();
}

bool ParseForViewers(std::string_view text, TraceLine& line) {
  // The message may hold anything: its end is the last one.
  const std::size_t end = text.rfind(kLogEnd);
  if (text.substr(0, kLogBegin.size()) != kLogBegin || end == std::string_view::npos) {
    return false;
  }
  line.text = text.substr(kLogBegin.size(), end - kLogBegin.size());
  const std::string_view rest = text.substr(end + kLogEnd.size() - 1);

  const std::string_view time = Attribute(rest, "time");
  const std::string_view date = Attribute(rest, "date");
  std::string_view context = Attribute(rest, "context");
  if (time.size() < 14 || date.size() != 10) {
    return false;
  }
  // "07:05:02.041-060": what must be added to get UTC.
  int toUtc = 0;
  const std::string_view distance = time.substr(time[12] == '+' ? 13 : 12);
  const std::string isoDate = std::string(date.substr(6, 4)) + "-" +
                              std::string(date.substr(0, 2)) + "-" + std::string(date.substr(3, 2));
  std::string_view level;
  std::string_view process;
  if (!ParseNumber(distance, toUtc) || !SetMoment(isoDate, time.substr(0, 12), -toUtc, line) ||
      !Take(context, " ", level) || !Take(context, " ", process) ||
      !ParseNumber(process, line.processId) ||
      !ParseNumber(Attribute(rest, "thread"), line.threadId)) {
    return false;
  }
  line.level = LevelOf(level);
  line.module = Unescaped(Attribute(rest, "component"));
  line.function = Unescaped(context);
  line.source = Unescaped(Attribute(rest, "file"));
  return line.level != 0;
}

}  // namespace

bool ParseTraceLine(std::string_view text, TraceLine& line) {
  return !text.empty() && text[0] == '<' ? ParseForViewers(text, line) : ParsePlain(text, line);
}

std::string LevelWord(int level) {
  switch (level) {
    case 1:
      return "ERROR";
    case 2:
      return "INFO";
    case 8:
      return "VERBOSE";
    default:
      return "LEVEL" + std::to_string(level);
  }
}

int LevelOf(std::string_view word) {
  std::string upper(word);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
  for (const int level : {1, 2, 8}) {
    if (upper == LevelWord(level)) {
      return level;
    }
  }
  constexpr std::string_view prefix = "LEVEL";
  std::string_view number = upper;
  if (number.substr(0, prefix.size()) == prefix) {
    number.remove_prefix(prefix.size());
  }
  int level = 0;
  return ParseNumber(number, level) ? level : 0;
}
