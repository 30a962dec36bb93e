#include "tools/vorldiag/identity/storedidentifier.h"

#include "tools/vorldiag/machine/configurationfile.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

constexpr wchar_t kKey[] = L"clientuniqueid";

}  // namespace

IdentifierOnDisk ReadStoredIdentifier(const std::wstring& configurationFile) {
  IniFile file;
  IdentifierOnDisk stored;
  stored.problem = ReadConfiguration(configurationFile, file);
  wchar_t value[260] = {};
  file.Value(kIdentifierSection, kKey, value, static_cast<DWORD>(std::size(value)));
  stored.value = Utf8(value);
  return stored;
}
