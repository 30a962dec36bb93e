// The list of what an update is about to do. As long as it lies on the disk, the update is under
// way and is to be undone by whoever finds it; deleting it is what completes an update.
//
// A file in UTF-16 with a byte order mark, one step on a line: a word, a blank, the path relative
// to the installation.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct Step {
  enum class Kind {
    kFolder,   // a folder is made
    kReplace,  // a file takes the place of another one
    kCreate    // a file is added
  };

  Kind kind;
  std::wstring path;

  bool operator==(const Step&) const = default;
};

// Returns when the complete journal is on the disk; false, with the last error set and no journal
// there, when it cannot be written.
bool WriteJournal(const std::wstring& file, const std::vector<Step>& steps);

// The steps, or nothing when this is no complete journal or one of its paths would lead out of the
// installation.
std::optional<std::vector<Step>> ReadJournal(const std::wstring& file);
