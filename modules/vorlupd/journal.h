// The list of what an update is about to do. While it lies on the disk, the update is not complete,
// and whoever finds it there undoes the update. An update is completed by deleting it.
//
// A file in UTF-16 with a byte order mark, one step on a line: a word, a blank, the path relative
// to the installation.
#pragma once

#include <cstddef>
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

// A journal is at most this large.
constexpr std::size_t kLargestJournalSize = std::size_t{64} * 1024 * 1024;

// Returns when the complete journal is on the disk. False, with the last error set and no journal
// there, when it cannot be written, would be too large (ERROR_FILE_TOO_LARGE) or could not be read
// again for one of its paths (ERROR_INVALID_NAME).
bool WriteJournal(const std::wstring& file, const std::vector<Step>& steps);

// The steps, or nothing when this is no complete journal or one of its paths would lead out of the
// installation.
std::optional<std::vector<Step>> ReadJournal(const std::wstring& file);
