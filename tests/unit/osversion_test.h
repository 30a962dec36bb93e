// What the tests of the system's version share.
#pragma once

#include "identity/osversion.h"

#include "identity/oscode.h"
#include "identity/osnames.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/handle.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/support/start_process.h"

inline constexpr LONG kSuccess = 0;
inline constexpr LONG kRevisionMismatch = static_cast<LONG>(0xC0000059);
inline constexpr LONG kUnsuccessful = static_cast<LONG>(0xC0000001);

inline constexpr BYTE kWorkstation = 1;
inline constexpr BYTE kDomainController = 2;
inline constexpr BYTE kServer = 3;

inline constexpr WORD kIntel = 0;
inline constexpr WORD kIa64 = 6;
inline constexpr WORD kAlpha64 = 7;
inline constexpr WORD kAmd64 = 9;
inline constexpr WORD kIa32OnWin64 = 10;
inline constexpr WORD kArm64 = 12;

inline constexpr WORD kEnterprise = 0x2;
inline constexpr WORD kDatacenter = 0x80;
inline constexpr WORD kPersonal = 0x200;
inline constexpr WORD kBlade = 0x400;

// What the system answers, as far as the questions go.
struct FakeSystem {
  DWORD platform = 2;
  DWORD major = 10;
  DWORD minor = 0;
  DWORD build = 19045;
  BYTE productType = kWorkstation;
  WORD suites = 0;
  WORD architecture = kAmd64;
  int serverR2 = 0;
  WORD spMajor = 0;
  WORD spMinor = 0;
};

// What a comparison was asked for.
struct VerifyCall {
  OSVERSIONINFOEXW version;
  ULONG fields;
  ULONGLONG conditions;
};

// Puts a FakeSystem in the place of the real one: answers GetProcAddress for the functions that are
// bound by name, and replaces the imported ones.
class OsVersion : public ::testing::Test {
 public:
  OsVersion() { s_test = this; }
  ~OsVersion() override { s_test = nullptr; }

 protected:
  static inline OsVersion* s_test = nullptr;

  FakeSystem m_system;
  // Functions that the system does not have.
  std::vector<std::string> m_missing;
  // Set: what the function answers instead.
  std::optional<LONG> m_getVersionStatus;
  std::optional<LONG> m_verifyStatus;
  // Sizes that GetVersionExW takes.
  std::vector<DWORD> m_getVersionExSizes = {284, 276};
  DWORD m_productInfo = 48;

  std::vector<std::string> m_bound;
  std::vector<DWORD> m_getVersionExCalls;
  std::vector<VerifyCall> m_verifyCalls;
  std::vector<DWORD> m_productInfoCall;

 private:
  // Fills in what a record of this size has room for.
  void Answer(OSVERSIONINFOEXW* record) const {
    record->dwMajorVersion = m_system.major;
    record->dwMinorVersion = m_system.minor;
    record->dwBuildNumber = m_system.build;
    record->dwPlatformId = m_system.platform;
    if (record->dwOSVersionInfoSize == 284) {
      record->wServicePackMajor = m_system.spMajor;
      record->wServicePackMinor = m_system.spMinor;
      record->wSuiteMask = m_system.suites;
      record->wProductType = m_system.productType;
    }
  }

  static LONG WINAPI FakeRtlGetVersion(OSVERSIONINFOEXW* record) {
    EXPECT_EQ(record->dwOSVersionInfoSize, 284U);
    // Also when it fails, so that leftovers would show.
    s_test->Answer(record);
    return s_test->m_getVersionStatus.value_or(kSuccess);
  }

