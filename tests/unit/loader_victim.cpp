// A process in which a thread's first line meets the loader:
//
//   loader_victim FOLDER FUNCTION WHAT
//
// FOLDER holds vlevtlog.dll. A thread writes a line; the trace library's first call of FUNCTION for
// it is held until
//   loading   the module's DllMain has begun
//   written   the line from the module's DllMain has been written
//   never     the process ends: then the exit code is 42
//   guard     nothing of that: a function of FOLDER\stack_guard_probe.dll writes over its stack
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "support/vlevtlog.h"
#include "tests/support/installation.h"
#include "tests/unit/loader_report.h"

namespace {

LoaderReport* g_report = nullptr;
const char* g_heldUntil = nullptr;
std::atomic<bool> g_isHeld{false};

void HoldOnce() {
  if (g_isHeld.exchange(true)) {
    return;
  }
  LoaderEvent(kFirstLineIsUnderWay).Set();
  if (g_heldUntil != nullptr) {
    LoaderEvent(g_heldUntil).Await(*g_report);
  } else {
    Sleep(INFINITE);
  }
}

// Puts HoldOnce in front of a function that the library imports.
template <auto Tag, typename Result, typename... Args>
struct Held {
  static inline Result(WINAPI* original)(Args...) = nullptr;
  static Result WINAPI Call(Args... arguments) {
    HoldOnce();
    return original(arguments...);
  }
  static void Install(const Library& library, const char* function) {
    original = library.ReplaceImport(function, &Call);
  }
};

enum Function { kRegistry, kAttributes, kMapping, kWrite };

void Hold(const Library& library, const std::string& function) {
  if (function == "RegGetValueW") {
    Held<kRegistry, LSTATUS, HKEY, const wchar_t*, const wchar_t*, DWORD, DWORD*, void*,
         DWORD*>::Install(library, function.c_str());
  } else if (function == "GetFileAttributesExW") {
    Held<kAttributes, BOOL, const wchar_t*, GET_FILEEX_INFO_LEVELS, void*>::Install(
        library, function.c_str());
  } else if (function == "CreateFileMappingW") {
    Held<kMapping, HANDLE, HANDLE, SECURITY_ATTRIBUTES*, DWORD, DWORD, DWORD,
         const wchar_t*>::Install(library, function.c_str());
  } else {
    Held<kWrite, BOOL, HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*>::Install(library,
                                                                                 "WriteFile");
  }
}

void(WINAPI* g_sleep)(DWORD) = nullptr;

void WINAPI CountSleep(DWORD milliseconds) {
  if (g_report->isEnding != 0) {
    ++g_report->sleepsWhileEnding;
  }
  g_sleep(milliseconds);
}

// Found in the folder of this program; its imports of vlevtlog.dll go to the one that is loaded.
std::filesystem::path ModuleFile() {
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  return std::filesystem::path(program).parent_path() / "loader_module.dll";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    return EXIT_FAILURE;
  }
  const std::filesystem::path folder = argv[1];
  const std::string_view what = argv[3];
  if (what == "guard") {
    const Library probe(folder / "stack_guard_probe.dll");
    probe.Ordinal<void()>(2)();
    return EXIT_SUCCESS;
  }
  const LoaderReportView report = OpenReport();
  g_report = report.Get();
  g_heldUntil = what == "loading"   ? kModuleIsLoading
                : what == "written" ? kModuleHasWritten
                                    : nullptr;
  const Library library(folder / "vlevtlog.dll");
  Hold(library, argv[2]);
  g_sleep = library.ReplaceImport("Sleep", &CountSleep);
  if (what == "never") {
    LoadLibraryW(ModuleFile().c_str());
  }
  auto* const logTrace = library.Ordinal<decltype(LogTrace)>(2);
  std::thread first([&] {
    logTrace(kTraceLevelInfo, "program", "Thread", "program.cpp", 1, "%s", "first");
    LoaderEvent(kFirstLineIsWritten).Set();
  });
  LoaderEvent(kFirstLineIsUnderWay).Await(*g_report);
  if (what == "never") {
    g_report->isEnding = 1;
    ExitProcess(42);
  }
  LoadLibraryW(ModuleFile().c_str());
  first.join();
  return EXIT_SUCCESS;
}
