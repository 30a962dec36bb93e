#include "modules/vorlupd/update.h"

#include <algorithm>
#include <exception>
#include <optional>

#include "modules/vorlupd/filesystem.h"
#include "support/trace.h"

namespace {

constexpr wchar_t kPendingName[] = L"pending";
constexpr wchar_t kWorkName[] = L"update.work";

// In whatever letters, as file names are compared.
bool IsSameName(const std::wstring& left, const wchar_t* right) {
  return CompareStringOrdinal(left.c_str(), -1, right, -1, TRUE) == CSTR_EQUAL;
}

}  // namespace

Update::Update(const std::wstring& installation)
    : m_installation(ExtendedLength(installation)),
      m_pending(m_installation + L"\\" + kPendingName),
      m_work(m_installation + L"\\" + kWorkName),
      m_staged(m_work + L"\\staged"),
      m_backup(m_work + L"\\backup"),
      m_aside(m_work + L"\\aside"),
      m_journal(m_work + L"\\journal") {}

bool Update::UndoInterrupted() const {
  constexpr Trace trace{"Update::UndoInterrupted"};
  switch (KindOf(m_work)) {
    case PathKind::kNothing:
      return true;
    case PathKind::kFolder:
      break;
    default:
      trace.ErrorDirect(L"Not a folder of this installation: %s", m_work.c_str());
      return false;
  }
  if (KindOf(m_journal) == PathKind::kNothing) {
    return true;
  }
  for (const std::wstring& folder : {m_staged, m_backup, m_aside}) {
    const PathKind kind = KindOf(folder);
    if (kind != PathKind::kFolder && kind != PathKind::kNothing) {
      trace.ErrorDirect(L"Not a folder of this installation: %s", folder.c_str());
      return false;
    }
  }
  trace.Info("An earlier update was cut off and is undone");
  const std::optional<std::vector<Step>> steps = ReadJournal(m_journal);
  if (!steps) {
    trace.ErrorDirect(L"Journal cannot be read: %s", m_journal.c_str());
    return false;
  }
  return Undo(*steps);
}

bool Update::ApplyPending() const {
  constexpr Trace trace{"Update::ApplyPending"};
  std::vector<std::wstring> files;
  switch (KindOf(m_pending)) {
    case PathKind::kNothing:
      break;
    case PathKind::kFolder:
      switch (ListFiles(m_pending, files)) {
        case Listing::kComplete:
          break;
        case Listing::kTooDeep:
          trace.Error("Pending folders are nested deeper than %u", kDeepestLevel);
          return false;
        case Listing::kFailed:
          trace.Error("Pending files cannot be listed (%u)", GetLastError());
          return false;
      }
      break;
    default:
      trace.ErrorDirect(L"Not a folder of this installation: %s", m_pending.c_str());
      return false;
  }
  // With it goes what an earlier update had to leave because it was in use.
  const bool isWorkClear = ClearWork();
  if (files.empty()) {
    RemoveEmptyFolders(m_pending);
    trace.Info("Nothing is pending");
    return true;
  }
  if (!isWorkClear) {
    trace.ErrorDirect(L"Folder cannot be cleared: %s", m_work.c_str());
    return false;
  }

  std::vector<Step> steps;
  if (!MakeWork() || !Plan(files, steps) || !Prepare(steps)) {
    ClearWork();
    return false;
  }
  if (!WriteJournal(m_journal, steps)) {
    trace.Error("Journal cannot be written (%u)", GetLastError());
    ClearWork();
    return false;
  }
  if (!Execute(steps)) {
    Undo(steps);
    return false;
  }
  if (!DeleteAnyFile(m_journal)) {
    trace.Error("Journal cannot be deleted (%u)", GetLastError());
    Undo(steps);
    return false;
  }
  TidyUp(steps);
  return true;
}

// Comes first, so that the folder shows under all its names.
bool Update::MakeWork() const {
  constexpr Trace trace{"Update::MakeWork"};
  for (const std::wstring& folder : {m_work, m_staged, m_backup}) {
    if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
      trace.ErrorDirect(L"Folder cannot be made: %s", folder.c_str());
      return false;
    }
  }
  return true;
}

