#include "identity/osversion.h"

#include <mbstring.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "support/procaddress.h"

namespace {

// The values of NTSTATUS that matter here.
constexpr LONG kStatusSuccess = 0;
constexpr LONG kStatusRevisionMismatch = static_cast<LONG>(0xC0000059);

// GetVersionExW's two record sizes: with and without service pack and product type.
constexpr DWORD kFullRecordSize = 284;
constexpr DWORD kBasicRecordSize = 276;
static_assert(sizeof(OSVERSIONINFOEXW) == kFullRecordSize);
static_assert(sizeof(OSVERSIONINFOW) == kBasicRecordSize);

// Fields that a comparison looks at.
constexpr DWORD kVersionFields = VER_MAJORVERSION | VER_MINORVERSION;
constexpr DWORD kServicePackFields = VER_SERVICEPACKMAJOR | VER_SERVICEPACKMINOR;
constexpr DWORD kComparableFields[] = {VER_MAJORVERSION, VER_MINORVERSION, VER_SERVICEPACKMAJOR,
                                       VER_SERVICEPACKMINOR};

// Indices of versions.
constexpr int kIndex50 = 1;
constexpr int kIndexXp = 2;
constexpr int kIndex52 = 3;
constexpr int kIndex60 = 4;
constexpr int kIndex61 = 5;
constexpr int kIndex62 = 6;
constexpr int kIndex63 = 7;
constexpr int kIndex100 = 8;

// From these builds on, version 10.0 is Windows 11, Server 2019 and Server 2022.
constexpr DWORD kWindows11Build = 22000;
constexpr DWORD kServer2019Build = 17623;
constexpr DWORD kServer2022Build = 20285;

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

// The function `name` of a system library that every process has loaded, or null.
template <typename Function>
Function* SystemFunction(const char* library, const char* name) noexcept {
  const HMODULE module = GetModuleHandleA(library);
  return module != nullptr ? ProcAddress<Function>(module, name) : nullptr;
}

// The native processor's PROCESSOR_ARCHITECTURE_ value.
WORD NativeArchitecture() noexcept {
  auto* const getNativeSystemInfo =
      SystemFunction<void WINAPI(SYSTEM_INFO*)>("Kernel32.dll", "GetNativeSystemInfo");
  if (getNativeSystemInfo == nullptr) {
    return PROCESSOR_ARCHITECTURE_UNKNOWN;
  }
  SYSTEM_INFO info{};
  getNativeSystemInfo(&info);
  return info.wProcessorArchitecture;
}

bool Is64Bit(WORD architecture) noexcept {
  return architecture == PROCESSOR_ARCHITECTURE_IA64 ||
         architecture == PROCESSOR_ARCHITECTURE_ALPHA64 ||
         architecture == PROCESSOR_ARCHITECTURE_AMD64 ||
         architecture == PROCESSOR_ARCHITECTURE_IA32_ON_WIN64;
}

bool IsServerR2() noexcept { return GetSystemMetrics(SM_SERVERR2) != 0; }

OSVERSIONINFOEXW VersionOfIndex(int index) noexcept {
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  const auto set = [&version](DWORD major, DWORD minor) {
    version.dwMajorVersion = major;
    version.dwMinorVersion = minor;
  };
  switch (index) {
    case kIndex50:
      set(5, 0);
      break;
    case kIndexXp:
      set(5, IsNative64Bit() ? 2 : 1);
      break;
    case kIndex52:
      set(5, 2);
      break;
    case kIndex60:
      set(6, 0);
      break;
    case kIndex61:
      set(6, 1);
      break;
    case kIndex62:
      set(6, 2);
      break;
    case kIndex63:
      set(6, 3);
      break;
    default:
      set(10, 0);
      break;
  }
  return version;
}

// Compares the running system with `version` in the given VER_ fields, all under one condition.
bool VerifyVersion(OSVERSIONINFOEXW version, DWORD fields, BYTE condition, bool& answer) noexcept {
  auto* const verifyVersionInfo = SystemFunction<LONG WINAPI(OSVERSIONINFOEXW*, ULONG, ULONGLONG)>(
      "Ntdll.dll", "RtlVerifyVersionInfo");
  if (verifyVersionInfo == nullptr) {
    return false;
  }
  ULONGLONG conditions = 0;
  for (const DWORD field : kComparableFields) {
    if ((fields & field) != 0) {
      conditions = VerSetConditionMask(conditions, field, condition);
    }
  }
  const LONG status = verifyVersionInfo(&version, fields, conditions);
  if (status != kStatusSuccess && status != kStatusRevisionMismatch) {
    return false;
  }
  answer = status == kStatusSuccess;
  return true;
}

// Whether the running system is certain to be of this version.
bool IsCertainly(int index) {
  bool isEqual = false;
  return IsVersionEqual(index, isEqual) && isEqual;
}

// What GetOSCode decides by.
struct System {
  OSVERSIONINFOEXW record;
  WORD architecture;

