// Functions of Windows and of the C runtime replaced by a test.
#pragma once

#include <functional>
#include <utility>

// Replaces one function in the import table of this executable for as long as the object lives.
// Product code that calls the function through the table then calls the replacement. The calling
// code must not be in the function that patches: the compiler may have read the slot before.
//
//   ImportPatch patch("ADVAPI32.dll", "CreateServiceW", &FakeCreateServiceW);
class ImportPatchBase {
 public:
  ImportPatchBase(const ImportPatchBase&) = delete;
  ImportPatchBase& operator=(const ImportPatchBase&) = delete;

 protected:
  // Ends the test program when the executable does not import the function: a patch that patches
  // nothing would prove nothing.
  ImportPatchBase(const char* library, const char* function, void* replacement);
  ~ImportPatchBase();

  void* Original() const { return m_original; }

 private:
  void** m_slot;
  void* m_original;
};

template <typename Function>
class ImportPatch : public ImportPatchBase {
 public:
  ImportPatch(const char* library, const char* function, Function* replacement)
      : ImportPatchBase(library, function, reinterpret_cast<void*>(replacement)) {}

  // The function that was in the table before.
  Function* Original() const { return reinterpret_cast<Function*>(ImportPatchBase::Original()); }
};

// A replacement that is any callable object, also a lambda with captures. One object for each Tag
// (use a new lambda or local struct type) may live at a time. Calls through the table from any
// thread reach the callable.
//
//   CallPatch<struct Tag, BOOL WINAPI(SC_HANDLE)> patch(
//       "ADVAPI32.dll", "DeleteService", [&](SC_HANDLE service) { return FALSE; });
template <typename Tag, typename Signature>
class CallPatch;

template <typename Tag, typename Result, typename... Args>
class CallPatch<Tag, Result(Args...)> {
 public:
  using Callable = std::function<Result(Args...)>;

  CallPatch(const char* library, const char* function, Callable callable)
      : m_installed((s_callable() = std::move(callable), library), function, &Forward) {}
  ~CallPatch() = default;

  // Calls the function that was in the table before.
  Result CallOriginal(Args... args) const { return m_installed.Original()(args...); }

 private:
  static Callable& s_callable() {
    static Callable callable;
    return callable;
  }
  static Result Forward(Args... args) { return s_callable()(args...); }

  ImportPatch<Result(Args...)> m_installed;
};
