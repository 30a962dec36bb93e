// The client-agent support library for tests that let several starts of the program write the
// identifier at the same moment. It hands every call to the library proper, which lies beside it
// under another name, and holds each process in front of its write.
#include "support/handle.h"
#include "support/procaddress.h"
#include "support/vorlmisc.h"

namespace {

// A function of the library proper.
template <typename Function>
Function* Behind(WORD ordinal) {
  static const HMODULE library = LoadLibraryW(L"vorlmisc_behind.dll");
  return ProcAddress<Function>(library, MAKEINTRESOURCEA(ordinal));
}

// Tells the test that this process has arrived, and waits until it may go on.
void WaitForTheOthers() {
  const KernelHandle arrived(
      OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, L"VorlIdentityTestArrived"));
  const KernelHandle go(OpenEventW(SYNCHRONIZE, FALSE, L"VorlIdentityTestGo"));
  if (arrived && go) {
    ReleaseSemaphore(arrived.Get(), 1, nullptr);
    WaitForSingleObject(go.Get(), INFINITE);
  }
}

}  // namespace

BOOLEAN GetClientAgentRootDir(wchar_t* folder, DWORD capacity) {
  return Behind<decltype(GetClientAgentRootDir)>(1)(folder, capacity);
}

BOOLEAN GetClientAgentConfigDir(wchar_t* folder, DWORD capacity) {
  const BOOLEAN result = Behind<decltype(GetClientAgentConfigDir)>(2)(folder, capacity);
  // The first question is asked in order to read the identifier, the second to write it.
  static int questions = 0;
  if (++questions == 2) {
    WaitForTheOthers();
  }
  return result;
}

BOOLEAN SetClientAgentLogOptions() { return Behind<decltype(SetClientAgentLogOptions)>(5)(); }

BOOLEAN GetClientAgentStartUpOptions(CLIENT_AGENT_STARTUP_OPTIONS* options) {
  return Behind<decltype(GetClientAgentStartUpOptions)>(6)(options);
}
