#include "companions/vorlmisc/startupoptions.h"

#include <cstring>
#include <cwchar>
#include <limits>
#include <optional>

#include "companions/common/ini_file.h"
#include "companions/vorlmisc/misctrace.h"

namespace {

constexpr wchar_t kSection[] = L"STARTUP_OPTIONS";

// More than any field holds: a value that is cut here is too long for its field in any case.
constexpr DWORD kValueSize = 1024;

int DigitValue(wchar_t digit) noexcept {
  if (digit >= L'0' && digit <= L'9') {
    return digit - L'0';
  }
  if (digit >= L'a' && digit <= L'f') {
    return digit - L'a' + 10;
  }
  if (digit >= L'A' && digit <= L'F') {
    return digit - L'A' + 10;
  }
  return std::numeric_limits<int>::max();
}

// The number that `text` as a whole states; nothing when it is no number or not from 0 to
// `largest`.
std::optional<DWORD> ParseNumber(const wchar_t* text, DWORD largest) noexcept {
  int base = 10;
  if (text[0] == L'0' && (text[1] == L'x' || text[1] == L'X')) {
    base = 16;
    text += 2;
  }
  if (*text == L'\0') {
    return std::nullopt;
  }
  ULONGLONG number = 0;
  for (; *text != L'\0'; ++text) {
    const int digit = DigitValue(*text);
    if (digit >= base) {
      return std::nullopt;
    }
    number = number * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
    if (number > largest) {
      return std::nullopt;
    }
  }
  return static_cast<DWORD>(number);
}

// Reads single fields of one file for one exported operation.
class OptionReader {
 public:
  OptionReader(const char* functionName, const IniFile& file) noexcept
      : m_functionName(functionName), m_file(file) {}

  template <typename Number>
  Number ReadNumber(const wchar_t* key) const noexcept {
    constexpr DWORD largest = std::numeric_limits<Number>::max();
    wchar_t value[kValueSize];
    ReadValue(key, value);
    CutComment(value);
    if (value[0] == L'\0') {
      return 0;
    }
    const std::optional<DWORD> number = ParseNumber(value, largest);
    if (!number) {
      TraceError(m_functionName, L"Start-up option %s is no number from 0 to %u: %s", key,
                 static_cast<unsigned>(largest), value);
    }
    return static_cast<Number>(number.value_or(0));
  }

  // `field` is all zero and stays so unless the text fits with its terminator.
  template <std::size_t Size>
  void ReadText(const wchar_t* key, char (&field)[Size]) const noexcept {
    CopyText(key, field, static_cast<int>(Size));
  }

 private:
  DWORD ReadValue(const wchar_t* key, wchar_t (&value)[kValueSize]) const noexcept {
    return m_file.Value(kSection, key, value, kValueSize);
  }

  void CopyText(const wchar_t* key, char* field, int fieldSize) const noexcept {
    wchar_t value[kValueSize];
    if (ReadValue(key, value) == 0) {
      return;
    }
    // A character that the code page lacks must not turn into another one. UTF-8 has them all and
    // allows neither the flag nor the question.
    const bool isUtf8 = GetACP() == CP_UTF8;
    const DWORD flags = isUtf8 ? 0 : WC_NO_BEST_FIT_CHARS;
    BOOL replaced = FALSE;
    BOOL* const askReplaced = isUtf8 ? nullptr : &replaced;
    const int size =
        WideCharToMultiByte(CP_ACP, flags, value, -1, nullptr, 0, nullptr, askReplaced);
    if (size <= 0 || replaced) {
      TraceError(m_functionName, L"Start-up option %s has characters outside of code page %u", key,
                 GetACP());
    } else if (size > fieldSize) {
      TraceError(m_functionName, L"Start-up option %s has more than %u characters", key,
                 static_cast<unsigned>(fieldSize - 1));
    } else if (WideCharToMultiByte(CP_ACP, flags, value, -1, field, fieldSize,
                                   /*lpDefaultChar=*/nullptr,
                                   /*lpUsedDefaultChar=*/nullptr) != size) {
      TraceError(m_functionName, L"Start-up option %s cannot be converted (%u)", key,
                 static_cast<unsigned>(GetLastError()));
      std::memset(field, 0, static_cast<std::size_t>(fieldSize));
    }
  }

