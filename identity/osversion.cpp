#include "identity/osversion.h"

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

// The function `name` of a system library that every process has loaded, or null.
template <typename Function>
Function* SystemFunction(const char* library, const char* name) noexcept {
  const HMODULE module = GetModuleHandleA(library);
  return module != nullptr ? ProcAddress<Function>(module, name) : nullptr;
}

OSVERSIONINFOEXW VersionOfIndex(int index) noexcept {
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  const auto set = [&version](DWORD major, DWORD minor) {
    version.dwMajorVersion = major;
    version.dwMinorVersion = minor;
  };
  switch (index) {
    case kVersionIndex50:
      set(5, 0);
      break;
    case kVersionIndexXp:
      set(5, IsNative64Bit() ? 2 : 1);
      break;
    case kVersionIndex52:
      set(5, 2);
      break;
    case kVersionIndex60:
      set(6, 0);
      break;
    case kVersionIndex61:
      set(6, 1);
      break;
    case kVersionIndex62:
      set(6, 2);
      break;
    case kVersionIndex63:
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

bool Is64BitArchitecture(WORD architecture) noexcept {
  return architecture == PROCESSOR_ARCHITECTURE_IA64 ||
         architecture == PROCESSOR_ARCHITECTURE_ALPHA64 ||
         architecture == PROCESSOR_ARCHITECTURE_AMD64 ||
         architecture == PROCESSOR_ARCHITECTURE_IA32_ON_WIN64;
}

bool IsNative64Bit() { return Is64BitArchitecture(NativeArchitecture()); }

bool IsServerR2() noexcept { return GetSystemMetrics(SM_SERVERR2) != 0; }

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

bool IsWin2000OrGreater(bool& answer) { return IsVersionOrGreater(kVersionIndex50, answer); }

bool IsWinXPOrGreater(bool& answer) { return IsVersionOrGreater(kVersionIndexXp, answer); }

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
    index = kVersionIndex100;
    return true;
  }
  if (record.dwMajorVersion == 5 && record.dwMinorVersion <= 2) {
    constexpr int kMinors[] = {kVersionIndex50, kVersionIndexXp, kVersionIndex52};
    const bool isXp64 =
        record.dwMinorVersion == 2 && record.wProductType == VER_NT_WORKSTATION && !IsServerR2();
    index = isXp64 ? kVersionIndexXp : kMinors[record.dwMinorVersion];
    return true;
  }
  if (record.dwMajorVersion == 6 && record.dwMinorVersion <= 3) {
    constexpr int kMinors[] = {kVersionIndex60, kVersionIndex61, kVersionIndex62, kVersionIndex63};
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
