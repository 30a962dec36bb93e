// The exported operations of the client-agent support library. On failure a caller's buffer is left
// as it was, except that the start-up options are all zero.
#include "support/vorlmisc.h"

#include <cwchar>
#include <iterator>

#include "companions/vlevtlog/trace_control.h"
#include "companions/vorlmisc/folders.h"
#include "companions/vorlmisc/misctrace.h"
#include "companions/vorlmisc/startupoptions.h"

namespace {

constexpr wchar_t kConfigurationFileName[] = L"\\vorlconf.ini";
constexpr std::size_t kConfigurationFileSize = kLongestFolder + std::size(kConfigurationFileName);

// Hands a folder to a caller whose buffer holds `capacity` characters, the terminator included.
BOOLEAN Give(const char* functionName, const Folder& found, wchar_t* folder,
             DWORD capacity) noexcept {
  const std::size_t size = std::wcslen(found.path) + 1;
  if (size > capacity) {
    TraceError(functionName, L"Folder needs %u characters, the caller has room for %u: %s",
               static_cast<unsigned>(size), static_cast<unsigned>(capacity), found.path);
    return FALSE;
  }
  std::wmemcpy(folder, found.path, size);
  return TRUE;
}

bool FindConfigurationFile(const char* functionName,
                           wchar_t (&file)[kConfigurationFileSize]) noexcept {
  Folder folder;
  if (!FindConfigFolder(functionName, folder)) {
    return false;
  }
  // It fits: see kLongestFolder.
  static_cast<void>(StringCchPrintfW(file, kConfigurationFileSize, L"%ls%ls", folder.path,
                                     kConfigurationFileName));
  return true;
}

}  // namespace

BOOLEAN GetClientAgentRootDir(wchar_t* folder, DWORD capacity) {
  constexpr char function[] = "GetClientAgentRootDir";
  Folder found;
  if (folder == nullptr) {
    TraceError(function, L"NULL Parameter received");
    return FALSE;
  }
  if (!FindRootFolder(function, found)) {
    return FALSE;
  }
  return Give(function, found, folder, capacity);
}

BOOLEAN GetClientAgentConfigDir(wchar_t* folder, DWORD capacity) {
  constexpr char function[] = "GetClientAgentConfigDir";
  Folder found;
  if (folder == nullptr) {
    TraceError(function, L"NULL Parameter received");
    return FALSE;
  }
  if (!FindConfigFolder(function, found)) {
    return FALSE;
  }
  return Give(function, found, folder, capacity);
}

BOOLEAN SetClientAgentLogOptions() {
  constexpr char function[] = "SetClientAgentLogOptions";
  wchar_t file[kConfigurationFileSize];
  if (!FindConfigurationFile(function, file)) {
    return FALSE;
  }
  const HMODULE traceLibrary = GetModuleHandleW(L"vlevtlog.dll");
  const FARPROC entry =
      traceLibrary == nullptr
          ? nullptr
          : GetProcAddress(traceLibrary, MAKEINTRESOURCEA(kApplyTraceOptionsOrdinal));
  if (entry == nullptr) {
    // A trace library that looks after its options itself.
    return TRUE;
  }
  auto* const applyTraceOptions =
      reinterpret_cast<ApplyTraceOptionsFunction*>(reinterpret_cast<void*>(entry));
  if (!applyTraceOptions(file)) {
    TraceError(function, L"Trace options cannot be applied: %s", file);
    return FALSE;
  }
  return TRUE;
}

BOOLEAN GetClientAgentStartUpOptions(CLIENT_AGENT_STARTUP_OPTIONS* options) {
  constexpr char function[] = "GetClientAgentStartUpOptions";
  if (options == nullptr) {
    TraceError(function, L"NULL Parameter received");
    return FALSE;
  }
  *options = {};
  wchar_t file[kConfigurationFileSize];
  return FindConfigurationFile(function, file) && ReadStartUpOptions(function, file, *options)
             ? TRUE
             : FALSE;
}