  const char* m_functionName;
  const IniFile& m_file;
};

// Whether nothing of the section can be missing although the file was just written. A start of the
// program has stored an identifier by now, so that a file without one is being written anew.
bool IsWhole(const IniFile& file) noexcept {
  switch (file.PlaceOf(kSection)) {
    case SectionPlace::kNowhere:
      return file.PlaceOf(kIdentifierSection) != SectionPlace::kNowhere;
    case SectionPlace::kLast:
      return false;
    case SectionPlace::kFollowed:
      break;
  }
  return true;
}

// A program that saves by renaming leaves no file for a moment: one that is missing is looked for
// once more, and for longer where the moment may not be over.
IniRead ReadExpected(IniFile& file, const wchar_t* path) noexcept {
  return file.ReadPatiently(path, HasFolderJustChanged(path) ? kIniRestPauses : 1, &IsWhole);
}

}  // namespace

bool ReadStartUpOptions(const char* functionName, const wchar_t* configurationFile,
                        CLIENT_AGENT_STARTUP_OPTIONS& options) noexcept {
  IniFile file;
  switch (ReadExpected(file, configurationFile)) {
    case IniRead::kDone:
      if (file.WasJustWritten(kIniRestMilliseconds) && !IsWhole(file)) {
        TraceError(functionName,
                   L"Configuration file is still being written after %u s, its start-up options "
                   L"may not be complete: %s",
                   static_cast<unsigned>(kIniPatienceMilliseconds / 1000), configurationFile);
      }
      break;
    case IniRead::kMissing:
      return true;
    case IniRead::kBusy:
      TraceError(functionName, L"Configuration file is still in use after %u s (%u): %s",
                 static_cast<unsigned>(kIniPatienceMilliseconds / 1000),
                 static_cast<unsigned>(file.Error()), configurationFile);
      return false;
    case IniRead::kTooLarge:
      TraceError(functionName, L"Configuration file has more than %u bytes: %s",
                 static_cast<unsigned>(kLargestIniFile), configurationFile);
      return false;
    case IniRead::kNoText:
      TraceError(functionName, L"Configuration file is damaged, it holds null characters: %s",
                 configurationFile);
      return false;
    case IniRead::kFailed:
      TraceError(functionName, L"Configuration file cannot be read (%u): %s",
                 static_cast<unsigned>(file.Error()), configurationFile);
      return false;
  }
  const OptionReader reader(functionName, file);
  reader.ReadText(L"Text1", options.Text1);
  reader.ReadText(L"Text2", options.Text2);
  reader.ReadText(L"Text3", options.Text3);
  reader.ReadText(L"Text4", options.Text4);
  options.Word1 = reader.ReadNumber<WORD>(L"Word1");
  options.Word2 = reader.ReadNumber<WORD>(L"Word2");
  options.Word3 = reader.ReadNumber<WORD>(L"Word3");
  options.Word4 = reader.ReadNumber<WORD>(L"Word4");
  options.Dword1 = reader.ReadNumber<DWORD>(L"Dword1");
  options.Dword2 = reader.ReadNumber<DWORD>(L"Dword2");
  options.Dword3 = reader.ReadNumber<DWORD>(L"Dword3");
  options.Dword4 = reader.ReadNumber<DWORD>(L"Dword4");
  options.Dword5 = reader.ReadNumber<DWORD>(L"Dword5");
  options.Dword6 = reader.ReadNumber<DWORD>(L"Dword6");
  options.Byte1 = reader.ReadNumber<BYTE>(L"Byte1");
  return true;
}
