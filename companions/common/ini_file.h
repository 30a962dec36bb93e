// A configuration file (INI) in one state: read whole, against writers, so that all its values come
// from the same version of it. For the libraries that read settings and for the program, which
// looks for its identifier there. Nothing here writes a trace line.
#pragma once

#include <memory>

#include "support/windows_api.h"

// In bytes; many times what any setting needs.
constexpr DWORD kLargestIniFile = 1024 * 1024;

// How long IniFile::ReadPatiently waits for a file in other hands. Nothing tells when it is given
// back, so it is tried again after short pauses.
constexpr DWORD kIniPatienceMilliseconds = 5000;
constexpr DWORD kIniPauseMilliseconds = 50;
constexpr DWORD kIniPauses = kIniPatienceMilliseconds / kIniPauseMilliseconds;

// Some programs save a file in several openings, and it is empty or half there in between. What has
// been left alone for this long is taken for whole.
constexpr DWORD kIniRestMilliseconds = 2000;
constexpr DWORD kIniRestPauses = kIniRestMilliseconds / kIniPauseMilliseconds;

// The section of the agent's configuration file in which the program keeps the identifier of the
// machine. The program adds it behind all others.
constexpr wchar_t kIdentifierSection[] = L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION";

// Where a section stands in a file.
enum class SectionPlace { kNowhere, kLast, kFollowed };

enum class IniRead {
  kDone,
  kMissing,   // no such file, no such folder, or a name that none can have
  kBusy,      // in the hands of another program, or just being written: to be tried again
  kTooLarge,  // more than kLargestIniFile
  kNoText,    // holds null characters: damaged, or UTF-16 without its mark
  kFailed
};

// Whether a file could not be opened, or read, because another program is at it: to be tried again.
// Asked right after the call that failed with `error`.
bool MeansBusy(DWORD error) noexcept;

// Whether names in the folder of `path` have changed less than kIniRestMilliseconds ago, and not in
// the folder's first minute, as by an installation: a file that is missing there may be about to be
// saved anew.
bool HasFolderJustChanged(const wchar_t* path) noexcept;

class IniFile {
 public:
  // Reads text in the ANSI code page, or in UTF-16 or UTF-8 with a byte order mark. One attempt.
  // The object has values only when this gives kDone.
  IniRead Read(const wchar_t* path) noexcept;

  // The same, tried again for as long as it gives kBusy, until the patience is at its end.
  IniRead ReadPatiently(const wchar_t* path) noexcept {
    return ReadPatiently(path, /*pausesWhileMissing=*/0, [](const IniFile&) { return true; });
  }

  // The same, tried again, too, while there is no file, for so many pauses at the most, and while
  // `isWhole` of what was just written is false. What is not whole then is kDone all the same:
  // see WasJustWritten.
  template <typename IsWhole>
  IniRead ReadPatiently(const wchar_t* path, DWORD pausesWhileMissing, IsWhole isWhole) noexcept {
    for (DWORD pause = 0;; ++pause) {
      const IniRead outcome = Read(path);
      const bool mayBeBetterSoon =
          outcome == IniRead::kBusy ||
          (outcome == IniRead::kMissing && pause < pausesWhileMissing) ||
          (outcome == IniRead::kDone && WasJustWritten(kIniRestMilliseconds) && !isWhole(*this));
      if (!mayBeBetterSoon || pause == kIniPauses) {
        return outcome;
      }
      Sleep(kIniPauseMilliseconds);
    }
  }

  // Whether what was read had been written less than this before: its writer may not be done, for
  // some write a file in several openings. A time to come counts as long ago.
  bool WasJustWritten(DWORD milliseconds) const noexcept;

  // The Windows error behind kBusy and kFailed.
  DWORD Error() const noexcept { return m_error; }

  // Copies the value of the first key of that name in the first section of that name, as the
  // functions of Windows for such files do: names in any letters, blanks around the value and one
  // pair of quotes around it taken off. `capacity` counts characters, the terminator included (at
  // least 1); a longer value is cut. The length copied, 0 when there is no value.
  DWORD Value(const wchar_t* section, const wchar_t* key, wchar_t* value,
              DWORD capacity) const noexcept;

  // Of the first section of that name.
  SectionPlace PlaceOf(const wchar_t* section) const noexcept;

 private:
  struct HeapFreer {
    void operator()(void* memory) const noexcept { HeapFree(GetProcessHeap(), 0, memory); }
  };
  template <typename Item>
  using HeapArray = std::unique_ptr<Item[], HeapFreer>;

  template <typename Item>
  static HeapArray<Item> Allocate(DWORD count) noexcept {
    return HeapArray<Item>(
        static_cast<Item*>(HeapAlloc(GetProcessHeap(), 0, (count + 1) * sizeof(Item))));
  }

  IniRead Fail(IniRead outcome, DWORD error) noexcept;
  IniRead Decode(const unsigned char* bytes, DWORD count) noexcept;
  IniRead DecodeNarrow(const unsigned char* bytes, DWORD count, UINT codePage) noexcept;
  IniRead DecodeWide(const unsigned char* bytes, DWORD count, bool isBigEndian) noexcept;

  HeapArray<wchar_t> m_text;
  DWORD m_length = 0;
  FILETIME m_written = {};
  DWORD m_error = ERROR_SUCCESS;
};

// Cuts a comment after a value, with the blanks in front of it. Windows and IniFile keep it, since
// in a text a semicolon can be meant.
void CutComment(wchar_t* value) noexcept;
