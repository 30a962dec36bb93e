#include "identity/osnames.h"

#include <mbstring.h>

#include <algorithm>
#include <iterator>

#include "support/windows_api.h"

namespace {

struct OsName {
  std::uint32_t code;
  const char* name;
};

constexpr OsName kOsNames[] = {
    {50023, "Windows 95"},
    {50001, "Windows Vista"},
    {50024, "Windows 98"},
    {50002, "Windows Server 2008"},
    {50016, "Windows XP Professional"},
    {50008, "Windows 2003 Data Center Edition"},
    {50015, "Windows XP Home"},
    {50007, "Windows 2003 Standard 64 bit Edition(AMD Based)"},
    {50020, "Windows NT Workstation"},
    {50003, "Windows 2003 Data Center 64 bit Edition(Itanium Based)"},
    {50022, "Windows NT Server Standard"},
    {50005, "Windows 2003 Data Center 64 bit Edition(AMD Based)"},
    {50021, "Windows NT Server Enterprise"},
    {50026, "Windows Vista 64 bit"},
    {50027, "Windows NT 3.51"},
    {50013, "Windows XP Professional 64 bit"},
    {50014, "Windows Server 2003"},
    {50029, "Windows Server 2008 64 bit"},
    {50019, "Windows 2000 Professional"},
    {50030, "Windows Server 2008 R2"},
    {50025, "Windows Millennium"},
    {50031, "Windows Server 2008 R2 64 bit"},
    {50028, "Windows 2000 Server"},
    {50032, "Windows 7"},
    {50018, "Windows 2000 Advance Server"},
    {50033, "Windows 7 64 bit"},
    {50017, "Windows 2000 Data Center Edition"},
    {50034, "Windows 8"},
    {50010, "Windows 2003 Web Edition"},
    {50035, "Windows 8 64 bit"},
    {50009, "Windows 2003 Enterprise Edition"},
    {50036, "Windows Server 2012"},
    {50011, "Windows 2003 Standard Edition"},
    {50037, "Windows Server 2012 64 bit"},
    {50004, "Windows 2003 Enterprise 64 bit Edition(Itanium Based)"},
    {50038, "Windows 8.1"},
    {50006, "Windows 2003 Enterprise 64 bit Edition(AMD Based)"},
    {50039, "Windows 8.1 64 bit"},
    {50012, "Windows Server 2003 R2"},
    {50040, "Windows Server 2012 R2 64 bit"},
    {50041, "Windows 10"},
    {50044, "Windows Small Business Server 2011 Essentials"},
    {50042, "Windows 10 64 bit"},
    {50045, "Windows Small Business Server 2011 Essentials 64 bit"},
    {50043, "Windows Server 2016 64 bit"},
    {50046, "Windows Server 2019 64 bit"},
    {50047, "Windows Server 2022 64 bit"},
    {50048, "Windows 11"},
    {50049, "Windows 11 64 bit"},
};

// Small Business Server has names but is not looked up by them.
constexpr bool IsFoundByName(std::uint32_t code) { return code != 50044 && code != 50045; }

const unsigned char* Bytes(const char* text) noexcept {
  return reinterpret_cast<const unsigned char*>(text);
}

}  // namespace

std::uint32_t GetOSCodeByName(const char* name) {
  if (name == nullptr) {
    return 0;
  }
  const auto* const row = std::ranges::find_if(kOsNames, [name](const OsName& candidate) {
    return IsFoundByName(candidate.code) && _mbscmp(Bytes(candidate.name), Bytes(name)) == 0;
  });
  return row != std::end(kOsNames) ? row->code : 0;
}

bool GetOSNameByCode(std::uint32_t code, char* buffer, std::size_t size) {
  const auto* const row = std::ranges::find(kOsNames, code, &OsName::code);
  return row != std::end(kOsNames) && buffer != nullptr &&
         SUCCEEDED(StringCchCopyA(buffer, size, row->name));
}
