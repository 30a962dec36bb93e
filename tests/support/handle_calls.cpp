#include "tests/support/handle_calls.h"

#include "support/lasterror.h"

namespace {

std::string EventLabel(const std::string& name) { return name.substr(name.rfind('_') + 1); }

}  // namespace

HandleCalls::HandleCalls(Journal& journal)
    : m_journal(journal),
      m_create("KERNEL32.dll", "CreateEventA",
               [this](SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                      const char* name) {
                 return OnCreate(attributes, manualReset, initialState, name);
               }),
      m_set("KERNEL32.dll", "SetEvent", [this](HANDLE handle) { return OnSet(handle); }),
      m_duplicate("KERNEL32.dll", "DuplicateHandle",
                  [this](HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE* target,
                         DWORD access, BOOL inherit, DWORD options) {
                    return OnDuplicate(sourceProcess, source, targetProcess, target, access,
                                       inherit, options);
                  }),
      m_close("KERNEL32.dll", "CloseHandle", [this](HANDLE handle) { return OnClose(handle); }) {}

void HandleCalls::FailCreation(const std::string& label, DWORD error) {
  const std::lock_guard guard(m_mutex);
  m_failing[label] = error;
}

void HandleCalls::BeforeCreation(std::function<void(const std::string&)> callback) {
  const std::lock_guard guard(m_mutex);
  m_beforeCreation = std::move(callback);
}

void HandleCalls::Watch(HANDLE handle, const std::string& label) {
  const std::lock_guard guard(m_mutex);
  m_open[handle] = label;
}

std::vector<HandleCalls::Creation> HandleCalls::Creations() const {
  const std::lock_guard guard(m_mutex);
  return m_creations;
}

std::vector<std::string> HandleCalls::Open() const {
  const std::lock_guard guard(m_mutex);
  std::vector<std::string> labels;
  for (const auto& [handle, label] : m_open) {
    labels.push_back(label);
  }
  return labels;
}

unsigned HandleCalls::FailedCloses() const {
  const std::lock_guard guard(m_mutex);
  return m_failedCloses;
}

HANDLE HandleCalls::OnCreate(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                             const char* name) {
  // The thread library makes events without a name.
  if (name == nullptr) {
    return m_create.CallOriginal(attributes, manualReset, initialState, name);
  }
  const std::string label = EventLabel(name);
  std::function<void(const std::string&)> beforeCreation;
  DWORD error = 0;
  {
    const std::lock_guard guard(m_mutex);
    beforeCreation = m_beforeCreation;
    const auto failing = m_failing.find(label);
    error = failing == m_failing.end() ? 0 : failing->second;
  }
  if (beforeCreation) {
    beforeCreation(label);
  }
  HANDLE handle = nullptr;
  if (error != 0) {
    SetLastError(error);
  } else {
    handle = m_create.CallOriginal(attributes, manualReset, initialState, name);
  }
  const LastErrorKeeper keeper;
  m_journal.Call("CreateEventA " + label);
  const std::lock_guard guard(m_mutex);
  m_creations.push_back({attributes, manualReset, initialState, name, handle});
  if (handle != nullptr) {
    m_open[handle] = label;
  }
  return handle;
}

BOOL HandleCalls::OnSet(HANDLE handle) {
  const std::string label = Label(handle);
  if (!label.empty()) {
    m_journal.Call("SetEvent " + label);
  }
  return m_set.CallOriginal(handle);
}

BOOL HandleCalls::OnDuplicate(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess,
                              HANDLE* target, DWORD access, BOOL inherit, DWORD options) {
  const BOOL result = m_duplicate.CallOriginal(sourceProcess, source, targetProcess, target, access,
                                               inherit, options);
  const std::string label = Label(source);
  if (result && source != nullptr && !label.empty()) {
    m_journal.Call("DuplicateHandle " + label);
    Watch(*target, label);
  }
  return result;
}

BOOL HandleCalls::OnClose(HANDLE handle) {
  const std::string label = Label(handle);
  if (!label.empty()) {
    m_journal.Call("CloseHandle " + label);
    // Ahead of the call: another thread may be given the same value right after it.
    const std::lock_guard guard(m_mutex);
    m_open.erase(handle);
  }
  const BOOL result = m_close.CallOriginal(handle);
  if (!result && handle != nullptr) {
    const LastErrorKeeper keeper;
    const std::lock_guard guard(m_mutex);
    ++m_failedCloses;
  }
  return result;
}

// "null" for the null handle, nothing for a handle that is not watched.
std::string HandleCalls::Label(HANDLE handle) const {
  if (handle == nullptr) {
    return "null";
  }
  const std::lock_guard guard(m_mutex);
  const auto found = m_open.find(handle);
  return found == m_open.end() ? std::string() : found->second;
}