  bool IsVersion(DWORD major, DWORD minor) const noexcept {
    return record.dwMajorVersion == major && record.dwMinorVersion == minor;
  }
  bool IsWorkstation() const noexcept { return record.wProductType == VER_NT_WORKSTATION; }
  bool HasSuite(WORD suite) const noexcept { return (record.wSuiteMask & suite) != 0; }
  bool IsX64() const noexcept { return Is64Bit(architecture); }

  // The code for a 32-bit or a 64-bit system.
  std::uint32_t ByWidth(std::uint32_t code32, std::uint32_t code64) const noexcept {
    return IsX64() ? code64 : code32;
  }
};

std::uint32_t CodeOfWindows9x(const System& system) noexcept {
  if (system.IsVersion(4, 0)) {
    return 50023;
  }
  if (system.IsVersion(4, 10)) {
    return 50024;
  }
  return system.IsVersion(4, 90) ? 50025 : 0;
}

// Version 10.0; there is no code for a 32-bit server.
std::uint32_t CodeOfVersion100(const System& system) noexcept {
  const DWORD build = system.record.dwBuildNumber;
  if (system.IsWorkstation()) {
    return build < kWindows11Build ? system.ByWidth(50041, 50042) : system.ByWidth(50048, 50049);
  }
  if (!system.IsX64()) {
    return 0;
  }
  if (build < kServer2019Build) {
    return 50043;
  }
  return build < kServer2022Build ? 50046 : 50047;
}

// Version 6.3; there is no code for a 32-bit server.
std::uint32_t CodeOfVersion63(const System& system) noexcept {
  return system.IsWorkstation() ? system.ByWidth(50038, 50039) : system.ByWidth(0, 50040);
}

std::uint32_t CodeOfMajor6(const System& system) noexcept {
  const bool isWorkstation = system.IsWorkstation();
  switch (system.record.dwMinorVersion) {
    case 2:
      return isWorkstation ? system.ByWidth(50034, 50035) : system.ByWidth(50036, 50037);
    case 1:
      return isWorkstation ? system.ByWidth(50032, 50033) : system.ByWidth(50030, 50031);
    case 0:
      return isWorkstation ? system.ByWidth(50001, 50026) : system.ByWidth(50002, 50029);
    default:
      return 0;
  }
}

std::uint32_t CodeOfVersion52Workstation(const System& system) noexcept {
  if (IsServerR2()) {
    return 50012;
  }
  return system.architecture == PROCESSOR_ARCHITECTURE_AMD64 ? 50013 : 50014;
}

std::uint32_t CodeOfVersion52(const System& system) noexcept {
  if (system.IsWorkstation()) {
    return CodeOfVersion52Workstation(system);
  }
  const bool isDatacenter = system.HasSuite(VER_SUITE_DATACENTER);
  const bool isEnterprise = system.HasSuite(VER_SUITE_ENTERPRISE);
  if (system.architecture == PROCESSOR_ARCHITECTURE_IA64) {
    return isDatacenter ? 50003 : isEnterprise ? 50004 : CodeOfVersion52Workstation(system);
  }
  if (system.architecture == PROCESSOR_ARCHITECTURE_AMD64) {
    if (isDatacenter) {
      return 50005;
    }
    return isEnterprise ? 50006 : 50007;
  }
  if (isDatacenter) {
    return 50008;
  }
  if (isEnterprise) {
    return 50009;
  }
  return system.HasSuite(VER_SUITE_BLADE) ? 50010 : 50011;
}

std::uint32_t CodeOfVersion51(const System& system) noexcept {
  if (system.IsWorkstation() && system.architecture == PROCESSOR_ARCHITECTURE_AMD64) {
    return 50013;
  }
  return system.HasSuite(VER_SUITE_PERSONAL) ? 50015 : 50016;
}

std::uint32_t CodeOfVersion50(const System& system) noexcept {
  if (system.IsWorkstation()) {
    return 50019;
  }
  if (system.HasSuite(VER_SUITE_DATACENTER)) {
    return 50017;
  }
  return system.HasSuite(VER_SUITE_ENTERPRISE) ? 50018 : 50028;
}

std::uint32_t CodeOfVersion40(const System& system) noexcept {
  if (system.IsWorkstation()) {
    return 50020;
  }
  return system.HasSuite(VER_SUITE_ENTERPRISE) ? 50021 : 50022;
}

std::uint32_t CodeOfWindowsNt(const System& system) {
  std::uint32_t code = 0;
  if (IsCertainly(kIndex100)) {
    code = CodeOfVersion100(system);
  } else if (IsCertainly(kIndex63)) {
    code = CodeOfVersion63(system);
  }
  // A 32-bit server of these versions is looked up in the older rows.
  if (code != 0) {
    return code;
  }
  if (system.record.dwMajorVersion == 6) {
    return CodeOfMajor6(system);
  }
  if (system.IsVersion(5, 2)) {
    return CodeOfVersion52(system);
  }
  if (system.IsVersion(5, 1)) {
    return CodeOfVersion51(system);
  }
  if (system.IsVersion(5, 0)) {
    return CodeOfVersion50(system);
  }
  if (system.IsVersion(4, 0)) {
    return CodeOfVersion40(system);
  }
  return system.IsVersion(3, 51) ? 50027 : 0;
}

const unsigned char* Bytes(const char* text) noexcept {
  return reinterpret_cast<const unsigned char*>(text);
}

}  // namespace

