// The results are declared wider than in the contract, to leave rubbish beside the byte that
// counts; the contract's own declarations therefore go by other names here.
#define GetClientAgentRootDir ContractGetClientAgentRootDir
#define GetClientAgentConfigDir ContractGetClientAgentConfigDir
#define SetClientAgentLogOptions ContractSetClientAgentLogOptions
#define GetClientAgentStartUpOptions ContractGetClientAgentStartUpOptions
#include "tests/fakes/vorlmisc_fake.h"
#undef GetClientAgentRootDir
#undef GetClientAgentConfigDir
#undef SetClientAgentLogOptions
#undef GetClientAgentStartUpOptions

#include <algorithm>

namespace {

FakeMiscAnswers g_answers;

ULONGLONG WithRubbish(BYTE result) { return 0xDEADBEEFCAFEB000ULL | result; }

void Announce(const char* function) {
  if (g_answers.onCall != nullptr) {
    g_answers.onCall(function, g_answers.context);
  }
}

ULONGLONG AnswerFolder(BYTE result, const wchar_t* answer, wchar_t* folder) {
  if (result != 0) {
    StringCchCopyW(folder, kFolderBufferSize, answer);
  }
  return WithRubbish(result);
}

}  // namespace

extern "C" {

ULONGLONG GetClientAgentRootDir(wchar_t* folder, DWORD capacity);
ULONGLONG GetClientAgentConfigDir(wchar_t* folder, DWORD capacity);
ULONGLONG SetClientAgentLogOptions();
ULONGLONG GetClientAgentStartUpOptions(CLIENT_AGENT_STARTUP_OPTIONS* options);

ULONGLONG GetClientAgentRootDir(wchar_t* folder, DWORD capacity) {
  Announce("GetClientAgentRootDir");
  ++g_answers.rootDirCalls;
  g_answers.rootDirCapacity = capacity;
  return AnswerFolder(g_answers.rootDirResult, g_answers.rootDir, folder);
}

ULONGLONG GetClientAgentConfigDir(wchar_t* folder, DWORD capacity) {
  Announce("GetClientAgentConfigDir");
  ++g_answers.configDirCalls;
  g_answers.configDirCapacity = capacity;
  return AnswerFolder(g_answers.configDirResult, g_answers.configDir, folder);
}

ULONGLONG SetClientAgentLogOptions() {
  Announce("SetClientAgentLogOptions");
  ++g_answers.logOptionsCalls;
  return WithRubbish(g_answers.logOptionsResult);
}

ULONGLONG GetClientAgentStartUpOptions(CLIENT_AGENT_STARTUP_OPTIONS* options) {
  Announce("GetClientAgentStartUpOptions");
  ++g_answers.startUpOptionsCalls;
  const BYTE* const bytes = reinterpret_cast<const BYTE*>(options);
  g_answers.startUpOptionsWereZero =
      std::all_of(bytes, bytes + sizeof(*options), [](BYTE byte) { return byte == 0; });
  if (g_answers.startUpOptionsResult != 0) {
    *options = g_answers.startUpOptions;
  }
  return WithRubbish(g_answers.startUpOptionsResult);
}

FakeMiscAnswers* FakeMisc() { return &g_answers; }

void FakeMiscReset() {
  g_answers = {};
  g_answers.rootDirResult = 1;
  g_answers.configDirResult = 1;
  g_answers.logOptionsResult = 1;
  g_answers.startUpOptionsResult = 1;
  StringCchCopyW(g_answers.rootDir, 260, L"C:\\fake root");
  StringCchCopyW(g_answers.configDir, 260, L"C:\\fake conf");
}
}
