// A line of the trace, read back.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// One line of the trace.
struct TraceLine {
  std::int64_t moment = 0;  // milliseconds since 1970, UTC
  std::string time;         // "2026-03-09 07:05:02.041 +01:00", local time as written
  int level = 0;            // 1 error, 2 info, 8 verbose, or the number of another level
  unsigned long processId = 0;
  unsigned long threadId = 0;
  std::string module;
  std::string function;
  std::string source;  // "service/ntservc.cpp:123"
  std::string text;
};

// Reads a line of either form, without its line end. False when it is none, such as a line of
// another program or half of one.
bool ParseTraceLine(std::string_view text, TraceLine& line);

// "ERROR", "INFO", "VERBOSE" or "LEVEL4".
std::string LevelWord(int level);
// The other way, letters in any case and numbers, too; 0 for what is no level.
int LevelOf(std::string_view word);
