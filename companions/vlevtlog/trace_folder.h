// Files and folders of the trace: their names, their access rights and the full ones among them.
#pragma once

#include <cstdint>

#include "companions/vlevtlog/owned_handle.h"
#include "support/windows_api.h"

inline constexpr wchar_t kFirstFileName[] = L"vorltrace.log";
inline constexpr wchar_t kSecondFileName[] = L"vorltrace.second.log";
inline constexpr wchar_t kStateFileName[] = L"vorltrace.lock";

// The path of a file in a folder; empty when it is too long.
class TracePath {
 public:
  TracePath(const wchar_t* folder, const wchar_t* name) noexcept;
  // The full file with this number.
  TracePath(const wchar_t* folder, std::uint32_t number) noexcept;
  const wchar_t* Get() const noexcept { return m_path; }

 private:
  wchar_t m_path[MAX_PATH] = {};
};

// Makes the folder when there is none. Files and folders that are made here are for administrators
// and the system only and inherit nothing. Returns a Windows error.
DWORD MakeTraceFolder(const wchar_t* folder) noexcept;

// CreateFileW for such a file; null when it fails, with the last error set.
OwnedHandle OpenTraceFolderFile(const wchar_t* path, DWORD access, DWORD shareMode,
                                DWORD disposition) noexcept;

// The number that the next full file gets.
std::uint32_t NextFileNumber(const wchar_t* folder) noexcept;

// Deletes the oldest full files until `count` are left. One that cannot be deleted stays until the
// next time.
void DeleteOldFiles(const wchar_t* folder, std::uint32_t count) noexcept;
