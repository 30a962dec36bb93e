// The trace options of one process: section [TRACE] of vorlconf.ini.
#pragma once

#include <cstddef>
#include <cstdint>

#include "companions/vlevtlog/line_layout.h"

// One bit for each level that can be switched.
enum TraceLevelBit : std::uint32_t {
  kErrorLevelBit = 1,
  kInfoLevelBit = 2,
  kVerboseLevelBit = 4,
  kAllLevelBits = 7,
};

// A level that has no name is switched with the verbose one.
std::uint32_t LevelBitOf(int level) noexcept;

struct TraceOptions {
  std::uint32_t levels = kAllLevelBits;
  TraceFormat format = TraceFormat::kText;
  std::uint32_t fileSizeKb = 5120;
  std::uint32_t files = 10;
};

// A value that is not understood. The option keeps its default.
struct TraceOptionProblem {
  const wchar_t* key;
  wchar_t value[64];  // cut
};

struct TraceOptionProblems {
  static constexpr std::size_t kKeys = 4;
  TraceOptionProblem list[kKeys];
  std::size_t count = 0;
};

// What the file says, read whole in one state. A missing file, section or key means the default.
// False, with nothing changed, when there is a file and it cannot be read now.
//   Levels=ERROR,INFO,VERBOSE   any of them; or ALL, NONE
//   Format=TEXT                 or CMTRACE
//   FileSizeKB=5120             4 to 1048576
//   Files=10                    2 to 1000
bool ReadTraceOptions(const wchar_t* file, TraceOptions& options,
                      TraceOptionProblems& problems) noexcept;
