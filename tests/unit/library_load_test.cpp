// What the in-house libraries do while they are loaded: nothing. Every process of the product loads
// them, under the loader's lock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/stackguard.h"
#include "tests/support/import_patch.h"
#include "tests/support/installation.h"
#include "tests/support/long_run.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;

// What every load would leave behind shows long before.
constexpr int kLoads = 1'000;
constexpr int kManyLoads = 10'000;
constexpr DWORD kLimit = 60'000;  // milliseconds; only a defect reaches it

class InHouseLibrary : public testing::TestWithParam<std::string> {
 protected:
  fs::path File() const { return StagedFolder() / (GetParam() + ".dll"); }
};

std::string NameOf(const testing::TestParamInfo<std::string>& library) { return library.param; }

INSTANTIATE_TEST_SUITE_P(Staged, InHouseLibrary,
                         testing::Values("vlevtlog", "vorlmisc", "vorlinfo"), NameOf);

const IMAGE_NT_HEADERS64& HeadersOf(const Library& library) {
  const auto* const base = reinterpret_cast<const BYTE*>(library.Handle());
  return *reinterpret_cast<const IMAGE_NT_HEADERS64*>(
      base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
}

// By the name of the other library, in lower case.
[[maybe_unused]] std::map<std::string, std::vector<std::string>> ImportsOf(const Library& library) {
  const auto* const base = reinterpret_cast<const BYTE*>(library.Handle());
  std::map<std::string, std::vector<std::string>> imports;
  const DWORD table =
      HeadersOf(library).OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
  for (const auto* from = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + table);
       from->Name != 0; ++from) {
    std::string name = reinterpret_cast<const char*>(base + from->Name);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    std::vector<std::string>& functions = imports[name];
    for (const auto* entry =
             reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + from->OriginalFirstThunk);
         entry->u1.AddressOfData != 0; ++entry) {
      functions.push_back(
          (entry->u1.Ordinal & IMAGE_ORDINAL_FLAG64) != 0
              ? "#" + std::to_string(IMAGE_ORDINAL64(entry->u1.Ordinal))
              : reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + entry->u1.AddressOfData)
                    ->Name);
    }
    std::sort(functions.begin(), functions.end());
    // The compiler calls these by itself, more or fewer of them.
    std::erase_if(functions, [](const std::string& function) {
      return function == "memcmp" || function == "memcpy" || function == "memmove" ||
             function == "memset" || function == "strlen";
    });
  }
  return imports;
}

// Private memory that this process uses, in bytes.
std::size_t PrivateMemory() {
  std::size_t sum = 0;
  MEMORY_BASIC_INFORMATION region;
  for (const char* at = nullptr; VirtualQuery(at, &region, sizeof region) != 0;
       at = static_cast<const char*>(region.BaseAddress) + region.RegionSize) {
    if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) {
      sum += region.RegionSize;
    }
  }
  return sum;
}

// The lowest free handle: it grows with every handle that is left open.
std::uintptr_t LowestFreeHandle() {
  const KernelHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  return reinterpret_cast<std::uintptr_t>(event.Get());
}

