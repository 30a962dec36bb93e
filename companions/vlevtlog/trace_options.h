// The trace options of one process: section [TRACE] of vorlconf.ini.
#pragma once

#include <atomic>
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
  // False when the file was written less than kRestMilliseconds before it was read: what is not in
  // it may be about to come.
  bool isAtRest = true;
};

constexpr std::uint32_t kMostFiles = 1000;
constexpr std::uint32_t kRestMilliseconds = 5000;

// Options in one word, which is never half of one configuration and half of another. Zero stands
// for none: all levels are on, and no file is full. Nor is one by options that were not at rest.
class TraceOptionWord {
 public:
  static constexpr std::uint64_t Of(const TraceOptions& options) noexcept {
    const std::uint32_t fileSizeKb = options.isAtRest ? options.fileSizeKb : kEndlessFileSizeKb;
    return options.levels | (options.format == TraceFormat::kCmTrace ? kCmTraceBit : 0) |
           (std::uint64_t{options.files} << kFilesShift) |
           (std::uint64_t{fileSizeKb} << kFileSizeShift);
  }

  // Puts `options`, a word that is not zero, in force in the place of others. Those of a file that
  // was not at rest only add their levels to what is in force, if anything is.
  static void Put(std::atomic<std::uint64_t>& inForce, std::uint64_t options) noexcept;

  constexpr explicit TraceOptionWord(std::uint64_t word) noexcept : m_word(word) {}

  constexpr bool IsOn(std::uint32_t levelBit) const noexcept {
    return m_word == 0 || (m_word & levelBit) != 0;
  }
  constexpr TraceFormat Format() const noexcept {
    return (m_word & kCmTraceBit) != 0 ? TraceFormat::kCmTrace : TraceFormat::kText;
  }
  // Bytes.
  constexpr std::uint64_t FileSize() const noexcept {
    constexpr std::uint64_t bytesPerKb = 1024;
    return m_word == 0 ? static_cast<std::uint64_t>(-1) : (m_word >> kFileSizeShift) * bytesPerKb;
  }
  // The one being written included.
  constexpr std::uint32_t Files() const noexcept {
    return static_cast<std::uint32_t>(m_word >> kFilesShift) & kFilesMask;
  }

 private:
  static constexpr std::uint64_t kCmTraceBit = 8;
  static constexpr unsigned kFilesShift = 8;
  static constexpr std::uint32_t kFilesMask = 0xFFFF;
  static constexpr unsigned kFileSizeShift = 32;
  static constexpr std::uint32_t kEndlessFileSizeKb = 0xFFFFFFFF;
  std::uint64_t m_word;
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

// What the file says, read whole in one state. A missing section or key means the default. False,
// with nothing changed, when there is no file or it cannot be read now.
//   Levels=ERROR,INFO,VERBOSE   any of them; or ALL, NONE
//   Format=TEXT                 or CMTRACE
//   FileSizeKB=5120             4 to 1048576
//   Files=10                    2 to 1000
bool ReadTraceOptions(const wchar_t* file, TraceOptions& options,
                      TraceOptionProblems& problems) noexcept;
