// The calls of one process as its lines "Entry" and "Exit" show them.
//
// Operations that fail write their failure in place of "Exit", and some write nothing at their end:
// such a call is over when a call further out writes again, or when it writes nothing more itself.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/vorldiag/trace/traceline.h"

// A call, or a line within one.
struct TreeRow {
  const TraceLine* line = nullptr;  // of a call: its "Entry"
  std::size_t depth = 0;
  bool isCall = false;
  std::int64_t end = 0;  // of a call: the moment of its last line, or of the last line inside
  bool hasExit = false;  // of a call: whether it has said so
};

// All rows of one thread, in the order of its lines.
struct ThreadTree {
  unsigned long threadId = 0;
  std::vector<TreeRow> rows;
};

// `lines`: of one process. Threads in the order of their first line.
std::vector<ThreadTree> CallTrees(const std::vector<const TraceLine*>& lines);
