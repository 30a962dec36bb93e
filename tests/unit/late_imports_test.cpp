// The hooks of late loading, called as the code that loads a library calls them.
#include <gmock/gmock.h>

#include <cwctype>
#include <string>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"

// Needs the types of windows.h.
#include <delayimp.h>

namespace {

using AskSystemFolder = UINT WINAPI(wchar_t*, UINT);
using LoadLibraryFrom = HMODULE WINAPI(const wchar_t*, HANDLE, DWORD);

HMODULE Load(const char* library, unsigned step = dliNotePreLoadLibrary) {
  DelayLoadInfo info{};
  info.cb = sizeof info;
  info.szDll = library;
  return reinterpret_cast<HMODULE>(__pfnDliNotifyHook2(step, &info));
}

template <typename Function>
Function* StandIn(const char* library, unsigned step = dliFailGetProc) {
  DelayLoadInfo info{};
  info.cb = sizeof info;
  info.szDll = library;
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(__pfnDliFailureHook2(step, &info)));
}

const HMODULE kProgram = GetModuleHandleW(nullptr);

std::wstring InSystemFolder(const wchar_t* name) {
  wchar_t folder[MAX_PATH] = {};
  GetSystemDirectoryW(folder, MAX_PATH);
  return std::wstring(folder) + L"\\" + name;
}

TEST(LateImports, AreLoadedFromWindowsOwnFolder) {
  std::vector<std::wstring> loaded;
  const CallPatch<struct LoadTag, LoadLibraryFrom> load(
      "KERNEL32.dll", "LoadLibraryExW", [&](const wchar_t* path, HANDLE file, DWORD flags) {
        loaded.emplace_back(path);
        EXPECT_EQ(flags, DWORD{LOAD_WITH_ALTERED_SEARCH_PATH});
        return load.CallOriginal(path, file, flags);
      });
  const HMODULE ipHelper = Load("iphlpapi.dll");
  EXPECT_NE(ipHelper, kProgram);
  EXPECT_EQ(ipHelper, GetModuleHandleW(L"iphlpapi.dll"));
  EXPECT_THAT(loaded, testing::ElementsAre(InSystemFolder(L"iphlpapi.dll")));
  loaded.clear();
  const HMODULE com = Load("OLE32.dll");
  EXPECT_NE(com, kProgram);
  EXPECT_EQ(com, GetModuleHandleW(L"ole32.dll"));
  EXPECT_THAT(loaded,
              testing::ElementsAre(InSystemFolder(L"OLE32.dll"), InSystemFolder(L"oleaut32.dll")));
}

TEST(LateImports, AreTheProgramWhereThereIsNoSuchLibrary) {
  SetLastError(1234);
  EXPECT_EQ(Load("nosuchlibrary.dll"), kProgram);
  EXPECT_EQ(GetLastError(), 1234U);
}

TEST(LateImports, AreTheProgramWhereWindowsOwnFolderIsNotKnown) {
  unsigned length = 0;
  const CallPatch<struct FolderTag, AskSystemFolder> folder(
      "KERNEL32.dll", "GetSystemDirectoryW", [&](wchar_t* path, UINT size) -> UINT {
        const std::wstring text = L"C:\\" + std::wstring(length - 3, L'x');
        if (length < size) {
          text.copy(path, length);
          path[length] = L'\0';
          return length;
        }
        return length + 1;
      });
  const CallPatch<struct LoadTag, LoadLibraryFrom> load(
      "KERNEL32.dll", "LoadLibraryExW", [](const wchar_t* path, HANDLE, DWORD) -> HMODULE {
        ADD_FAILURE() << "loads " << path;
        return nullptr;
      });
  // Longer than any path, and too long with the library's name: "\user32.dll" and the terminator
  // take twelve characters.
  for (const unsigned tried : {270U, 260U, 259U, 249U}) {
    length = tried;
    EXPECT_EQ(Load("user32.dll"), kProgram) << length;
  }
}

TEST(LateImports, AreTheProgramWhereWindowsOwnFolderCannotBeAskedFor) {
  const CallPatch<struct FolderTag, AskSystemFolder> folder("KERNEL32.dll", "GetSystemDirectoryW",
                                                            [](wchar_t* path, UINT) -> UINT {
                                                              path[0] = L'\0';
                                                              return 0;
                                                            });
  const CallPatch<struct LoadTag, LoadLibraryFrom> load(
      "KERNEL32.dll", "LoadLibraryExW", [](const wchar_t* path, HANDLE, DWORD) -> HMODULE {
        ADD_FAILURE() << "loads " << path;
        return nullptr;
      });
  EXPECT_EQ(Load("user32.dll"), kProgram);
}

TEST(LateImports, OfComAreMissingWhereAutomationIs) {
  const CallPatch<struct LoadTag, LoadLibraryFrom> load(
      "KERNEL32.dll", "LoadLibraryExW",
      [&](const wchar_t* path, HANDLE file, DWORD flags) -> HMODULE {
        const bool isAutomation = std::wstring_view(path).ends_with(L"\\oleaut32.dll");
        return isAutomation ? nullptr : load.CallOriginal(path, file, flags);
      });
  EXPECT_EQ(Load("ole32.dll"), kProgram);
  EXPECT_NE(Load("user32.dll"), kProgram);
}

TEST(LateImports, ThatAreMissingFailAsTheirLibrarysFunctionsDo) {
  EXPECT_EQ(StandIn<HRESULT WINAPI()>("ole32.dll")(), HRESULT_FROM_WIN32(ERROR_DELAY_LOAD_FAILED));
  EXPECT_EQ(StandIn<ULONG WINAPI()>("IPHLPAPI.dll")(), ULONG{ERROR_DELAY_LOAD_FAILED});
  EXPECT_EQ(StandIn<void * WINAPI()>("oleaut32.dll")(), nullptr);
  EXPECT_EQ(StandIn<void * WINAPI()>("user32.dll")(), nullptr);
}

TEST(LateImports, AreLeftToTheLoaderInEveryOtherStep) {
  for (const unsigned step : {unsigned{dliNotePreGetProcAddress}, unsigned{dliNoteEndProcessing}}) {
    EXPECT_EQ(Load("user32.dll", step), nullptr);
  }
  EXPECT_EQ(StandIn<void>("ole32.dll", dliFailLoadLib), nullptr);
}

}  // namespace
