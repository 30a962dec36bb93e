#include "tools/vorldiag/trace/follower.h"

#include <algorithm>

#include "tools/vorldiag/machine/sharedfile.h"
#include "tools/vorldiag/trace/tracefiles.h"

namespace {

// The files are looked at after this time in any case: of one that is held open and grows Windows
// says nothing.
constexpr DWORD kLongestWaitMilliseconds = 250;

bool IsDeleted(HANDLE file) {
  FILE_STANDARD_INFO information{};
  return !GetFileInformationByHandleEx(file, FileStandardInfo, &information, sizeof(information)) ||
         information.DeletePending || information.NumberOfLinks == 0;
}

}  // namespace

TraceFollower::TraceFollower(std::wstring folder) : m_folder(std::move(folder)) {
  for (const std::wstring& path : TraceFiles(m_folder)) {
    const unsigned long number = TraceFileNumber(path);
    m_number = std::max(m_number, number);
    FileHandle file = number == 0 ? OpenShared(path) : FileHandle();
    if (file) {
      SetFilePointerEx(file.Get(), {}, nullptr, FILE_END);
      const FileId id = IdOf(file.Get());
      m_files.push_back({std::move(file), id, path, ""});
    }
  }
}

std::vector<TraceLine> TraceFollower::Poll() {
  std::vector<TraceLine> lines;
  for (const std::wstring& path : TraceFiles(m_folder)) {
    const unsigned long number = TraceFileNumber(path);
    if (number == 0 || number > m_number) {
      Visit(path, number, lines);
    }
  }
  LeaveDeletedFiles(lines);
  return lines;
}

TraceFollower::FileId TraceFollower::IdOf(HANDLE file) {
  BY_HANDLE_FILE_INFORMATION information{};
  GetFileInformationByHandle(file, &information);
  return {information.nFileIndexHigh, information.nFileIndexLow};
}

void TraceFollower::ReadOn(OpenFile& file, std::vector<TraceLine>& lines) {
  constexpr DWORD size = 64 * 1024;
  std::string buffer(size, '\0');
  DWORD read = 0;
  while (ReadFile(file.handle.Get(), buffer.data(), size, &read, nullptr) && read != 0) {
    file.rest.append(buffer, 0, read);
  }
  file.rest.erase(0, AddTraceLines(file.rest, lines));
}

// `number`: of the path; 0 for a file that is still written.
void TraceFollower::Visit(const std::wstring& path, unsigned long number,
                          std::vector<TraceLine>& lines) {
  FileHandle handle = OpenShared(path);
  if (!handle) {
    return;
  }
  const FileId id = IdOf(handle.Get());
  auto file = std::find_if(m_files.begin(), m_files.end(),
                           [&](const OpenFile& open) { return open.id == id; });
  if (file == m_files.end()) {
    // The file that had the name before got its last line before this one was begun.
    for (OpenFile& open : m_files) {
      if (open.path == path) {
        ReadOn(open, lines);
        open.path.clear();
      }
    }
    m_files.push_back({std::move(handle), id, path, ""});
    file = m_files.end() - 1;
  }
  ReadOn(*file, lines);
  if (number != 0) {
    m_number = number;
    m_files.erase(file);
  }
}

// A name is free only when nobody holds the file any more.
void TraceFollower::LeaveDeletedFiles(std::vector<TraceLine>& lines) {
  for (auto file = m_files.begin(); file != m_files.end();) {
    if (IsDeleted(file->handle.Get())) {
      ReadOn(*file, lines);
      file = m_files.erase(file);
    } else {
      ++file;
    }
  }
}

FolderWatch::FolderWatch(std::wstring folder) : m_folder(std::move(folder)) {}

bool FolderWatch::Wait(HANDLE stop) {
  if (!m_changes) {
    m_changes.Reset(FindFirstChangeNotificationW(
        m_folder.c_str(), /*bWatchSubtree=*/FALSE,
        FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE));
    if (m_changes) {
      // What happened before the watch began is to be looked at, too.
      return WaitForSingleObject(stop, 0) != WAIT_OBJECT_0;
    }
  }
  const HANDLE waited[] = {stop, m_changes.Get()};
  const DWORD count = m_changes ? 2 : 1;
  const DWORD result =
      WaitForMultipleObjects(count, waited, /*bWaitAll=*/FALSE, kLongestWaitMilliseconds);
  if (result == WAIT_OBJECT_0 + 1 && !FindNextChangeNotification(m_changes.Get())) {
    // The folder itself is being deleted.
    m_changes.Reset();
  }
  return result != WAIT_OBJECT_0;
}
