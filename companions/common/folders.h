// Where an installation and its configuration lie: the same answer for every library that asks.
//
// The installer writes both folders as the texts "RootDir" and "ConfigDir" into the key
// HKEY_LOCAL_MACHINE\SOFTWARE\Client Agent\<major version>. A value that is missing or empty means:
// the folder of the library that asks, and "conf" below the installation folder. A value that is
// there but cannot be used is never replaced by a guess: the operation fails. Only folders on
// drives of this computer can be used, since the system's own account loads what lies there: no
// server, also at the end of a link, no device path, no network or substituted drive. Their paths
// are given out as Windows itself writes them, without "..", with single backslashes.
//
// Nothing here writes a trace line or makes a folder.
#pragma once

#include "support/windows_api.h"

// The longest folder that is given out. A file in it, with a backslash and a name of up to 12
// characters ("\vorlcore.dll", "\vorlconf.ini"), then has a path of 259 characters, which is the
// longest that a module is loaded from. A new folder may have one character more.
constexpr DWORD kLongestFolder = MAX_PATH - 1 - 13;
static_assert(kLongestFolder == 246);

// Room to read a path, and to say it when it is too long to be used.
constexpr DWORD kFolderReadSize = 1024;

struct Folder {
  // Full path without trailing backslash, null-terminated; empty when it is not known.
  wchar_t path[kLongestFolder + 1];
};

enum class FolderProblem {
  kNone,
  kCannotBeRead,   // registry value `valueName`: `error`
  kNotFullPath,    // registry value `valueName` is `path`
  kNotOnDrive,     // registry value `valueName` is `path`: a server, a device, the root of a drive,
                   // or on a drive that leads elsewhere
  kOnServer,       // a link leads from `path` to another computer
  kLinkUnknown,    // a link leads from `path` to what cannot be opened: `error`
  kTooLong,        // `path` has `length` characters without trailing backslashes
  kDoesNotExist,   // `path`, the registered installation folder
  kNoLibraryPath,  // the library's own path is unknown: `error`
  kNoFolder,       // the library's own path, `path`, has no folder
};

// Why there is no folder. Only what the problem names is set.
struct FolderFailure {
  FolderProblem problem = FolderProblem::kNone;
  const wchar_t* valueName = L"";
  DWORD error = ERROR_SUCCESS;
  DWORD length = 0;
  wchar_t path[kFolderReadSize] = {};  // of what is longer, the beginning
};

// The folder of the library into which this is linked. Asks the loader.
bool FindOwnFolder(Folder& folder, FolderFailure& failure) noexcept;

// `own`: the library's own folder for a caller that knows it and must not ask the loader.
bool FindRootFolder(Folder& folder, FolderFailure& failure, const Folder* own = nullptr) noexcept;

// Refuses a file of the folder that is itself a link to another computer, or to what cannot be
// opened; not one that is missing. `name`: at most 12 characters.
bool RefuseLinkToServer(const Folder& folder, const wchar_t* name, FolderFailure& failure) noexcept;

// The folder need not exist. A configuration file in it that is a link to another computer is
// refused as the folder would be.
bool FindConfigFolder(Folder& folder, FolderFailure& failure, const Folder* own = nullptr) noexcept;
