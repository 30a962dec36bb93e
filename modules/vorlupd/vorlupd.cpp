#include "modules/vorlupd/vorlupd.h"

#include <exception>
#include <string>

#include "modules/vorlupd/update.h"
#include "support/trace.h"

namespace {

// Set while the module is loaded, before anything can write a line.
[[maybe_unused]] const bool g_isNamed = []() noexcept {
  g_pszModuleName = "vorlupd.dll";
  return true;
}();

// The folder of this module, without trailing backslash; empty when it cannot be told.
std::wstring OwnFolder() {
  constexpr DWORD longestPath = 32768;
  HMODULE self = nullptr;
  if (!GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          reinterpret_cast<const wchar_t*>(&OwnFolder), &self)) {
    return {};
  }
  std::wstring path(longestPath, L'\0');
  path.resize(GetModuleFileNameW(self, path.data(), longestPath));
  const std::size_t fileName = path.rfind(L'\\');
  return fileName == std::wstring::npos ? std::wstring() : path.substr(0, fileName);
}

}  // namespace

BOOLEAN UpdateBeforeClientService() {
  constexpr Trace trace{"UpdateBeforeClientService"};
  trace.Info("Entry");
  try {
    const std::wstring folder = OwnFolder();
    if (folder.empty()) {
      trace.Error("Own folder cannot be found");
      return FALSE;
    }
    const Update update(folder);
    if (!update.UndoInterrupted() || !update.ApplyPending()) {
      trace.Error("Update Failed");
      return FALSE;
    }
  } catch (const std::exception& exception) {
    // Whatever was begun is undone at the next call.
    trace.Error("Update Failed: %s", exception.what());
    return FALSE;
  }
  trace.Info("Exit");
  return TRUE;
}
