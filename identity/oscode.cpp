#include "identity/oscode.h"

#include "identity/osversion.h"

namespace {

// From these builds on, version 10.0 is Windows 11, Server 2019 and Server 2022.
constexpr DWORD kWindows11Build = 22000;
constexpr DWORD kServer2019Build = 17623;
constexpr DWORD kServer2022Build = 20285;

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
  bool IsX64() const noexcept { return Is64BitArchitecture(architecture); }

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
  if (IsCertainly(kVersionIndex100)) {
    code = CodeOfVersion100(system);
  } else if (IsCertainly(kVersionIndex63)) {
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

}  // namespace

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
