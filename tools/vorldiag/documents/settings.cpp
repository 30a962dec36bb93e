#include "tools/vorldiag/documents/settings.h"

#include <cctype>
#include <sstream>

#include "tools/vorldiag/documents/documents.h"
#include "tools/vorldiag/machine/configurationfile.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

constexpr DWORD kValueCapacity = 1024;

// Lines such as ";Files=10" below "[TRACE]".
std::vector<Setting> KnownSettings() {
  std::vector<Setting> settings;
  std::istringstream text(Document(L"SETTINGS"));
  std::string section;
  for (std::string line; std::getline(text, line);) {
    const std::size_t equals = line.find('=');
    if (line.size() > 2 && line.front() == '[' && line.back() == ']') {
      section = line.substr(1, line.size() - 2);
    } else if (line.size() > 1 && line[0] == ';' && line[1] != ' ' && equals != std::string::npos) {
      settings.push_back({section, line.substr(1, equals - 1), line.substr(equals + 1), ""});
    }
  }
  return settings;
}

}  // namespace

bool Setting::IsDefault() const {
  // One word for all levels.
  const std::string text =
      section == "TRACE" && key == "Levels" && EqualsIgnoringCase(Wide(value), L"ALL") ? byDefault
                                                                                       : value;
  return text.empty() || EqualsIgnoringCase(Wide(text), Wide(byDefault));
}

Settings ReadSettings(const std::wstring& configurationFile) {
  Settings result{"", KnownSettings()};
  IniFile file;
  result.problem = ReadConfiguration(configurationFile, file);
  for (Setting& setting : result.settings) {
    wchar_t value[kValueCapacity] = {};
    file.Value(Wide(setting.section).c_str(), Wide(setting.key).c_str(), value, kValueCapacity);
    setting.value = Utf8(value);
  }
  return result;
}
