// Events and pipes in states that a test cannot bring about, or that Wine does not tell.
#include "tools/vorldiag/status/objectscheck.h"

#include <gmock/gmock.h>

#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "support/handle.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorldiag/finding_of.h"

// Needs the types of windows.h.
#include <tlhelp32.h>

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr LONG kUnsuccessful = static_cast<LONG>(0xC0000001);
constexpr LONG kTooSmall = static_cast<LONG>(0xC0000004);

// An entry of the list of all handles, as Windows gives it.
struct Handle {
  void* object;
  ULONG_PTR processId;
  ULONG_PTR handle;
  ULONG access;
  USHORT creator;
  USHORT type;
  ULONG attributes;
  ULONG reserved;
};

// What the functions of ntdll.dll answer.
struct Ntdll {
  bool hasQueryEvent = true;
  LONG queryEventResult = 0;
  ULONG type = 0;  // manual reset
  LONG state = 0;
  std::vector<Handle> handles;
  std::vector<Handle> behind;  // left there by an earlier answer
  int tooSmall = 0;            // so often
  bool hasQueryObject = true;
  HANDLE opened = nullptr;
};
Ntdll g_ntdll;

LONG NTAPI QueryEvent(HANDLE /*event*/, ULONG /*kind*/, void* buffer, ULONG /*size*/, ULONG*) {
  const LONG answer[] = {static_cast<LONG>(g_ntdll.type), g_ntdll.state};
  std::memcpy(buffer, answer, sizeof(answer));
  return g_ntdll.queryEventResult;
}

// The handle that was opened last stands for that of the first entry.
LONG NTAPI QuerySystem(ULONG /*kind*/, void* buffer, ULONG /*size*/, ULONG* /*given*/) {
  if (g_ntdll.tooSmall-- > 0) {
    return kTooSmall;
  }
  std::vector<Handle> handles = g_ntdll.handles;
  if (!handles.empty()) {
    handles[0].handle = reinterpret_cast<ULONG_PTR>(g_ntdll.opened);
  }
  const ULONG_PTR head[] = {handles.size(), 0};
  handles.insert(handles.end(), g_ntdll.behind.begin(), g_ntdll.behind.end());
  std::memcpy(buffer, head, sizeof(head));
  std::memcpy(static_cast<BYTE*>(buffer) + sizeof(head), handles.data(),
              handles.size() * sizeof(Handle));
  return 0;
}

class SharedObjects : public ::testing::Test {
 protected:
  SharedObjects() {
    g_ntdll = {};
    situation.names.closeEvent = "Close";
    situation.names.exitEvent = "Exit";
  }

  void SetState(DWORD state) {
    situation.state = SERVICE_STATUS_PROCESS{};
    situation.state->dwCurrentState = state;
  }
  Finding Look(const std::string& id = "exit-event") const {
    return FindingOf(CheckObjects(situation), id);
  }

  Situation situation;
  DWORD eventError = ERROR_SUCCESS;
  DWORD pipeError = ERROR_FILE_NOT_FOUND;
  const wchar_t* eventName = nullptr;

  CallPatch<struct OpenTag, HANDLE WINAPI(DWORD, BOOL, const char*)> open{
      "KERNEL32.dll", "OpenEventA", [this](DWORD, BOOL, const char*) -> HANDLE {
        SetLastError(eventError);
        g_ntdll.opened = eventError == ERROR_SUCCESS
                             ? CreateEventW(nullptr, /*bManualReset=*/TRUE,
                                            /*bInitialState=*/FALSE, eventName)
                             : nullptr;
        return g_ntdll.opened;
      }};
  CallPatch<struct PipeTag, BOOL WINAPI(const wchar_t*, DWORD)> pipe{
      "KERNEL32.dll", "WaitNamedPipeW", [this](const wchar_t*, DWORD) {
        SetLastError(pipeError);
        return pipeError == ERROR_SUCCESS;
      }};
  CallPatch<struct FunctionTag, FARPROC WINAPI(HMODULE, const char*)> function{
      "KERNEL32.dll", "GetProcAddress", [this](HMODULE module, const char* name) -> FARPROC {
        const std::string_view wanted = reinterpret_cast<std::uintptr_t>(name) > 0xFFFF ? name : "";
        if (wanted == "NtQueryEvent") {
          return g_ntdll.hasQueryEvent ? AsFunction(&QueryEvent) : nullptr;
        }
        if (wanted == "NtQueryObject" && !g_ntdll.hasQueryObject) {
          return nullptr;
        }
        return wanted == "NtQuerySystemInformation" ? AsFunction(&QuerySystem)
                                                    : function.CallOriginal(module, name);
      }};

