#include "tools/vorldiag/trace/tracefiles.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>

#include "support/folder.h"
#include "tools/vorldiag/machine/installation.h"
#include "tools/vorldiag/machine/sharedfile.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

// A file has at most 1 GB when it is configured so; more than this is not read of one.
constexpr std::uint64_t kLargestFile = 1100ULL * 1024 * 1024;

// What the latest lines are taken from, at most.
constexpr std::uint64_t kLatestBytes = 64ULL * 1024 * 1024;

bool HasServiceStart(const std::vector<TraceLine>& lines) {
  return std::any_of(lines.begin(), lines.end(), [](const TraceLine& line) {
    return line.function == "CNTService::ParseStandardArgs" &&
           line.text == "No Arguments hence returning";
  });
}

// The newest file first; stops when `isEnough` says so.
template <typename Enough>
TraceContent Read(const std::wstring& folder, Enough isEnough) {
  TraceContent whole;
  DWORD searchError = ERROR_SUCCESS;
  const std::vector<std::wstring> files = TraceFiles(folder, &searchError);
  if (searchError != ERROR_SUCCESS && !IsNoFolder(folder)) {
    whole.problem = Utf8(folder) + ": " + ErrorText(searchError);
    whole.advice = "Run vorldiag from an elevated prompt.";
  }
  std::uint64_t bytesRead = 0;
  std::vector<std::vector<TraceLine>> parts;
  for (auto file = files.rbegin(); file != files.rend(); ++file) {
    std::string bytes;
    const DWORD error = ReadSharedFile(*file, kLargestFile, bytes);
    // One that was deleted meanwhile was too old.
    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND) {
      const bool isFolder = IsFolder(file->c_str());
      whole.problem = Utf8(*file) + (isFolder ? " is a folder" : ": " + ErrorText(error));
      whole.advice = isFolder
                         ? "Remove the folder: the trace is to be written into a file of this name."
                         : "Run vorldiag from an elevated prompt; when that does not help, "
                           "another program keeps the file for itself.";
    }
    TraceContent part;
    const std::size_t taken = AddTraceLines(bytes, part.lines, &part.unreadable);
    // What is no whole line is one that is being written, unless there is nothing else.
    part.unreadable += part.lines.empty() && taken < bytes.size() ? 1U : 0U;
    whole.unreadable += part.unreadable;
    bytesRead += bytes.size();
    parts.push_back(std::move(part.lines));
    if (isEnough(parts.back(), bytesRead) && std::next(file) != files.rend()) {
      whole.isComplete = false;
      break;
    }
  }
  for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
    std::move(part->begin(), part->end(), std::back_inserter(whole.lines));
  }
  return whole;
}

}  // namespace

unsigned long TraceFileNumber(const std::wstring& path) {
  constexpr std::wstring_view prefix = L"vorltrace.";
  constexpr std::wstring_view suffix = L".log";
  std::wstring_view name = path;
  name.remove_prefix(name.find_last_of(L'\\') + 1);
  if (name.size() <= prefix.size() + suffix.size() ||
      !EqualsIgnoringCase(name.substr(0, prefix.size()), prefix) ||
      !EqualsIgnoringCase(name.substr(name.size() - suffix.size()), suffix)) {
    return 0;
  }
  unsigned long number = 0;
  for (const wchar_t digit :
       name.substr(prefix.size(), name.size() - prefix.size() - suffix.size())) {
    if (digit < L'0' || digit > L'9') {
      return 0;
    }
    number = number * 10 + static_cast<unsigned long>(digit - L'0');
  }
  return number;
}

std::size_t AddTraceLines(std::string_view bytes, std::vector<TraceLine>& lines,
                          unsigned long long* unreadable) {
  std::size_t begin = 0;
  for (std::size_t end = bytes.find('\n'); end != std::string_view::npos;
       end = bytes.find('\n', begin)) {
    std::string_view text = bytes.substr(begin, end - begin);
    if (!text.empty() && text.back() == '\r') {
      text.remove_suffix(1);
    }
    TraceLine line;
    if (ParseTraceLine(text, line)) {
      lines.push_back(std::move(line));
    } else if (!text.empty() && unreadable != nullptr) {
      ++*unreadable;
    }
    begin = end + 1;
  }
  return begin;
}

std::vector<std::wstring> TraceFiles(const std::wstring& folder, DWORD* error) {
  std::map<unsigned long, std::wstring> numbered;
  WIN32_FIND_DATAW found{};
  const FindHandle search(FindFirstFileW((folder + L"\\vorltrace.*.log").c_str(), &found));
  const DWORD searchError = search ? ERROR_SUCCESS : GetLastError();
  if (error != nullptr && searchError != ERROR_FILE_NOT_FOUND &&
      searchError != ERROR_PATH_NOT_FOUND) {
    *error = searchError;
  }
  while (search) {
    if (const unsigned long number = TraceFileNumber(found.cFileName); number != 0) {
      numbered[number] = folder + L"\\" + found.cFileName;
    }
    if (!FindNextFileW(search.Get(), &found)) {
      break;
    }
  }
  std::vector<std::wstring> files;
  files.reserve(numbered.size() + 2);
  for (const auto& [number, path] : numbered) {
    files.push_back(path);
  }
  for (const wchar_t* name : {L"\\vorltrace.log", L"\\vorltrace.second.log"}) {
    if (Exists(folder + name)) {
      files.push_back(folder + name);
    }
  }
  return files;
}

TraceContent ReadLatestTrace(const std::wstring& folder) {
  int filesWithStart = 0;
  return Read(folder, [&](const std::vector<TraceLine>& lines, std::uint64_t bytesRead) {
    // A start may have begun in the file before the one that shows it.
    filesWithStart += filesWithStart > 0 || HasServiceStart(lines) ? 1 : 0;
    return filesWithStart > 1 || bytesRead > kLatestBytes;
  });
}

TraceContent ReadRecentTrace(const std::wstring& folder) {
  return Read(folder, [](const std::vector<TraceLine>&, std::uint64_t bytesRead) {
    return bytesRead > kLatestBytes;
  });
}

TraceContent ReadWholeTrace(const std::wstring& folder) {
  return Read(folder, [](const std::vector<TraceLine>&, std::uint64_t) { return false; });
}