bool Update::Plan(const std::vector<std::wstring>& files, std::vector<Step>& steps) const {
  return std::all_of(files.begin(), files.end(),
                     [&](const std::wstring& file) { return PlanFile(file, steps); });
}

// Adds the steps that bring `file` to its place, or refuses what lies there.
bool Update::PlanFile(const std::wstring& file, std::vector<Step>& steps) const {
  constexpr Trace trace{"Update::PlanFile"};
  if (!IsPlainRelativePath(file) || IsOwnFolder(file.substr(0, file.find(L'\\')))) {
    trace.ErrorDirect(L"Pending file is refused: %s", file.c_str());
    return false;
  }
  for (std::size_t end = file.find(L'\\'); end != std::wstring::npos;
       end = file.find(L'\\', end + 1)) {
    const Step folder{Step::Kind::kFolder, file.substr(0, end)};
    const PathKind kind = KindOf(Target(folder));
    if (kind == PathKind::kNothing) {
      if (std::find(steps.begin(), steps.end(), folder) == steps.end()) {
        steps.push_back(folder);
      }
    } else if (kind != PathKind::kFolder) {
      trace.ErrorDirect(L"Not a folder of this installation: %s", folder.path.c_str());
      return false;
    }
  }
  switch (KindOf(m_installation + L"\\" + file)) {
    case PathKind::kNothing:
      steps.push_back({Step::Kind::kCreate, file});
      return true;
    case PathKind::kFile:
      steps.push_back({Step::Kind::kReplace, file});
      return true;
    default:
      trace.ErrorDirect(L"Not a file of this installation: %s", file.c_str());
      return false;
  }
}

// Makes all copies, before anything of the installation changes.
bool Update::Prepare(const std::vector<Step>& steps) const {
  constexpr Trace trace{"Update::Prepare"};
  for (const Step& step : steps) {
    if (step.kind == Step::Kind::kFolder) {
      continue;
    }
    const std::wstring pending = m_pending + L"\\" + step.path;
    if (!MakeParents(m_staged, step.path) || !CopyToDisk(pending, Staged(step))) {
      trace.ErrorDirect(L"Pending file cannot be copied (%u): %s", GetLastError(),
                        step.path.c_str());
      return false;
    }
    if (step.kind == Step::Kind::kReplace &&
        (!MakeParents(m_backup, step.path) || !CopyToDisk(Target(step), Backup(step)))) {
      trace.ErrorDirect(L"File cannot be backed up (%u): %s", GetLastError(), step.path.c_str());
      return false;
    }
  }
  return true;
}

bool Update::Execute(const std::vector<Step>& steps) const {
  constexpr Trace trace{"Update::Execute"};
  for (const Step& step : steps) {
    bool isDone = false;
    switch (step.kind) {
      case Step::Kind::kFolder:
        isDone = CreateDirectoryW(Target(step).c_str(), nullptr) != FALSE;
        break;
      case Step::Kind::kReplace:
        isDone = PutInPlace(Staged(step), Target(step), m_aside);
        break;
      case Step::Kind::kCreate:
        isDone = MoveFileExW(Staged(step).c_str(), Target(step).c_str(), MOVEFILE_WRITE_THROUGH) !=
                 FALSE;
        break;
    }
    if (!isDone) {
      trace.ErrorDirect(L"Cannot be put in place (%u): %s", GetLastError(), step.path.c_str());
      return false;
    }
    if (step.kind != Step::Kind::kFolder) {
      trace.InfoDirect(L"Put in place: %s", step.path.c_str());
    }
  }
  return true;
}

