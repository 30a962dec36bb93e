#include "companions/vlevtlog/trace_options.h"

#include <cwchar>
#include <iterator>

#include "companions/common/ini_file.h"
#include "support/vlevtlog.h"
#include "support/windows_api.h"

namespace {

constexpr wchar_t kSection[] = L"TRACE";
constexpr std::uint32_t kSmallestFileSizeKb = 4;
constexpr std::uint32_t kLargestFileSizeKb = 1024 * 1024;
constexpr std::uint32_t kFewestFiles = 2;
constexpr DWORD kValueSize = 256;

struct LevelName {
  const wchar_t* name;
  std::uint32_t bits;
};
constexpr LevelName kLevelNames[] = {{L"ERROR", kErrorLevelBit},
                                     {L"INFO", kInfoLevelBit},
                                     {L"VERBOSE", kVerboseLevelBit},
                                     {L"ALL", kAllLevelBits},
                                     {L"NONE", 0},
                                     {L"1", kErrorLevelBit},
                                     {L"2", kInfoLevelBit},
                                     {L"8", kVerboseLevelBit}};

constexpr wchar_t kBetweenNames[] = L", \t+|";

bool ParseLevels(wchar_t* text, std::uint32_t& levels) noexcept {
  std::uint32_t bits = 0;
  wchar_t* at = text;
  for (;;) {
    at += wcsspn(at, kBetweenNames);
    if (*at == 0) {
      break;
    }
    const std::size_t length = wcscspn(at, kBetweenNames);
    const LevelName* known = nullptr;
    for (const LevelName& candidate : kLevelNames) {
      if (wcslen(candidate.name) == length && _wcsnicmp(at, candidate.name, length) == 0) {
        known = &candidate;
      }
    }
    if (known == nullptr) {
      return false;
    }
    bits |= known->bits;
    at += length;
  }
  levels = bits;
  return true;
}

bool ParseFormat(wchar_t* text, TraceFormat& format) noexcept {
  if (_wcsicmp(text, L"TEXT") == 0) {
    format = TraceFormat::kText;
    return true;
  }
  if (_wcsicmp(text, L"CMTRACE") == 0) {
    format = TraceFormat::kCmTrace;
    return true;
  }
  return false;
}

bool ParseNumber(const wchar_t* text, std::uint32_t lowest, std::uint32_t highest,
                 std::uint32_t& number) noexcept {
  std::uint64_t value = 0;
  for (const wchar_t* at = text; *at != 0; ++at) {
    if (*at < L'0' || *at > L'9' || value > highest) {
      return false;
    }
    value = value * 10 + static_cast<std::uint64_t>(*at - L'0');
  }
  if (value < lowest || value > highest) {
    return false;
  }
  number = static_cast<std::uint32_t>(value);
  return true;
}

// Hands the key's value to `parse` when there is one.
template <typename Parse>
void ReadKey(const IniFile& file, const wchar_t* key, TraceOptionProblems& problems,
             Parse parse) noexcept {
  wchar_t value[kValueSize];
  file.Value(kSection, key, value, kValueSize);
  CutComment(value);
  if (value[0] != 0 && !parse(value)) {
    TraceOptionProblem& problem = problems.list[problems.count++];
    problem.key = key;
    // Enough of it to be recognised.
    static_cast<void>(StringCchCopyW(problem.value, std::size(problem.value), value));
  }
}

}  // namespace

std::uint32_t LevelBitOf(int level) noexcept {
  switch (level) {
    case kTraceLevelError:
      return kErrorLevelBit;
    case kTraceLevelInfo:
      return kInfoLevelBit;
    default:
      return kVerboseLevelBit;
  }
}

void TraceOptionWord::Put(std::atomic<std::uint64_t>& inForce, std::uint64_t options) noexcept {
  if (options >> kFileSizeShift != kEndlessFileSizeKb) {
    inForce.store(options);
    return;
  }
  std::uint64_t none = 0;
  if (!inForce.compare_exchange_strong(none, options)) {
    inForce.fetch_or(options & kAllLevelBits);
  }
}

bool ReadTraceOptions(const wchar_t* file, TraceOptions& result,
                      TraceOptionProblems& problems) noexcept {
  IniFile ini;
  if (ini.Read(file) != IniRead::kDone) {
    return false;
  }
  TraceOptions options;
  ReadKey(ini, L"Levels", problems,
          [&](wchar_t* value) { return ParseLevels(value, options.levels); });
  ReadKey(ini, L"Format", problems,
          [&](wchar_t* value) { return ParseFormat(value, options.format); });
  ReadKey(ini, L"FileSizeKB", problems, [&](wchar_t* value) {
    return ParseNumber(value, kSmallestFileSizeKb, kLargestFileSizeKb, options.fileSizeKb);
  });
  ReadKey(ini, L"Files", problems, [&](wchar_t* value) {
    return ParseNumber(value, kFewestFiles, kMostFiles, options.files);
  });
  options.isAtRest = !ini.WasJustWritten(kRestMilliseconds);
  result = options;
  return true;
}