 private:
  template <typename Function>
  static FARPROC AsFunction(Function* made) {
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(made));
  }
};

TEST_F(SharedObjects, AnEventIsThereWhileTheServiceRunsAndOnlyThen) {
  eventError = ERROR_FILE_NOT_FOUND;
  for (const DWORD state : std::initializer_list<DWORD>{SERVICE_STOPPED, SERVICE_START_PENDING}) {
    SetState(state);
    EXPECT_EQ(Look().verdict, Verdict::kOk);
  }
  SetState(SERVICE_RUNNING);
  EXPECT_EQ(Look().verdict, Verdict::kWarning);
  EXPECT_EQ(Look().value, "Exit is not there although the service runs");
  EXPECT_EQ(Look("close-event").value, "Close is not there although the service runs");
  situation.state.reset();
  EXPECT_EQ(Look().verdict, Verdict::kOk);

  eventError = ERROR_SUCCESS;
  SetState(SERVICE_RUNNING);
  EXPECT_EQ(Look().verdict, Verdict::kOk);
  EXPECT_THAT(Look().value, StartsWith("Exit, not signalled"));
  SetState(SERVICE_STOPPED);
  EXPECT_EQ(Look().verdict, Verdict::kWarning);
  EXPECT_THAT(Look().advice, EndsWith("Find out with a handle viewer who holds it, and end that "
                                      "program."));
}

TEST_F(SharedObjects, AnEventThatCannotBeOpenedIsNotCalledMissing) {
  eventError = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Look().verdict, Verdict::kWarning);
  EXPECT_THAT(Look().value, StartsWith("Exit cannot be opened: error 5"));
  EXPECT_THAT(Look().advice, StartsWith("Run vorldiag from an elevated prompt"));
  eventError = ERROR_INVALID_HANDLE;
  EXPECT_EQ(Look().verdict, Verdict::kError);
  EXPECT_EQ(Look().value, "Exit is something else than an event");
}

TEST_F(SharedObjects, AnEventWhoseStateIsUnknownIsNotCalledRight) {
  SetState(SERVICE_RUNNING);
  g_ntdll.queryEventResult = kUnsuccessful;
  EXPECT_EQ(Look().verdict, Verdict::kWarning);
  EXPECT_THAT(Look().value, StartsWith("Exit, state unknown"));
  g_ntdll.queryEventResult = 0;
  g_ntdll.hasQueryEvent = false;
  EXPECT_EQ(Look().verdict, Verdict::kWarning);
  EXPECT_THAT(Look().value, StartsWith("Exit, state unknown"));
}

TEST_F(SharedObjects, ASignalledEventStopsTheService) {
  g_ntdll.state = 1;
  SetState(SERVICE_RUNNING);
  EXPECT_EQ(Look().verdict, Verdict::kWarning);
  EXPECT_THAT(Look().value, StartsWith("Exit, signalled"));
  EXPECT_THAT(Look().advice, StartsWith("The service is about to stop"));
  SetState(SERVICE_STOPPED);
  EXPECT_EQ(Look().verdict, Verdict::kError);
  EXPECT_THAT(Look().advice, StartsWith("Another program keeps it signalled"));
}

TEST_F(SharedObjects, AnEventThatResetsItselfIsNotTheServices) {
  g_ntdll.type = 1;
  SetState(SERVICE_RUNNING);
  EXPECT_EQ(Look().verdict, Verdict::kError);
  EXPECT_THAT(Look().value, EndsWith(", of the wrong kind (it resets itself)"));
}

