// What an update does to files. Paths are full paths in the form that is not limited to 260
// characters (see ExtendedLength); relative paths are separated by single backslashes. A function
// that gives false has set the last error.
#pragma once

#include <string>
#include <vector>

#include "support/windows_api.h"

// The same path in a form without the limit of 260 characters.
std::wstring ExtendedLength(const std::wstring& path);

// Whether this is a relative path that cannot lead out of the folder that it is relative to.
bool IsPlainRelativePath(const std::wstring& path) noexcept;

enum class PathKind {
  kNothing,
  kFile,
  kFolder,
  kLink,    // a junction, mount point or symbolic link: leads elsewhere
  kUnknown  // cannot be told
};
PathKind KindOf(const std::wstring& path) noexcept;

// The name under which the last part of `path` lies in its folder, where `path` may have its short
// (8.3) name; empty when nothing is there or it cannot be told.
std::wstring NameOnDisk(const std::wstring& path);

// Folders are nested down to this level at most; what lies deeper is left alone.
constexpr unsigned kDeepestLevel = 64;

enum class Listing {
  kComplete,
  kTooDeep,  // folders are nested deeper than kDeepestLevel
  kFailed    // a folder cannot be read, or with ERROR_CANT_ACCESS_FILE: there is a link
};

// Adds the relative paths of all files below `folder` to `files`, in a fixed order.
Listing ListFiles(const std::wstring& folder, std::vector<std::wstring>& files);

// Copies a file, replacing `target`, and returns when the copy is on the disk.
bool CopyToDisk(const std::wstring& source, const std::wstring& target) noexcept;

// Makes the folders above `relativePath`, below the existing folder `root`.
bool MakeParents(const std::wstring& root, const std::wstring& relativePath);

// Moves `source` to `target`, whose former file, if any, is replaced in one step. A file that is
// loaded by a running program or read-only cannot be replaced in one step: it is first moved into
// the folder `aside`, out of which a later RemoveTree deletes it. Both stay where they were when
// this fails.
bool PutInPlace(const std::wstring& source, const std::wstring& target, const std::wstring& aside);

// Deletes `file`, or moves it into the folder `aside` when it is in use. A missing file is success.
bool RemoveFile(const std::wstring& file, const std::wstring& aside);

// Deletes a file also when it is read-only. A missing file is success.
bool DeleteAnyFile(const std::wstring& file) noexcept;

// Deletes `folder` with all that is in it, as far as it can. Links are removed, not followed, also
// when `folder` is one. False when something is left; a missing folder is success.
bool RemoveTree(const std::wstring& folder);

// Removes the folders below `folder` that hold no file.
void RemoveEmptyFolders(const std::wstring& folder);
