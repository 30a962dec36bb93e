#include "tools/vorldiag/bundle/secrets.h"

#include "support/handle.h"
#include "support/windows_api.h"
#include "tools/vorldiag/identity/placeholders.h"
#include "tools/vorldiag/machine/rights.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

constexpr wchar_t kProfiles[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

std::string NameOf(COMPUTER_NAME_FORMAT format) {
  wchar_t name[512] = {};
  DWORD size = static_cast<DWORD>(std::size(name));
  return GetComputerNameExW(format, name, &size) ? Utf8(name) : "";
}

// Of every account that has ever logged on, its folder's name among them.
void AddProfiles(Mask& mask) {
  RegistryKey profiles;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProfiles, 0, KEY_READ, profiles.Receive()) !=
      ERROR_SUCCESS) {
    return;
  }
  wchar_t sid[256] = {};
  DWORD length = static_cast<DWORD>(std::size(sid));
  for (DWORD i = 0; RegEnumKeyExW(profiles.Get(), i, sid, &length, nullptr, nullptr, nullptr,
                                  nullptr) == ERROR_SUCCESS;
       ++i) {
    wchar_t path[1024] = {};
    DWORD size = sizeof(path);
    if (NoteAccount(sid) && RegGetValueW(profiles.Get(), sid, L"ProfileImagePath", RRF_RT_ANY,
                                         nullptr, path, &size) == ERROR_SUCCESS) {
      const std::wstring folder = path;
      mask.AddName("user", Utf8(folder.substr(folder.find_last_of(L'\\') + 1)));
    }
    length = static_cast<DWORD>(std::size(sid));
  }
}

}  // namespace

void AddSecrets(const Hardware& hardware, Mask& mask) {
  mask.AddValue("identifier", hardware.identifier);
  for (const std::string& uuid : {hardware.biosUuid.value, hardware.processedBiosId}) {
    mask.AddValue("uuid", uuid);
  }
  for (const std::string& serial : {hardware.diskSerial.value, hardware.optimumSerial}) {
    // One that many computers have tells none of them, and may be a word of every log.
    if (PlaceholderSerial(serial).empty()) {
      mask.AddValue("serial", serial);
    }
  }
  for (const RawParameter& address : hardware.addresses) {
    mask.AddValue("address", address.value);
  }
  for (const std::string& address : {hardware.address1, hardware.address2}) {
    mask.AddValue("address", address);
  }
  for (const COMPUTER_NAME_FORMAT format : {ComputerNameDnsHostname, ComputerNameNetBIOS}) {
    mask.AddName("computer", NameOf(format));
  }
  mask.AddName("domain", NameOf(ComputerNameDnsDomain));

  NoteOwnAccount();
  AddProfiles(mask);
  for (const Account& account : NotedAccounts()) {
    mask.AddName("user", account.name);
    mask.AddName("domain", account.domain);
  }
}
