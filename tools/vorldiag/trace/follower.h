// The trace while it is written, over its changes of files.
#pragma once

#include <string>
#include <vector>

#include "support/handle.h"
#include "tools/vorldiag/trace/traceline.h"

// Gives the lines that are added to the trace, also when its files get numbers, are deleted or
// appear only now. Files stay free for everybody to write, rename and delete.
class TraceFollower {
 public:
  // From the end of what is there now.
  explicit TraceFollower(std::wstring folder);

  // The lines that have come since the last call, in the order of their files; does not wait.
  std::vector<TraceLine> Poll();

 private:
  // What Windows knows a file by, whatever its name is. The volume is that of the folder.
  struct FileId {
    unsigned long high = 0;
    unsigned long low = 0;
    bool operator==(const FileId& other) const { return high == other.high && low == other.low; }
  };

  // A file that may still grow. It is held open, so that nothing else gets its id.
  struct OpenFile {
    FileHandle handle;
    FileId id;
    std::wstring path;  // empty as soon as another file has its name
    std::string rest;   // the beginning of a line
  };

  static FileId IdOf(HANDLE file);
  static void ReadOn(OpenFile& file, std::vector<TraceLine>& lines);
  void Visit(const std::wstring& path, unsigned long number, std::vector<TraceLine>& lines);
  void LeaveDeletedFiles(std::vector<TraceLine>& lines);

  std::wstring m_folder;
  unsigned long m_number = 0;  // files up to this number are done
  std::vector<OpenFile> m_files;
};

// Waits for changes of the trace's folder.
class FolderWatch {
 public:
  explicit FolderWatch(std::wstring folder);

  // Waits until something in the folder may have changed or `stop` is signalled; false for the
  // latter. May also return without a change: Windows tells of a file that grows when it writes
  // the file to the disk, which can be late.
  bool Wait(HANDLE stop);

 private:
  struct NotificationTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { FindCloseChangeNotification(handle); }
  };

  std::wstring m_folder;
  UniqueHandle<NotificationTraits> m_changes;
};