// Windows tells administrators which object a handle stands for; Wine does not.
TEST_F(SharedObjects, HoldersAreTheOtherProcessesWithAHandleOfTheObject) {
  int objects[2] = {};
  void* const mine = &objects[0];
  void* const other = &objects[1];
  constexpr USHORT event = 16;
  constexpr USHORT file = 37;
  g_ntdll.handles = {{mine, GetCurrentProcessId(), 0, 0, 0, event, 0, 0},
                     {mine, 0xFFFF0001, 4, 0, 0, event, 0, 0},
                     {mine, 0xFFFF0001, 8, 0, 0, event, 0, 0},
                     {other, 0xFFFF0002, 4, 0, 0, event, 0, 0},
                     {mine, 0xFFFF0003, 4, 0, 0, file, 0, 0},
                     {mine, 0xFFFF0000, 4, 0, 0, event, 0, 0}};
  g_ntdll.tooSmall = 2;
  EXPECT_THAT(Look("close-event").value, EndsWith(", held by process 4294901760, process "
                                                  "4294901761"));
  EXPECT_THAT(Look().advice, EndsWith("End the program that holds it: process 4294901760, process "
                                      "4294901761."));
  // One that is not in the list itself: nothing is known.
  g_ntdll.behind = {g_ntdll.handles[0]};
  g_ntdll.handles.erase(g_ntdll.handles.begin());
  g_ntdll.handles[0].processId = 0xFFFF0004;
  EXPECT_THAT(Look().value, ::testing::Not(HasSubstr("held by")));
}

// As Wine has it: nobody tells which object a handle stands for, but objects have names.
TEST_F(SharedObjects, HoldersAreThoseWithAHandleOfTheNameWhereObjectsAreUnknown) {
  const std::wstring name = L"vorltest_holders_" + std::to_wstring(GetCurrentProcessId());
  eventName = name.c_str();
  const KernelHandle same(CreateEventW(nullptr, TRUE, FALSE, eventName));
  const KernelHandle other(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const auto number = [](const KernelHandle& handle) {
    return reinterpret_cast<ULONG_PTR>(handle.Get());
  };
  int known = 0;
  g_ntdll.handles = {{nullptr, GetCurrentProcessId(), 0, 0, 0, 1, 0, 0},
                     {nullptr, 0xFFFF0001, number(other), 0, 0, 1, 0, 0},
                     {nullptr, 0xFFFF0001, number(same), 0, 0, 1, 0, 0},
                     {&known, 0xFFFF0002, number(other), 0, 0, 1, 0, 0},
                     {nullptr, 0xFFFF0003, 0xFFFF0000, 0, 0, 1, 0, 0}};
  bool isOpened = true;
  // Every process is this one.
  const CallPatch<struct ProcessTag, HANDLE WINAPI(DWORD, BOOL, DWORD)> process(
      "KERNEL32.dll", "OpenProcess", [&](DWORD access, BOOL isInherited, DWORD id) -> HANDLE {
        return isOpened || id == GetCurrentProcessId()
                   ? process.CallOriginal(access, isInherited, GetCurrentProcessId())
                   : nullptr;
      });
  EXPECT_THAT(Look().value, EndsWith("_test.exe (4294901761)"));
  EXPECT_THAT(Look().value, HasSubstr(", held by vorldiag_"));
  isOpened = false;
  EXPECT_THAT(Look().value, ::testing::Not(HasSubstr("held by")));
  isOpened = true;
  g_ntdll.hasQueryObject = false;
  EXPECT_THAT(Look().value, ::testing::Not(HasSubstr("held by")));
}

// However many handles there are, the memory for them has an end.
TEST_F(SharedObjects, HoldersAreUnknownWhereTheListDoesNotFit) {
  g_ntdll.tooSmall = 1000;
  EXPECT_THAT(Look().value, ::testing::Not(HasSubstr("held by")));
  EXPECT_GT(g_ntdll.tooSmall, 900);
}

TEST_F(SharedObjects, ThePipeIsServedByTheHelperOrNobody) {
  EXPECT_EQ(Look("helper-pipe").verdict, Verdict::kOk);
  EXPECT_THAT(Look("helper-pipe").value, EndsWith(" is not there: no helper serves it"));
  pipeError = ERROR_SEM_TIMEOUT;
  EXPECT_EQ(Look("helper-pipe").verdict, Verdict::kWarning);
  EXPECT_THAT(Look("helper-pipe").value, EndsWith("helperpipe is busy"));
  EXPECT_THAT(Look("helper-pipe").advice, HasSubstr("restart the helper"));
  pipeError = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Look("helper-pipe").verdict, Verdict::kWarning);
  EXPECT_THAT(Look("helper-pipe").value, HasSubstr("helperpipe: error 5"));
  pipeError = ERROR_SUCCESS;
  situation.programFolder = L"C:\\nowhere";
  EXPECT_EQ(Look("helper-pipe").verdict, Verdict::kWarning);
  EXPECT_THAT(Look("helper-pipe").value, HasSubstr("no vorlhelper.exe of this installation runs"));
}

