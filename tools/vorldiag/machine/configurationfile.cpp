#include "tools/vorldiag/machine/configurationfile.h"

#include "tools/vorldiag/text/utf8.h"

std::string ReadConfiguration(const std::wstring& path, IniFile& file) {
  switch (file.ReadPatiently(path.c_str())) {
    case IniRead::kDone:
    case IniRead::kMissing:
      return "";
    case IniRead::kBusy:
      return "the file is in use: " + ErrorText(file.Error());
    case IniRead::kTooLarge:
      return "the file is too large for a configuration file";
    case IniRead::kNoText:
      return "the file is damaged, it holds null characters";
    case IniRead::kFailed:
      break;
  }
  return "the file cannot be read: " + ErrorText(file.Error());
}
