#include "modules/vorlupd/journal.h"

#include <algorithm>
#include <string_view>

#include "modules/vorlupd/filesystem.h"
#include "support/handle.h"

namespace {

constexpr wchar_t kByteOrderMark = 0xFEFF;
constexpr std::wstring_view kTitle = L"vorlupd journal 1";
constexpr std::wstring_view kEnd = L"end";
constexpr std::wstring_view kLineEnd = L"\r\n";

struct StepWord {
  Step::Kind kind;
  std::wstring_view word;
};
constexpr StepWord kStepWords[] = {{Step::Kind::kFolder, L"folder "},
                                   {Step::Kind::kReplace, L"replace "},
                                   {Step::Kind::kCreate, L"create "}};

std::wstring Compose(const std::vector<Step>& steps) {
  std::wstring text;
  text.append(1, kByteOrderMark).append(kTitle).append(kLineEnd);
  for (const Step& step : steps) {
    for (const StepWord& stepWord : kStepWords) {
      if (stepWord.kind == step.kind) {
        text.append(stepWord.word).append(step.path).append(kLineEnd);
      }
    }
  }
  return text.append(kEnd).append(kLineEnd);
}

std::optional<Step> ParseStep(std::wstring_view line) {
  for (const StepWord& stepWord : kStepWords) {
    if (line.starts_with(stepWord.word)) {
      Step step{stepWord.kind, std::wstring(line.substr(stepWord.word.size()))};
      if (IsPlainRelativePath(step.path)) {
        return step;
      }
    }
  }
  return std::nullopt;
}

// Cuts the next line off `text`; nothing when there is no complete one.
std::optional<std::wstring_view> TakeLine(std::wstring_view& text) {
  const std::size_t end = text.find(kLineEnd);
  if (end == std::wstring_view::npos) {
    return std::nullopt;
  }
  const std::wstring_view line = text.substr(0, end);
  text.remove_prefix(end + kLineEnd.size());
  return line;
}

std::optional<std::wstring> ReadWholeFile(const std::wstring& path) {
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size{};
  if (!file || !GetFileSizeEx(file.Get(), &size) ||
      static_cast<ULONGLONG>(size.QuadPart) > kLargestJournalSize) {
    return std::nullopt;
  }
  std::wstring text(static_cast<std::size_t>(size.QuadPart) / sizeof(wchar_t), L'\0');
  const DWORD byteCount = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  DWORD read = 0;
  if (!ReadFile(file.Get(), text.data(), byteCount, &read, nullptr) || read != byteCount) {
    return std::nullopt;
  }
  return text;
}

bool WriteToDisk(const std::wstring& path, const std::wstring& text) {
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
  const DWORD byteCount = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  DWORD written = 0;
  if (!file || !WriteFile(file.Get(), text.data(), byteCount, &written, nullptr)) {
    return false;
  }
  if (written != byteCount) {
    SetLastError(ERROR_DISK_FULL);
    return false;
  }
  return FlushFileBuffers(file.Get()) != FALSE;
}

}  // namespace

bool WriteJournal(const std::wstring& file, const std::vector<Step>& steps) {
  if (!std::all_of(steps.begin(), steps.end(),
                   [](const Step& step) { return IsPlainRelativePath(step.path); })) {
    SetLastError(ERROR_INVALID_NAME);
    return false;
  }
  const std::wstring text = Compose(steps);
  if (text.size() > kLargestJournalSize / sizeof(wchar_t)) {
    SetLastError(ERROR_FILE_TOO_LARGE);
    return false;
  }
  // Under another name until it is complete: half a journal would undo half an update.
  const std::wstring unfinished = file + L".new";
  return WriteToDisk(unfinished, text) &&
         MoveFileExW(unfinished.c_str(), file.c_str(), MOVEFILE_WRITE_THROUGH);
}

std::optional<std::vector<Step>> ReadJournal(const std::wstring& file) {
  const std::optional<std::wstring> content = ReadWholeFile(file);
  if (!content || content->empty() || content->front() != kByteOrderMark) {
    return std::nullopt;
  }
  std::wstring_view text{*content};
  text.remove_prefix(1);
  if (TakeLine(text) != kTitle) {
    return std::nullopt;
  }
  std::vector<Step> steps;
  while (const std::optional<std::wstring_view> line = TakeLine(text)) {
    if (*line == kEnd) {
      return steps;
    }
    std::optional<Step> step = ParseStep(*line);
    if (!step) {
      return std::nullopt;
    }
    steps.push_back(std::move(*step));
  }
  return std::nullopt;
}