void LoadAndUnload(const fs::path& file, int times) {
  for (int i = 0; i < times; ++i) {
    const HMODULE module = LoadLibraryExW(file.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    ASSERT_NE(module, nullptr);
    ASSERT_TRUE(FreeLibrary(module));
    ASSERT_EQ(GetModuleHandleW(file.c_str()), nullptr) << "it was not unloaded";
  }
}

TEST_P(InHouseLibrary, LeavesNothingBehindHoweverOftenItIsLoaded) {
  // What the loader itself keeps from the first times.
  LoadAndUnload(File(), 500);
  const std::uintptr_t handle = LowestFreeHandle();
  const std::size_t memory = PrivateMemory();
  LoadAndUnload(File(), IsLongRun() ? kManyLoads : kLoads);
  EXPECT_EQ(LowestFreeHandle(), handle);
  // Less than any block at each load.
  EXPECT_LT(PrivateMemory(), memory + 70'000);
}

LONG WINAPI NoFilter(EXCEPTION_POINTERS*) { return EXCEPTION_CONTINUE_SEARCH; }

TEST_P(InHouseLibrary, BringsNoThreadLocalStorageAndNoHandlersIntoTheProcess) {
  LPTOP_LEVEL_EXCEPTION_FILTER const before = SetUnhandledExceptionFilter(&NoFilter);
  {
    const Library library(File());
    const auto& directories = HeadersOf(library).OptionalHeader.DataDirectory;
    EXPECT_EQ(directories[IMAGE_DIRECTORY_ENTRY_TLS].Size, 0U);
    EXPECT_EQ(directories[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT].Size, 0U);
    EXPECT_EQ(SetUnhandledExceptionFilter(before), &NoFilter);
  }
}

#ifdef __GNUC__
// The libraries' start does not run any, so there must be none. The linker begins the list of
// constructors with -1 and ends it with 0, and the same again for destructors.
TEST_P(InHouseLibrary, HasNoConstructors) {
  std::ifstream in(File(), std::ios::binary);
  const std::string image(std::istreambuf_iterator<char>(in), {});
  const std::string emptyList = std::string(8, '\xFF') + std::string(8, '\0');
  EXPECT_NE(image.find(emptyList + emptyList), std::string::npos);
}
#endif

#ifdef NDEBUG
// 90 KB for the trace; everything is loaded into every process of the product.
TEST_P(InHouseLibrary, IsSmall) {
  const std::map<std::string, std::uintmax_t> limits = {
      {"vlevtlog", 90 * 1024}, {"vorlmisc", 40 * 1024}, {"vorlinfo", 10 * 1024}};
  EXPECT_LT(fs::file_size(File()), limits.at(GetParam()));
}

// Each function is in Windows 7, does not load anything by itself, and is here because it is
// needed. What belongs to the C runtime is what the compiler or its number formatting calls.
TEST(InHouseLibraries, ImportTheseFunctionsAndNoOthers) {
  {
    const auto imports = ImportsOf(Library(StagedFolder() / "vlevtlog.dll"));
    EXPECT_EQ(imports.size(), 4U);
    EXPECT_THAT(imports.at("advapi32.dll"),
                ElementsAre("EqualSid", "GetAce", "GetFileSecurityW", "GetSecurityDescriptorDacl",
                            "GetSecurityDescriptorOwner", "GetTokenInformation", "IsWellKnownSid",
                            "OpenProcessToken", "OpenThreadToken", "RegGetValueW"));
    EXPECT_THAT(
        imports.at("kernel32.dll"),
        ElementsAre("CloseHandle", "CompareStringOrdinal", "CreateDirectoryW", "CreateFileMappingW",
                    "CreateFileW", "CreateToolhelp32Snapshot", "DeleteCriticalSection",
                    "DeleteFileW", "EnterCriticalSection", "FileTimeToSystemTime", "FindClose",
                    "FindFirstFileW", "FindNextFileW", "GetCurrentProcess", "GetCurrentProcessId",
                    "GetCurrentThread", "GetCurrentThreadId", "GetDriveTypeW",
                    "GetFileAttributesExW", "GetFileAttributesW", "GetFileInformationByHandle",
                    "GetFileInformationByHandleEx", "GetFileSizeEx", "GetFinalPathNameByHandleW",
                    "GetFullPathNameW", "GetLastError", "GetModuleFileNameW", "GetModuleHandleW",
                    "GetProcAddress", "GetProcessHeap", "GetSystemTimeAsFileTime", "GetThreadTimes",
                    "GetTickCount64", "HeapAlloc", "HeapFree", "InitializeCriticalSection",
                    "IsDBCSLeadByteEx", "LeaveCriticalSection", "MapViewOfFile", "MoveFileExW",
                    "MultiByteToWideChar", "OpenThread", "QueryDosDeviceW",
                    "QueryPerformanceCounter", "ReadFile", "ReleaseSRWLockExclusive",
                    "SetEndOfFile", "SetFilePointerEx", "SetLastError", "Sleep", "SwitchToThread",
                    "SystemTimeToFileTime", "SystemTimeToTzSpecificLocalTime", "TerminateProcess",
                    "Thread32First", "Thread32Next", "TlsAlloc", "TlsFree", "TlsGetValue",
                    "TlsSetValue", "TryAcquireSRWLockExclusive", "UnmapViewOfFile", "VirtualLock",
                    "VirtualQuery", "WaitForSingleObject", "WideCharToMultiByte", "WriteFile"));
    EXPECT_THAT(
        imports.at("msvcrt.dll"),
        ElementsAre("___lc_codepage_func", "___mb_cur_max_func", "_errno", "_vsnwprintf",
                    "_wcsicmp", "_wcsnicmp", "fputc", "free", "localeconv", "malloc", "realloc",
                    "strerror", "wcscspn", "wcslen", "wcsncmp", "wcsrchr", "wcsspn"));
    EXPECT_THAT(imports.at("ntdll.dll"),
                ElementsAre("RtlDllShutdownInProgress", "RtlGetLastNtStatus"));
  }
  {
    const auto imports = ImportsOf(Library(StagedFolder() / "vorlmisc.dll"));
    EXPECT_EQ(imports.size(), 5U);
    EXPECT_THAT(imports.at("advapi32.dll"), ElementsAre("RegGetValueW"));
    EXPECT_THAT(imports.at("ntdll.dll"), ElementsAre("RtlGetLastNtStatus"));
    EXPECT_THAT(
        imports.at("kernel32.dll"),
        ElementsAre("CloseHandle", "CompareStringOrdinal", "CreateDirectoryW", "CreateFileW",
                    "GetACP", "GetCurrentProcess", "GetCurrentProcessId", "GetCurrentThreadId",
                    "GetDriveTypeW", "GetFileAttributesExW", "GetFileAttributesW",
                    "GetFileInformationByHandle", "GetFinalPathNameByHandleW", "GetFullPathNameW",
                    "GetLastError", "GetModuleFileNameW", "GetModuleHandleW", "GetProcAddress",
                    "GetProcessHeap", "GetSystemTimeAsFileTime", "HeapAlloc", "HeapFree",
                    "MultiByteToWideChar", "QueryDosDeviceW", "QueryPerformanceCounter", "ReadFile",
                    "SetLastError", "Sleep", "TerminateProcess", "WideCharToMultiByte"));
    EXPECT_THAT(imports.at("msvcrt.dll"),
                ElementsAre("_vsnwprintf", "wcscspn", "wcslen", "wcsncmp", "wcsrchr"));
    EXPECT_THAT(imports.at("vlevtlog.dll"), ElementsAre("#3"));
  }
  {
    const auto imports = ImportsOf(Library(StagedFolder() / "vorlinfo.dll"));
    EXPECT_EQ(imports.size(), 2U);
    EXPECT_THAT(
        imports.at("kernel32.dll"),
        ElementsAre("GetCurrentProcess", "GetCurrentProcessId", "GetCurrentThreadId",
                    "GetSystemTimeAsFileTime", "QueryPerformanceCounter", "TerminateProcess"));
    EXPECT_THAT(imports.at("msvcrt.dll"), ElementsAre("strchr", "strpbrk"));
  }
}
#endif

// A value of its own that another process cannot know beforehand; without the library that the
// compiler's start-up code would load for it.
TEST(StackGuard, IsDrawnAnewAtEveryLoad) {
  const fs::path file = fs::current_path() / "stack_guard_probe.dll";
  std::set<std::uintptr_t> guards;
  for (int i = 0; i < 20; ++i) {
    const Library probe(file);
    const std::uintptr_t guard = probe.Ordinal<std::uintptr_t()>(1)();
    EXPECT_EQ(guard & 0xFF, 0U) << "a text that is copied too far would not stop";
    EXPECT_GT(guard, 0xFFFFFFFFU);
    guards.insert(guard);
  }
  EXPECT_EQ(guards.size(), 20U);
}

// Outside the test, which patches what it calls.
[[gnu::noinline]] std::uintptr_t NextStackGuard() { return MakeStackGuard(); }

// Both clocks may count the same hundred nanoseconds; neither may take away what the other gives.
TEST(StackGuard, DiffersWhereBothClocksMoveTogether) {
  constexpr int kGuards = 1000;
  LONGLONG ticks = 0x0123'4567'89AB'CDEF;
  std::set<std::uintptr_t> guards;
  {
    const CallPatch<struct Counter, BOOL WINAPI(LARGE_INTEGER*)> counter(
        "KERNEL32.dll", "QueryPerformanceCounter", [&](LARGE_INTEGER* count) {
          count->QuadPart = ++ticks;
          return TRUE;
        });
    const CallPatch<struct SystemTime, void WINAPI(FILETIME*)> systemTime(
        "KERNEL32.dll", "GetSystemTimeAsFileTime", [&](FILETIME* now) {
          now->dwLowDateTime = static_cast<DWORD>(ticks);
          now->dwHighDateTime = static_cast<DWORD>(ticks >> 32);
        });
    for (int i = 0; i < kGuards; ++i) {
      guards.insert(NextStackGuard());
    }
  }
  EXPECT_EQ(guards.size(), std::size_t{kGuards});
}

TEST(StackGuard, EndsTheProcessWhoseStackIsWrittenOver) {
  std::string command = "loader_victim.exe . - guard";
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  ASSERT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                             &startup, &process));
  const KernelHandle thread(process.hThread);
  const KernelHandle running(process.hProcess);
  ASSERT_EQ(WaitForSingleObject(running.Get(), kLimit), WAIT_OBJECT_0);
  DWORD exitCode = 0;
  GetExitCodeProcess(running.Get(), &exitCode);
  EXPECT_EQ(exitCode, 0xC0000409U);
}

}  // namespace