bool GetOSVersionInfo(OSVERSIONINFOEXW& record) {
  OSVERSIONINFOEXW answer{};
  answer.dwOSVersionInfoSize = kFullRecordSize;
  auto* const rtlGetVersion =
      SystemFunction<LONG WINAPI(OSVERSIONINFOEXW*)>("Ntdll.dll", "RtlGetVersion");
  if (rtlGetVersion == nullptr || rtlGetVersion(&answer) != kStatusSuccess) {
    auto* const basic = reinterpret_cast<OSVERSIONINFOW*>(&answer);
    answer = {};
    answer.dwOSVersionInfoSize = kFullRecordSize;
    if (!GetVersionExW(basic)) {
      answer = {};
      answer.dwOSVersionInfoSize = kBasicRecordSize;
      if (!GetVersionExW(basic)) {
        return false;
      }
    }
  }
  record = answer;
  return true;
}

bool IsNative64Bit() { return Is64Bit(NativeArchitecture()); }

bool IsVersionOrGreater(int index, bool& answer) {
  return VerifyVersion(VersionOfIndex(index), kVersionFields, VER_GREATER_EQUAL, answer);
}

bool IsVersionEqual(int index, bool& answer) {
  return VerifyVersion(VersionOfIndex(index), kVersionFields, VER_EQUAL, answer);
}

bool IsVersionLess(int index, WORD spMajor, WORD spMinor, bool& answer) {
  OSVERSIONINFOEXW version = VersionOfIndex(index);
  version.wServicePackMajor = spMajor;
  version.wServicePackMinor = spMinor;
  return VerifyVersion(version, kVersionFields | kServicePackFields, VER_LESS, answer);
}

