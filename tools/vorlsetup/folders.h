// The folders of an installation, made safe before the first file lies in them.
#pragma once

#include <string>

#include "tools/vorlsetup/setuplog.h"

struct InstallationFolders {
  std::wstring program;  // full paths without a backslash at the end
  std::wstring configuration;
};

// Whether the agent can work with both: on a fixed disk of this computer, short enough, and the
// configuration not where the programs lie or above them. Says so when not.
bool AreUsableFolders(const InstallationFolders& folders, const SetupLog& log);

// Makes the program folder, the configuration folder, `logs` and `pending`, or takes those that are
// there, and gives each its rights. False, with a message, when a folder cannot be made or somebody
// else could have prepared it: when it is not empty and ordinary users own or may change it, when
// it is a link, or when they may move away a folder above it. `isInstalled`: the product is there,
// to be repaired or upgraded; then what lies in its folders is kept, whoever could change it.
bool MakeFolders(const InstallationFolders& folders, bool isInstalled, const SetupLog& log);

// After MakeFolders, when the installation has failed: removes the folders that it made, with what
// lies in them. Those that were there before stay.
void RemoveMadeFolders(const InstallationFolders& folders, const SetupLog& log);

// After MakeFolders, when the installation is complete: forgets which folders it made.
void KeepMadeFolders(const InstallationFolders& folders);

// After the removal of the product: removes the trace, pending updates and the work of the update
// module; with `withConfiguration` also the configuration file, and then each folder that is empty.
void RemoveData(const InstallationFolders& folders, bool withConfiguration, const SetupLog& log);
