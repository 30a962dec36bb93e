// The files of the trace, read while they are written, renamed and deleted by others.
#pragma once

#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tools/vorldiag/trace/traceline.h"

// Paths of all trace files of a folder, oldest first. `error`: why the folder could not be
// searched, or as it was when it could.
std::vector<std::wstring> TraceFiles(const std::wstring& folder, DWORD* error = nullptr);

// "vorltrace.000123.log": 123; 0 for a file that is still written, and for any other name.
unsigned long TraceFileNumber(const std::wstring& path);

// Adds the lines of `bytes`. How many bytes they took: what is left is the beginning of a line.
// `unreadable` counts lines that are none.
std::size_t AddTraceLines(std::string_view bytes, std::vector<TraceLine>& lines,
                          unsigned long long* unreadable = nullptr);

struct TraceContent {
  std::vector<TraceLine> lines;       // oldest first
  unsigned long long unreadable = 0;  // lines that are none
  std::string problem;                // a file that could not be read; empty when all could
  std::string advice;                 // what to do about it
  bool isComplete = true;             // false when older files were left out
};

// Reads the youngest files: as many as are needed for the last start of the service and the stop
// before it, and not more than a few.
TraceContent ReadLatestTrace(const std::wstring& folder);

// Reads the youngest files, up to the size that a trace has by default.
TraceContent ReadRecentTrace(const std::wstring& folder);

// Reads all files.
TraceContent ReadWholeTrace(const std::wstring& folder);
