// Who makes, signals and closes which handle.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"

// Watches named events and other handles that a test names: their creation, signalling, duplication
// and closing goes to the journal as "<function> <label>", and what is open is known at any time.
// A named event's label is its name from the last '_' on. Test code that is not to be watched
// creates its events with CreateEventW.
class HandleCalls {
 public:
  struct Creation {
    SECURITY_ATTRIBUTES* attributes;
    BOOL manualReset;
    BOOL initialState;
    std::string name;
    HANDLE handle;
  };

  explicit HandleCalls(Journal& journal);

  // Creating the event of that label fails with `error` from now on; 0 ends that.
  void FailCreation(const std::string& label, DWORD error);

  // Called ahead of every creation of a named event with its label, on the creating thread.
  void BeforeCreation(std::function<void(const std::string&)> callback);

  // Watches a handle that was not made by CreateEventA.
  void Watch(HANDLE handle, const std::string& label);

  std::vector<Creation> Creations() const;

  // The labels of the watched handles that are open.
  std::vector<std::string> Open() const;

  // How often CloseHandle failed, null handles left out: closed twice, or never open.
  unsigned FailedCloses() const;

 private:
  struct CreateTag;
  struct SetTag;
  struct DuplicateTag;
  struct CloseTag;

  HANDLE OnCreate(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                  const char* name);
  BOOL OnSet(HANDLE handle);
  BOOL OnDuplicate(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE* target,
                   DWORD access, BOOL inherit, DWORD options);
  BOOL OnClose(HANDLE handle);
  std::string Label(HANDLE handle) const;

  Journal& m_journal;
  mutable std::mutex m_mutex;
  std::map<std::string, DWORD> m_failing;
  std::function<void(const std::string&)> m_beforeCreation;
  std::map<HANDLE, std::string> m_open;
  std::vector<Creation> m_creations;
  unsigned m_failedCloses = 0;

  CallPatch<CreateTag, HANDLE(SECURITY_ATTRIBUTES*, BOOL, BOOL, const char*)> m_create;
  CallPatch<SetTag, BOOL(HANDLE)> m_set;
  CallPatch<DuplicateTag, BOOL(HANDLE, HANDLE, HANDLE, HANDLE*, DWORD, BOOL, DWORD)> m_duplicate;
  CallPatch<CloseTag, BOOL(HANDLE)> m_close;
};
