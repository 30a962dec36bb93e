// Another version of Windows.
#pragma once

#include <cstdint>
#include <cstring>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"

// While one lives, comparisons with the system's version are answered for the version given, or
// cannot be made at all.
class ReportedVersion {
 public:
  ReportedVersion(DWORD major, DWORD minor) : ReportedVersion() {
    s_isAvailable() = true;
    s_version() = Combined(major, minor);
  }

  static ReportedVersion Unavailable() { return ReportedVersion(); }

 private:
  ReportedVersion()
      : m_patch("KERNEL32.dll", "GetProcAddress", [this](HMODULE module, LPCSTR name) -> FARPROC {
          constexpr std::uintptr_t kLastOrdinal = 0xFFFF;
          if (reinterpret_cast<std::uintptr_t>(name) <= kLastOrdinal ||
              std::strcmp(name, "RtlVerifyVersionInfo") != 0) {
            return m_patch.CallOriginal(module, name);
          }
          return s_isAvailable() ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&Verify))
                                 : nullptr;
        }) {
    s_isAvailable() = false;
  }

  static bool& s_isAvailable() {
    static bool isAvailable = false;
    return isAvailable;
  }
  static DWORD& s_version() {
    static DWORD version = 0;
    return version;
  }
  static DWORD Combined(DWORD major, DWORD minor) { return major << 16U | minor; }

  static LONG WINAPI Verify(OSVERSIONINFOEXW* asked, ULONG /*fields*/, ULONGLONG conditions) {
    constexpr LONG kRevisionMismatch = static_cast<LONG>(0xC0000059);
    const DWORD other = Combined(asked->dwMajorVersion, asked->dwMinorVersion);
    // Three bits a field, the minor version's first.
    const bool isAnswerYes =
        (conditions & 7U) == VER_EQUAL ? s_version() == other : s_version() >= other;
    return isAnswerYes ? 0 : kRevisionMismatch;
  }

  CallPatch<ReportedVersion, FARPROC WINAPI(HMODULE, LPCSTR)> m_patch;
};
