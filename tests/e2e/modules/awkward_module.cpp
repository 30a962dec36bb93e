// A core and an update module that behave as the file NAME.dll.txt beside them says.
#include <fstream>
#include <stdexcept>
#include <string>

#include "support/handle.h"
#include "support/procaddress.h"
#include "support/vorlcore.h"
#include "support/vorlinfo.h"
#include "support/vorlupd.h"

extern "C" {

__declspec(dllexport) ClientAgentCoreStartUpFn ClientAgentCoreStartUp;
__declspec(dllexport) ClientAgentCoreCleanUpFn ClientAgentCoreCleanUp;
__declspec(dllexport) UpdateBeforeClientServiceFn UpdateBeforeClientService;

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved);
}

namespace {

HINSTANCE g_module = nullptr;

// As another part of the agent does. While the service starts its event may still be to come; while
// it ends the event may be gone.
void SignalExitEvent(bool waitsForIt) {
  constexpr WORD kGetEventNameByVersionOrdinal = 1;
  auto* const getName = ProcAddress<decltype(GetEventNameByVersion)>(
      GetModuleHandleA("vorlinfo.dll"), MAKEINTRESOURCEA(kGetEventNameByVersionOrdinal));
  char name[500] = {};
  if (getName == nullptr ||
      getName("AcClientAgentSrvcExitFromOuterModuleEvent", name, sizeof(name)) == 0) {
    return;
  }
  KernelHandle event(OpenEventA(EVENT_MODIFY_STATE, /*bInheritHandle=*/FALSE, name));
  while (!event && waitsForIt) {
    Sleep(1);
    event.Reset(OpenEventA(EVENT_MODIFY_STATE, /*bInheritHandle=*/FALSE, name));
  }
  if (event) {
    SetEvent(event.Get());
  }
}

BOOLEAN Behave(const std::string& call) {
  char file[MAX_PATH];
  GetModuleFileNameA(g_module, file, MAX_PATH);
  std::ifstream in(std::string(file) + ".txt");
  std::string wanted;
  in >> wanted;
  if (wanted == call + ":fails") {
    return FALSE;
  }
  if (wanted == call + ":throws") {
    throw std::runtime_error(wanted);
  }
  if (wanted == call + ":crashes") {
    RaiseException(STATUS_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  }
  if (wanted == call + ":takes-its-time") {
    // Longer than any step beside it; nothing is judged by it.
    Sleep(1000);
  }
  if (wanted == call + ":ends-the-service") {
    SignalExitEvent(call == "start");
  }
  return TRUE;
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE module, DWORD /*reason*/, void* /*reserved*/) {
  g_module = module;
  return TRUE;
}

BOOLEAN ClientAgentCoreStartUp(const char* /*text1*/, const char* /*text2*/, const char* /*text3*/,
                               const char* /*text4*/, WORD /*word1*/, WORD /*word2*/,
                               WORD /*word3*/, WORD /*word4*/, DWORD /*dword1*/, DWORD /*dword2*/,
                               DWORD /*dword3*/, DWORD /*dword4*/, DWORD /*dword5*/, BYTE /*byte1*/,
                               DWORD /*dword6*/) {
  return Behave("start");
}

BOOLEAN ClientAgentCoreCleanUp(const char* /*text1*/, const char* /*text2*/, const char* /*text3*/,
                               const char* /*text4*/, WORD /*word1*/, DWORD /*dword1*/,
                               DWORD /*dword2*/, DWORD /*dword3*/, DWORD /*dword6*/,
                               BYTE /*notify*/) {
  return Behave("cleanup");
}

BOOLEAN UpdateBeforeClientService() { return Behave("update"); }
