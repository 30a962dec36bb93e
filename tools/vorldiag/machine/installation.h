// Where this version's installation lies and how its parts are called.
#pragma once

#include <string>

#include "support/windows_api.h"

// The folder in which this program lies, without trailing backslash.
std::wstring OwnFolder();

// Names that the version-information library gives out.
struct Names {
  std::string service;
  std::string closeEvent;
  std::string exitEvent;
  // Empty, or why the library was not asked; the names are then those that this version's own
  // library gives.
  std::string problem;
};

// Asks `folder`\vorlinfo.dll, unless strangers can write to it: a library runs in the one who asks
// it.
Names FindNames(const std::wstring& folder);

struct FolderFact {
  std::wstring path;          // empty when there is none
  std::string origin;         // where the path comes from
  bool isRegistered = false;  // else it is the default
  std::string problem;        // why there is none, nor can be made
};

// The folders for a service whose program lies in `programFolder`.
FolderFact InstallationFolder(const std::wstring& programFolder);
FolderFact ConfigurationFolder(const std::wstring& programFolder);

// The key that the installer writes, below HKEY_LOCAL_MACHINE.
extern const wchar_t kInstallationKeyPath[];

// What may not be looked at is there.
bool Exists(const std::wstring& path);

// Whether something else than a folder is there.
bool IsNoFolder(const std::wstring& path);
