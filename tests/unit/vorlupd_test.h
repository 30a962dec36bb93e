// What the tests of the update module share.
#pragma once

#include "modules/vorlupd/vorlupd.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "modules/vorlupd/filesystem.h"
#include "modules/vorlupd/journal.h"
#include "tests/support/expected_trace.h"
#include "tests/support/journal.h"
#include "tests/support/start_process.h"
#include "tests/unit/vorlupd_operations.h"
#include "tests/unit/vorlupd_sample.h"

namespace fs = std::filesystem;

using sample_update::New;
using sample_update::Old;
using sample_update::Pending;
using sample_update::Prepare;
using sample_update::Rest;
using sample_update::Tree;
using sample_update::TreeOfInstallation;
using sample_update::WithPending;

// The lines of its operations.
inline constexpr char kUpdateModule[] = "vorlupd.dll";
inline constexpr char kUpdateSource[] = "modules/vorlupd/update.cpp";
inline constexpr ExpectedTrace kUpdate{"UpdateBeforeClientService", "modules/vorlupd/vorlupd.cpp",
                                       kUpdateModule};
inline constexpr ExpectedTrace kUndoInterrupted{"Update::UndoInterrupted", kUpdateSource,
                                                kUpdateModule};
inline constexpr ExpectedTrace kApplyPending{"Update::ApplyPending", kUpdateSource, kUpdateModule};
inline constexpr ExpectedTrace kPlanFile{"Update::PlanFile", kUpdateSource, kUpdateModule};
inline constexpr ExpectedTrace kPrepare{"Update::Prepare", kUpdateSource, kUpdateModule};
inline constexpr ExpectedTrace kExecute{"Update::Execute", kUpdateSource, kUpdateModule};
inline constexpr ExpectedTrace kUndo{"Update::Undo", kUpdateSource, kUpdateModule};

inline FileHandle OpenWithoutSharing(const fs::path& file) {
  FileHandle handle(CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(handle) << file << ", error " << GetLastError();
  return handle;
}

// Makes the folder `link` lead to `target`; false where this cannot be done. A program under Wine
// makes a link with the host's own tools, which it can run.
inline bool MakeFolderLink(const fs::path& link, const fs::path& target) {
  struct ChangeTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { FindCloseChangeNotification(handle); }
  };
  using UnixName = char*(const wchar_t*);
  auto* const unixName = reinterpret_cast<UnixName*>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  std::string command;
  if (unixName == nullptr) {
    command = "cmd.exe /c mklink /J \"" + link.string() + "\" \"" + target.string() + "\"";
  } else {
    const std::string parent = unixName(link.parent_path().c_str());
    command = "Z:\\bin\\ln -s \"" + std::string(unixName(target.c_str())) + "\" \"" + parent + "/" +
              link.filename().string() + "\"";
  }
  // The end of one of the host's programs cannot be waited for, what it does can.
  const UniqueHandle<ChangeTraits> change(
      FindFirstChangeNotificationW(link.parent_path().c_str(), FALSE,
                                   FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME));
  const KernelHandle process = StartProcess(fs::path(command).wstring()).process;
  WaitForSingleObject(process.Get(), 30'000);
  DWORD attributes = GetFileAttributesW(link.c_str());
  while (attributes == INVALID_FILE_ATTRIBUTES &&
         WaitForSingleObject(change.Get(), 30'000) == WAIT_OBJECT_0) {
    FindNextChangeNotification(change.Get());
    attributes = GetFileAttributesW(link.c_str());
  }
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

class UpdateModule : public ::testing::Test {
 protected:
  static bool Run(const Installation& installation) {
    const Library module(installation / "vorlupd.dll");
    return module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")() != FALSE;
  }
  bool Run() const { return Run(m_installation); }

  void Install(const std::string& file, const std::string& text) const {
    WriteText(m_installation / file, text);
  }
  void Pend(const std::string& file, const std::string& text) const {
    WriteText(m_installation / "pending" / file, text);
  }

  Tree Installed() const { return TreeOfInstallation(m_installation); }

  Journal m_journal{Journal::Formats::kLeftOut};
  const Installation m_installation{{"vorlupd.dll"}};
};
