// Files and folders of the trace: their names, their access rights and the full ones among them.
#pragma once

#include <atomic>
#include <cstdint>

#include "companions/common/folders.h"
#include "support/handle.h"
#include "support/windows_api.h"

inline constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

inline constexpr wchar_t kFullFileFormat[] = L"vorltrace.%06u.log";
// After it stands which process made the file, and when.
inline constexpr wchar_t kSpillFilePrefix[] = L"vorltrace.process";

// The path of a file in a folder, or of the folder itself. Has room for the longest folder that the
// product accepts, and has the prefix without which Windows takes no path of that length.
class TracePath {
 public:
  explicit TracePath(const wchar_t* folder, const wchar_t* name = L"") noexcept;
  // The full file with this number.
  TracePath(const wchar_t* folder, std::uint32_t number) noexcept;
  const wchar_t* Get() const noexcept { return m_path; }

 private:
  static constexpr std::size_t kLongestName = 64;
  wchar_t m_path[kLongestFolder + kLongestName + 16] = {};
};

// Makes the folder when there is none. Files and folders that are made here are for administrators
// and the system only and inherit nothing. Returns a Windows error.
DWORD MakeTraceFolder(const wchar_t* folder, bool& wasThere) noexcept;

// CreateFileW for such a file; none when it fails, with the last error set. Where the file may be
// made, the last error says after success whether it was there (ERROR_ALREADY_EXISTS).
FileHandle OpenTraceFolderFile(const wchar_t* path, DWORD access, DWORD shareMode,
                               DWORD disposition) noexcept;

// Whether others than administrators, the system and this process's account may write the file or
// folder. False where that cannot be found out.
bool IsOpenToOthers(const wchar_t* path) noexcept;

// Renames the file `name` to the first free number from `next` on, and sets `next` to the one after
// it. Numbers begin anew after the highest that there can be. Returns the number; 0 when it fails,
// with the last error set.
std::uint32_t GiveNumber(const wchar_t* folder, const wchar_t* name,
                         std::atomic<std::uint32_t>& next) noexcept;

// Moves `next` after the highest number in the folder unless it is there already.
void CountOn(const wchar_t* folder, std::atomic<std::uint32_t>& next) noexcept;

// In one pass: gives a number to what processes that are gone have left, and deletes the full files
// but the `count` youngest. One that cannot be deleted stays until the next time. Needs no lock.
void Tidy(const wchar_t* folder, std::atomic<std::uint32_t>& next, std::uint32_t count) noexcept;
