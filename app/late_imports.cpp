// Libraries that only the start which makes the identifier needs. They are loaded when one of their
// functions is called for the first time, because every other start would wait for them in vain.
//
// They are taken from Windows' own folder and from nowhere else. A library that cannot be loaded is
// not the end of the program: its functions then fail as they fail on a machine that lacks what
// they ask for, and the caller traces the error (ERROR_DELAY_LOAD_FAILED).
#include <cstring>

#include "support/lasterror.h"
#include "support/windows_api.h"

// delayimp.h needs the types of windows.h.
#include <delayimp.h>

namespace {

constexpr char kCom[] = "ole32.dll";
constexpr char kAutomation[] = "oleaut32.dll";
constexpr char kIpHelper[] = "iphlpapi.dll";

bool IsLibrary(const char* name, const char* library) noexcept {
  return _stricmp(name, library) == 0;
}

HMODULE LoadFromSystemFolder(const char* name) noexcept {
  wchar_t path[MAX_PATH];
  const UINT length = GetSystemDirectoryW(path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH ||
      FAILED(StringCchPrintfW(path + length, MAX_PATH - length, L"\\%S", name))) {
    return nullptr;
  }
  return LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

// Never null: with null the delay-load code would look for the library itself, beside the program
// first. In place of a library that is not there it gets the program, which exports nothing, so
// that no function is found.
HMODULE Load(const char* name) noexcept {
  const LastErrorKeeper keeper;
  HMODULE module = LoadFromSystemFolder(name);
  // COM gives its texts in memory of the automation library. Where that one is missing, COM counts
  // as missing, too: then it fails at its first call, whose caller is prepared for it.
  if (module != nullptr && IsLibrary(name, kCom) && LoadFromSystemFolder(kAutomation) == nullptr) {
    module = nullptr;
  }
  return module != nullptr ? module : GetModuleHandleW(nullptr);
}

// These stand in for functions that are not there. For a function without a result any of them will
// do.
constexpr ULONG kNotLoaded = ERROR_DELAY_LOAD_FAILED;  // NOLINT(cert-dcl16-c): Windows' suffix
HRESULT WINAPI FailWithResult() noexcept { return HRESULT_FROM_WIN32(kNotLoaded); }
ULONG WINAPI FailWithCode() noexcept { return kNotLoaded; }
void* WINAPI GiveNothing() noexcept { return nullptr; }

template <typename Function>
FARPROC AsProcedure(Function* function) noexcept {
  return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(function));
}

FARPROC StandIn(const char* library) noexcept {
  if (IsLibrary(library, kCom)) {
    return AsProcedure(&FailWithResult);
  }
  return IsLibrary(library, kIpHelper) ? AsProcedure(&FailWithCode) : AsProcedure(&GiveNothing);
}

FARPROC WINAPI OnLoading(unsigned step, PDelayLoadInfo info) noexcept {
  return step == dliNotePreLoadLibrary ? reinterpret_cast<FARPROC>(Load(info->szDll)) : nullptr;
}

FARPROC WINAPI OnFailure(unsigned step, PDelayLoadInfo info) noexcept {
  return step == dliFailGetProc ? StandIn(info->szDll) : nullptr;
}

}  // namespace

#ifdef _MSC_VER
extern "C" const PfnDliHook __pfnDliNotifyHook2 = &OnLoading;
extern "C" const PfnDliHook __pfnDliFailureHook2 = &OnFailure;
#else
PfnDliHook __pfnDliNotifyHook2 = &OnLoading;
PfnDliHook __pfnDliFailureHook2 = &OnFailure;
#endif