bool IsServicePackOrGreater(WORD spMajor, WORD spMinor, bool& answer) {
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  version.wServicePackMajor = spMajor;
  version.wServicePackMinor = spMinor;
  return VerifyVersion(version, kServicePackFields, VER_GREATER_EQUAL, answer);
}

bool IsWin2000OrGreater(bool& answer) { return IsVersionOrGreater(kIndex50, answer); }

bool IsWinXPOrGreater(bool& answer) { return IsVersionOrGreater(kIndexXp, answer); }

bool IsPAEEnabled(bool& answer) {
  answer = IsProcessorFeaturePresent(PF_PAE_ENABLED) != FALSE;
  return true;
}

bool GetVersionIndex(int& index) {
  OSVERSIONINFOEXW record;
  if (!GetOSVersionInfo(record)) {
    return false;
  }
  if (record.dwMajorVersion == 10) {
    index = kIndex100;
    return true;
  }
  if (record.dwMajorVersion == 5 && record.dwMinorVersion <= 2) {
    constexpr int kMinors[] = {kIndex50, kIndexXp, kIndex52};
    const bool isXp64 =
        record.dwMinorVersion == 2 && record.wProductType == VER_NT_WORKSTATION && !IsServerR2();
    index = isXp64 ? kIndexXp : kMinors[record.dwMinorVersion];
    return true;
  }
  if (record.dwMajorVersion == 6 && record.dwMinorVersion <= 3) {
    constexpr int kMinors[] = {kIndex60, kIndex61, kIndex62, kIndex63};
    index = kMinors[record.dwMinorVersion];
    return true;
  }
  return false;
}

bool GetPlatform(int& platform) {
  OSVERSIONINFOEXW record;
  if (!GetOSVersionInfo(record)) {
    return false;
  }
  const DWORD id = record.dwPlatformId;
  platform = id == VER_PLATFORM_WIN32_WINDOWS ? 1 : id == VER_PLATFORM_WIN32_NT ? 2 : 0;
  return true;
}

bool IsWin9x(bool& answer) {
  int platform = 0;
  if (!GetPlatform(platform)) {
    return false;
  }
  answer = platform == 1;
  return true;
}

bool IsWinNT(bool& answer) {
  int platform = 0;
  if (!GetPlatform(platform)) {
    return false;
  }
  answer = platform == 2;
  return true;
}

bool IsServer(bool& answer) {
  OSVERSIONINFOEXW record;
  if (!GetOSVersionInfo(record)) {
    return false;
  }
  answer = record.wProductType == VER_NT_DOMAIN_CONTROLLER || record.wProductType == VER_NT_SERVER;
  return true;
}

bool GetServicePack(WORD& major, WORD& minor) {
  OSVERSIONINFOEXW record;
  if (!GetOSVersionInfo(record)) {
    return false;
  }
  major = record.wServicePackMajor;
  minor = record.wServicePackMinor;
  return true;
}

bool GetProductType(DWORD& type) {
  OSVERSIONINFOEXW record;
  if (!GetOSVersionInfo(record)) {
    return false;
  }
  if (record.dwMajorVersion < 6) {
    type = record.wProductType;
    return true;
  }
  auto* const getProductInfo = SystemFunction<BOOL WINAPI(DWORD, DWORD, DWORD, DWORD, DWORD*)>(
      "Kernel32.dll", "GetProductInfo");
  DWORD answer = 0;
  if (getProductInfo == nullptr ||
      !getProductInfo(record.dwMajorVersion, record.dwMinorVersion, record.wServicePackMajor,
                      record.wServicePackMinor, &answer)) {
    return false;
  }
  type = answer;
  return true;
}

std::uint32_t GetOSCode() {
  System system{};
  if (!GetOSVersionInfo(system.record)) {
    return 0;
  }
  system.architecture = NativeArchitecture();
  switch (system.record.dwPlatformId) {
    case VER_PLATFORM_WIN32_WINDOWS:
      return CodeOfWindows9x(system);
    case VER_PLATFORM_WIN32_NT:
      return CodeOfWindowsNt(system);
    default:
      return 0;
  }
}

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