TEST_F(SharedObjects, ThePipeOfTheInstallationsHelperIsRight) {
  pipeError = ERROR_SUCCESS;
  situation.programFolder = L"C:\\Agent";
  const CallPatch<struct ImageTag, BOOL WINAPI(HANDLE, DWORD, wchar_t*, DWORD*)> image(
      "KERNEL32.dll", "QueryFullProcessImageNameW", [](HANDLE, DWORD, wchar_t* path, DWORD* size) {
        constexpr std::wstring_view helper = L"C:\\AGENT\\VorlHelper.exe";
        helper.copy(path, helper.size());
        *size = static_cast<DWORD>(helper.size());
        return TRUE;
      });
  const Finding finding = Look("helper-pipe");
  EXPECT_EQ(finding.verdict, Verdict::kOk);
  EXPECT_THAT(finding.value, HasSubstr(" is there, the helper runs: VorlHelper.exe ("));
}

TEST_F(SharedObjects, ThePipesServerIsUnknownWhereProcessesAreNotShown) {
  pipeError = ERROR_SUCCESS;
  situation.programFolder = L"C:\\Agent";
  const auto expectUnknown = [&] {
    EXPECT_EQ(Look("helper-pipe").verdict, Verdict::kWarning);
    EXPECT_THAT(Look("helper-pipe").value, EndsWith("whether the helper serves it is unknown"));
    EXPECT_EQ(Look("helper-pipe").advice, "Run vorldiag from an elevated prompt.");
  };
  {
    const CallPatch<struct ListTag, HANDLE WINAPI(DWORD, DWORD)> list(
        "KERNEL32.dll", "CreateToolhelp32Snapshot", [](DWORD, DWORD) {
          SetLastError(ERROR_BAD_LENGTH);
          return INVALID_HANDLE_VALUE;
        });
    expectUnknown();
  }
  bool isLast = false;
  const CallPatch<struct NextTag, BOOL WINAPI(HANDLE, PROCESSENTRY32W*)> next(
      "KERNEL32.dll", "Process32NextW", [&](HANDLE, PROCESSENTRY32W* entry) -> BOOL {
        isLast = !isLast;
        entry->th32ProcessID = 0xFFFFFFFC;
        std::wstring_view(L"VORLHELPER.EXE\0", 15).copy(entry->szExeFile, 15);
        SetLastError(ERROR_NO_MORE_FILES);
        return isLast;
      });
  expectUnknown();
  const CallPatch<struct BrokenTag, BOOL WINAPI(HANDLE, PROCESSENTRY32W*)> broken(
      "KERNEL32.dll", "Process32NextW", [](HANDLE, PROCESSENTRY32W*) -> BOOL {
        SetLastError(ERROR_PARTIAL_COPY);
        return FALSE;
      });
  expectUnknown();
}

TEST_F(SharedObjects, TheTracesLockIsNamedWithWhetherItIsThere) {
  const TempFolder folder;
  situation.programFolder = folder.Path().wstring();
  EXPECT_THAT(Look("trace-lock").value, EndsWith("\\logs\\vorltrace.lock is not there"));
  std::filesystem::create_directory(folder.Path() / "logs");
  WriteBytes(folder.File("logs/vorltrace.lock"), {});
  EXPECT_THAT(Look("trace-lock").value, EndsWith("\\logs\\vorltrace.lock"));
}

}  // namespace
