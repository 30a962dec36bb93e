// The place of the client's unique identifier: one key of the agent's configuration file. An
// identifier that stands there is never replaced, whoever wrote it. Nothing here writes a trace
// line.
#pragma once

#include "support/vorlmisc.h"

// The room for an identifier that is read; of a longer one the beginning is given.
constexpr DWORD kStoredIdentifierSize = 260;

enum class StoredIdentifierState {
  kPresent,
  kMissing,    // no file, no key, or an empty value
  kUnreadable  // the file is there, but what it holds cannot be told
};

struct StoredIdentifier {
  StoredIdentifierState state = StoredIdentifierState::kMissing;
  DWORD error = ERROR_SUCCESS;               // of kUnreadable
  wchar_t text[kStoredIdentifierSize] = {};  // of kPresent
};

enum class StoreOutcome {
  kStored,      // it stands in the file now, or did already
  kKept,        // another one stands there
  kUnreadable,  // nothing was written, since an identifier may stand there
  kFailed       // the file cannot be written
};

// The path of vorlconf.ini. False when the support library knows no folder for it.
bool GetConfigurationFile(wchar_t (&path)[kFolderBufferSize]);

// Looks for the identifier. Waits for a file in the hands of another program,
// kIniPatienceMilliseconds at the most.
StoredIdentifier ReadIdentifier(const wchar_t* path);

// Stores `identifier` where none stands; `found` is what was there immediately before. The file is
// created when it is missing, its folder is not. Waits as ReadIdentifier does, also until a file
// without an identifier has been left alone for kIniRestMilliseconds, since its writer may save it
// in several openings; and as long at the most for another start of the program that is storing its
// own. vorlconf.lck lies beside the file meanwhile.
StoreOutcome StoreIdentifier(const wchar_t* identifier, const wchar_t* path,
                             StoredIdentifier& found);