  // Compares field by field, the most important first, as the system does.
  static LONG WINAPI FakeRtlVerifyVersionInfo(OSVERSIONINFOEXW* version, ULONG fields,
                                              ULONGLONG conditions) {
    EXPECT_EQ(version->dwOSVersionInfoSize, 284U);
    s_test->m_verifyCalls.push_back({*version, fields, conditions});
    if (s_test->m_verifyStatus.has_value()) {
      return *s_test->m_verifyStatus;
    }
    const FakeSystem& system = s_test->m_system;
    std::vector<DWORD> running;
    std::vector<DWORD> wanted;
    const auto compare = [&](ULONG field, DWORD left, DWORD right) {
      if ((fields & field) != 0) {
        running.push_back(left);
        wanted.push_back(right);
      }
    };
    compare(VER_MAJORVERSION, system.major, version->dwMajorVersion);
    compare(VER_MINORVERSION, system.minor, version->dwMinorVersion);
    compare(VER_SERVICEPACKMAJOR, system.spMajor, version->wServicePackMajor);
    compare(VER_SERVICEPACKMINOR, system.spMinor, version->wServicePackMinor);
    // Tests ask for one condition in all fields; the minor version and the service pack's minor
    // number have the lowest places.
    const auto condition = ((fields & VER_MINORVERSION) != 0 ? conditions : conditions >> 12) & 7;
    const bool matches = condition == VER_EQUAL           ? running == wanted
                         : condition == VER_GREATER_EQUAL ? running >= wanted
                         : condition == VER_LESS          ? running < wanted
                                                          : false;
    return matches ? kSuccess : kRevisionMismatch;
  }

  static void WINAPI FakeGetNativeSystemInfo(SYSTEM_INFO* info) {
    info->wProcessorArchitecture = s_test->m_system.architecture;
  }

  static BOOL WINAPI FakeGetProductInfo(DWORD major, DWORD minor, DWORD spMajor, DWORD spMinor,
                                        DWORD* type) {
    s_test->m_productInfoCall = {major, minor, spMajor, spMinor};
    *type = s_test->m_productInfo;
    return s_test->m_productInfo != 0 ? TRUE : FALSE;
  }

  FARPROC Bind(HMODULE module, const char* name) {
    static const std::map<std::string, void*> kFakes = {
        {"RtlGetVersion", reinterpret_cast<void*>(&FakeRtlGetVersion)},
        {"RtlVerifyVersionInfo", reinterpret_cast<void*>(&FakeRtlVerifyVersionInfo)},
        {"GetNativeSystemInfo", reinterpret_cast<void*>(&FakeGetNativeSystemInfo)},
        {"GetProductInfo", reinterpret_cast<void*>(&FakeGetProductInfo)}};
    const auto fake = kFakes.find(name);
    if (fake == kFakes.end()) {
      return m_getProcAddress.CallOriginal(module, name);
    }
    m_bound.push_back(name);
    // The name must be a real one of that library.
    EXPECT_NE(m_getProcAddress.CallOriginal(module, name), nullptr) << name;
    const bool isMissing = std::ranges::find(m_missing, name) != m_missing.end();
    return isMissing ? nullptr : reinterpret_cast<FARPROC>(fake->second);
  }

  CallPatch<struct BindTag, FARPROC WINAPI(HMODULE, const char*)> m_getProcAddress{
      "KERNEL32.dll", "GetProcAddress",
      [this](HMODULE module, const char* name) { return Bind(module, name); }};
  CallPatch<struct VersionExTag, BOOL WINAPI(OSVERSIONINFOEXW*)> m_getVersionEx{
      "KERNEL32.dll", "GetVersionExW", [this](OSVERSIONINFOEXW* record) {
        const DWORD size = record->dwOSVersionInfoSize;
        m_getVersionExCalls.push_back(size);
        if (std::ranges::find(m_getVersionExSizes, size) == m_getVersionExSizes.end()) {
          return FALSE;
        }
        Answer(record);
        return TRUE;
      }};
  CallPatch<struct MetricsTag, int WINAPI(int)> m_getSystemMetrics{"USER32.dll", "GetSystemMetrics",
                                                                   [this](int metric) {
                                                                     EXPECT_EQ(metric, 89);
                                                                     return m_system.serverR2;
                                                                   }};
};

using Version = std::pair<DWORD, DWORD>;

// The versions by index, on a 64-bit processor; index 0 stands for any other.
inline const std::map<int, Version> kVersions = {
    {1, {5, 0}}, {2, {5, 2}},  {3, {5, 2}},  {4, {6, 0}},  {5, {6, 1}},  {6, {6, 2}},
    {7, {6, 3}}, {8, {10, 0}}, {0, {10, 0}}, {9, {10, 0}}, {-1, {10, 0}}};
