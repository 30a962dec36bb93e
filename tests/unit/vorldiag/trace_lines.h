// A line of the trace as the service's program writes it.
#pragma once

#include <cstdint>
#include <string>

#include "tools/vorldiag/trace/traceline.h"

inline TraceLine ServiceLine(std::int64_t moment, const std::string& function,
                             const std::string& text, int level = 2, unsigned long processId = 47) {
  TraceLine line;
  line.moment = moment;
  line.time = "now";
  line.level = level;
  line.processId = processId;
  line.threadId = 11;
  line.module = "vorlsrvc.exe";
  line.function = function;
  line.source = "x.cpp:1";
  line.text = text;
  return line;
}
