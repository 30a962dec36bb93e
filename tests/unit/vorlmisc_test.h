// What the tests of the support library share.
#pragma once

#include "support/vorlmisc.h"

#include <gmock/gmock.h>
// Reads the types of windows.h.
#include <sddl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "companions/vlevtlog/trace_control.h"
#include "tests/support/empty_machine_key.h"
#include "tests/support/expected_trace.h"
#include "tests/support/installation.h"
#include "tests/support/journal.h"

namespace fs = std::filesystem;

using FolderFunction = BOOLEAN(wchar_t*, DWORD);
using LogOptionsFunction = BOOLEAN();
using StartUpOptionsFunction = BOOLEAN(CLIENT_AGENT_STARTUP_OPTIONS*);

// The lines of its operations, with the file that writes most of them.
inline constexpr char kMiscModule[] = "vorlmisc.dll";
inline constexpr char kMiscSource[] = "companions/vorlmisc/vorlmisc.cpp";
inline constexpr char kFoldersSource[] = "companions/vorlmisc/folders.cpp";
inline constexpr ExpectedTrace kRootDir{"GetClientAgentRootDir", kFoldersSource, kMiscModule};
inline constexpr ExpectedTrace kConfigDir{"GetClientAgentConfigDir", kFoldersSource, kMiscModule};
inline constexpr ExpectedTrace kLogOptions{"SetClientAgentLogOptions", kMiscSource, kMiscModule};
inline constexpr ExpectedTrace kStartUpOptions{
    "GetClientAgentStartUpOptions", "companions/vorlmisc/startupoptions.cpp", kMiscModule};

class SupportLibrary : public ::testing::Test {
 protected:
  SupportLibrary() { s_journal = &m_journal; }
  ~SupportLibrary() override { s_journal = nullptr; }

  // What a folder function gives; "refused" when it gives false and leaves the whole buffer alone.
  static std::wstring Ask(FolderFunction* function, DWORD capacity = kFolderCapacity) {
    constexpr wchar_t kUntouched = 0x5A5A;
    std::array<wchar_t, 600> buffer;
    buffer.fill(kUntouched);
    const bool isGiven = function(buffer.data(), capacity) != FALSE;
    const std::size_t used = isGiven ? std::wcslen(buffer.data()) + 1 : 0;
    for (std::size_t i = used; i < buffer.size(); ++i) {
      EXPECT_EQ(buffer[i], kUntouched) << "character " << i;
    }
    return isGiven ? buffer.data() : L"refused";
  }
  std::wstring RootDir(DWORD capacity = kFolderCapacity) const {
    return Ask(m_library.Ordinal<FolderFunction>(1), capacity);
  }
  std::wstring ConfigDir(DWORD capacity = kFolderCapacity) const {
    return Ask(m_library.Ordinal<FolderFunction>(2), capacity);
  }

  // Long ago.
  void WriteConfiguration(const std::string& text) const {
    WriteText(m_configuration, text);
    LetRest(m_configuration);
  }

  // Writes vorlconf.ini and reads the options from it.
  bool ReadOptions(const std::string& section) {
    WriteConfiguration("[STARTUP_OPTIONS]\r\n" + section);
    return ReadOptions();
  }
  bool ReadOptions() {
    std::memset(&m_options, 0xA5, sizeof(m_options));
    return m_library.Ordinal<StartUpOptionsFunction>(6)(&m_options) != FALSE;
  }
  bool AllOptionsAreZero() const {
    const CLIENT_AGENT_STARTUP_OPTIONS zero{};
    return std::memcmp(&m_options, &zero, sizeof(zero)) == 0;
  }

  static ExpectedLine OffDriveLine(const fs::path& path) {
    return kRootDir.Error("Registry value RootDir is no folder on a drive of this computer: " +
                          path.string());
  }

  Journal m_journal{Journal::Formats::kLeftOut};
  // The same for functions that stand in for Windows.
  static inline Journal* s_journal = nullptr;

  const EmptyMachineKey m_machine;
  const Installation m_installation{{"vorlmisc.dll"}};
  const fs::path m_configuration = m_installation / "conf" / "vorlconf.ini";
  const Library m_library{m_installation / "vorlmisc.dll"};
  CLIENT_AGENT_STARTUP_OPTIONS m_options;
};

// The pauses of the library, which take no time here.
struct Pauses {
  static void Watch(const Library& library, std::function<void(unsigned)> atPause) {
    s_count = 0;
    s_milliseconds = 0;
    s_atPause = std::move(atPause);
    library.ReplaceImport<void WINAPI(DWORD)>("Sleep", &Pause);
  }
  static void WINAPI Pause(DWORD milliseconds) {
    s_milliseconds += milliseconds;
    s_atPause(++s_count);
  }

  static inline unsigned s_count;
  static inline DWORD s_milliseconds;
  static inline std::function<void(unsigned)> s_atPause;
};

inline std::wstring AccessListOf(PSECURITY_DESCRIPTOR descriptor) {
  wchar_t* text = nullptr;
  EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(
      descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
  const std::wstring list = text == nullptr ? L"" : text;
  LocalFree(text);
  return list;
}

inline std::wstring AccessListOf(const fs::path& folder) {
  std::array<BYTE, 4096> descriptor{};
  DWORD needed = 0;
  EXPECT_TRUE(GetFileSecurityW(folder.c_str(), DACL_SECURITY_INFORMATION, descriptor.data(),
                               static_cast<DWORD>(descriptor.size()), &needed));
  return AccessListOf(descriptor.data());
}

// A folder whose path has exactly `length` characters.
inline fs::path LongFolder(const fs::path& parent, std::size_t length) {
  const fs::path folder = parent / std::wstring(length - parent.wstring().size() - 1, L'f');
  EXPECT_EQ(folder.wstring().size(), length);
  EXPECT_TRUE(CreateDirectoryW((L"\\\\?\\" + folder.wstring()).c_str(), nullptr));
  return folder;
}
