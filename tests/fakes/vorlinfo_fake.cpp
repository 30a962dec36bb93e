// The results are declared wider than in the contract, to leave rubbish beside the byte that
// counts; the contract's own declarations therefore go by other names here.
#define GetEventNameByVersion ContractGetEventNameByVersion
#define GetServiceNameByVersion ContractGetServiceNameByVersion
#include "tests/fakes/vorlinfo_fake.h"
#undef GetEventNameByVersion
#undef GetServiceNameByVersion

namespace {

FakeInfoAnswers g_answers;

ULONGLONG WithRubbish(BYTE result) { return 0xDEADBEEFCAFEB000ULL | result; }

void Announce(const char* function, const char* baseName) {
  if (g_answers.onCall != nullptr) {
    g_answers.onCall(function, baseName, g_answers.context);
  }
}

}  // namespace

extern "C" {

ULONGLONG GetEventNameByVersion(const char* baseName, char* versionedName, DWORD capacity);
ULONGLONG GetServiceNameByVersion(const char* baseName, char* versionedName, DWORD capacity);

ULONGLONG GetEventNameByVersion(const char* baseName, char* versionedName, DWORD capacity) {
  Announce("GetEventNameByVersion", baseName);
  ++g_answers.eventNameCalls;
  g_answers.eventNameCapacity = capacity;
  if (g_answers.eventNameCalls == g_answers.eventNameFailingCall) {
    return WithRubbish(0);
  }
  if (g_answers.eventNameResult != 0) {
    StringCchPrintfA(versionedName, capacity, "%s%s", g_answers.eventNamePrefix, baseName);
  }
  return WithRubbish(g_answers.eventNameResult);
}

ULONGLONG GetServiceNameByVersion(const char* baseName, char* versionedName, DWORD capacity) {
  Announce("GetServiceNameByVersion", baseName);
  ++g_answers.serviceNameCalls;
  g_answers.serviceNameCapacity = capacity;
  StringCchCopyA(g_answers.serviceBaseName, sizeof(g_answers.serviceBaseName), baseName);
  if (g_answers.serviceNameResult != 0) {
    StringCchPrintfA(versionedName, capacity, "%s%s", g_answers.serviceNamePrefix, baseName);
  }
  return WithRubbish(g_answers.serviceNameResult);
}

FakeInfoAnswers* FakeInfo() { return &g_answers; }

void FakeInfoReset() {
  g_answers = {};
  g_answers.eventNameResult = 1;
  g_answers.serviceNameResult = 1;
  StringCchPrintfA(g_answers.eventNamePrefix, sizeof(g_answers.eventNamePrefix), "Test_%lu_",
                   GetCurrentProcessId());
  StringCchCopyA(g_answers.serviceNamePrefix, sizeof(g_answers.serviceNamePrefix), "Test ");
}
}