// Undoes what has been done of `steps`, the last first. Can be repeated.
bool Update::Undo(const std::vector<Step>& steps) const {
  constexpr Trace trace{"Update::Undo"};
  bool isAllUndone = true;
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
    if (!IsInside(*step)) {
      trace.ErrorDirect(L"Leads out of this installation: %s", step->path.c_str());
      isAllUndone = false;
    } else if (!UndoStep(*step)) {
      trace.ErrorDirect(L"Cannot be undone (%u): %s", GetLastError(), step->path.c_str());
      isAllUndone = false;
    }
  }
  if (!isAllUndone) {
    return false;
  }
  if (!DeleteAnyFile(m_journal)) {
    trace.Error("Journal cannot be deleted (%u)", GetLastError());
    return false;
  }
  ClearWork();
  trace.Info("The update is undone");
  return true;
}

bool Update::UndoStep(const Step& step) const {
  const PathKind staged = KindOf(Staged(step));
  if (staged == PathKind::kUnknown) {
    return false;
  }
  const bool wasPutInPlace = staged == PathKind::kNothing;
  switch (step.kind) {
    case Step::Kind::kFolder:
      // A folder that others have filled meanwhile stays.
      RemoveDirectoryW(Target(step).c_str());
      return true;
    case Step::Kind::kReplace:
      // The former file may have been moved aside while nothing has its place yet. A backup that is
      // gone has been put back.
      if (!wasPutInPlace && KindOf(Target(step)) != PathKind::kNothing) {
        return true;
      }
      return KindOf(Backup(step)) == PathKind::kNothing ||
             PutInPlace(Backup(step), Target(step), m_aside);
    case Step::Kind::kCreate:
      return !wasPutInPlace || RemoveFile(Target(step), m_aside);
  }
  return false;
}

// Whether `name` in the installation is one of the folders that belong to updating, by its short
// name too.
bool Update::IsOwnFolder(const std::wstring& name) const {
  const std::wstring onDisk = NameOnDisk(m_installation + L"\\" + name);
  return IsSameName(name, kPendingName) || IsSameName(name, kWorkName) ||
         IsSameName(onDisk, kPendingName) || IsSameName(onDisk, kWorkName);
}

// Whether no link stands between the installation and the target of `step`.
bool Update::IsInside(const Step& step) const {
  for (std::size_t end = step.path.find(L'\\'); end != std::wstring::npos;
       end = step.path.find(L'\\', end + 1)) {
    const PathKind kind = KindOf(m_installation + L"\\" + step.path.substr(0, end));
    if (kind != PathKind::kFolder && kind != PathKind::kNothing) {
      return false;
    }
  }
  return true;
}

// False when something is left that another update could take for a part of its own.
bool Update::ClearWork() const {
  if (KindOf(m_work) == PathKind::kNothing) {
    return true;
  }
  // Former files may stay, but not behind a link.
  const bool isAsideUsable = RemoveTree(m_aside) || KindOf(m_aside) == PathKind::kFolder;
  const bool isClear = isAsideUsable && RemoveTree(m_staged) && RemoveTree(m_backup) &&
                       DeleteAnyFile(m_journal + L".new");
  // Stays as long as it holds a file that is in use.
  RemoveDirectoryW(m_work.c_str());
  return isClear;
}

// The update is complete, whatever becomes of what is left of it: the next one clears it away.
void Update::TidyUp(const std::vector<Step>& steps) const noexcept {
  constexpr Trace trace{"Update::TidyUp"};
  try {
    RemovePending(steps);
    ClearWork();
  } catch (const std::exception& exception) {
    trace.Info("Files stay until the next update: %s", exception.what());
  }
}

// The pending folder itself stays, with the rights that the installer gave it.
void Update::RemovePending(const std::vector<Step>& steps) const {
  constexpr Trace trace{"Update::RemovePending"};
  for (const Step& step : steps) {
    if (step.kind != Step::Kind::kFolder && !DeleteAnyFile(m_pending + L"\\" + step.path)) {
      // Harmless: it is the same file that is in place now.
      trace.InfoDirect(L"Stays pending (%u): %s", GetLastError(), step.path.c_str());
    }
  }
  RemoveEmptyFolders(m_pending);
}
