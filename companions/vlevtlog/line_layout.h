// The layout of a line of the trace file: what stands before and after the message.
#pragma once

#include "companions/vlevtlog/local_clock.h"

class LineText;

enum class TraceFormat : unsigned char {
  kText,     // date time offset LEVEL process thread module function source:line message
  kCmTrace,  // the marked-up lines that administrators' log viewers read
};

// One call of the trace. Texts are narrow, as the caller handed them in.
struct TraceCall {
  int level;
  const char* moduleName;
  const char* functionName;
  const char* sourceFile;
  int line;
  unsigned long processId;
  unsigned long threadId;
  LocalTime time;
};

// Appends all that comes before the message, and prepares the line for the message's text.
void BeginLine(LineText& line, TraceFormat format, const TraceCall& call) noexcept;

// Appends all that comes after the message, and the line end.
void EndLine(LineText& line, TraceFormat format, const TraceCall& call) noexcept;
