// Replaces files of an installation by those in its folder "pending".
//
// The update works in the folder "update.work" of the installation:
//   staged\   copies of the pending files, which are moved into place
//   backup\   copies of the files that are replaced
//   aside\    former files that were in use; deleted at a later update
//   journal   what is done; there from the first change to the last (see journal.h)
//
// Every copy is on the disk before the first change. A staged copy that is gone has been put in
// place: so the journal and these folders tell at any moment how far the update has come.
#pragma once

#include <string>
#include <vector>

#include "modules/vorlupd/journal.h"

class Update {
 public:
  // `installation`: full path without trailing backslash.
  explicit Update(const std::wstring& installation);

  // Gives the installation back what it had when an earlier update was cut off. False when that
  // cannot be done completely; it is then tried again the next time.
  bool UndoInterrupted() const;

  // False when not everything could be applied; nothing has changed then.
  bool ApplyPending() const;

 private:
  bool MakeWork() const;
  bool Plan(const std::vector<std::wstring>& files, std::vector<Step>& steps) const;
  bool PlanFile(const std::wstring& file, std::vector<Step>& steps) const;
  bool Prepare(const std::vector<Step>& steps) const;
  bool Execute(const std::vector<Step>& steps) const;
  bool Undo(const std::vector<Step>& steps) const;
  bool UndoStep(const Step& step) const;
  bool IsInside(const Step& step) const;
  bool IsOwnFolder(const std::wstring& name) const;
  bool ClearWork() const;
  void TidyUp(const std::vector<Step>& steps) const noexcept;
  void RemovePending(const std::vector<Step>& steps) const;

  std::wstring Target(const Step& step) const { return m_installation + L"\\" + step.path; }
  std::wstring Staged(const Step& step) const { return m_staged + L"\\" + step.path; }
  std::wstring Backup(const Step& step) const { return m_backup + L"\\" + step.path; }

  std::wstring m_installation;
  std::wstring m_pending;
  std::wstring m_work;
  std::wstring m_staged;
  std::wstring m_backup;
  std::wstring m_aside;
  std::wstring m_journal;
};
