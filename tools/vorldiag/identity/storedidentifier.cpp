#include "tools/vorldiag/identity/storedidentifier.h"

#include "companions/common/ini_file.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

// A file in other hands: nothing tells when it is given back, so it is tried again.
constexpr DWORD kPauseMilliseconds = 50;
constexpr unsigned kTries = 40;

constexpr wchar_t kSection[] = L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION";
constexpr wchar_t kKey[] = L"clientuniqueid";

}  // namespace

IdentifierOnDisk ReadStoredIdentifier(const std::wstring& configurationFile) {
  IniFile file;
  IniRead outcome = file.Read(configurationFile.c_str());
  for (unsigned i = 1; i < kTries && outcome == IniRead::kBusy; ++i) {
    Sleep(kPauseMilliseconds);
    outcome = file.Read(configurationFile.c_str());
  }
  IdentifierOnDisk stored;
  switch (outcome) {
    case IniRead::kDone: {
      wchar_t value[260] = {};
      file.Value(kSection, kKey, value, static_cast<DWORD>(std::size(value)));
      stored.value = Utf8(value);
      break;
    }
    case IniRead::kMissing:
      break;
    case IniRead::kBusy:
      stored.problem = "the file is in use: " + ErrorText(file.Error());
      break;
    case IniRead::kTooLarge:
      stored.problem = "the file is too large for a configuration file";
      break;
    case IniRead::kNoText:
      stored.problem = "the file is damaged, it holds null characters";
      break;
    case IniRead::kFailed:
      stored.problem = "the file cannot be read: " + ErrorText(file.Error());
      break;
  }
  return stored;
}
