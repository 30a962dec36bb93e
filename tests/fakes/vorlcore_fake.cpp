#include "tests/fakes/vorlcore_fake.h"

#include "support/vorlcore.h"
#include "tests/fakes/whole_result.h"

namespace {

FakeCoreRecord g_record{};

void Keep(const char* const (&texts)[4], const char* (&addresses)[4], char (&copies)[4][520]) {
  for (unsigned i = 0; i < 4; ++i) {
    addresses[i] = texts[i];
    StringCchCopyA(copies[i], sizeof(copies[i]), texts[i]);
  }
}

}  // namespace

extern "C" {

FakeCoreRecord* FakeCore();
WholeResult<ClientAgentCoreStartUpFn> ClientAgentCoreStartUp;
WholeResult<ClientAgentCoreCleanUpFn> ClientAgentCoreCleanUp;

FakeCoreRecord* FakeCore() { return &g_record; }

ULONGLONG ClientAgentCoreStartUp(const char* text1, const char* text2, const char* text3,
                                 const char* text4, WORD word1, WORD word2, WORD word3, WORD word4,
                                 DWORD dword1, DWORD dword2, DWORD dword3, DWORD dword4,
                                 DWORD dword5, BYTE byte1, DWORD dword6) {
  ++g_record.startUpCalls;
  Keep({text1, text2, text3, text4}, g_record.startUpAddresses, g_record.startUpTexts);
  const WORD words[] = {word1, word2, word3, word4};
  CopyMemory(g_record.startUpWords, words, sizeof(words));
  const DWORD dwords[] = {dword1, dword2, dword3, dword4, dword5, dword6};
  CopyMemory(g_record.startUpDwords, dwords, sizeof(dwords));
  g_record.startUpByte1 = byte1;
  if (g_record.onStartUp != nullptr) {
    g_record.onStartUp(g_record.context);
  }
  return g_record.startUpResult;
}

ULONGLONG ClientAgentCoreCleanUp(const char* text1, const char* text2, const char* text3,
                                 const char* text4, WORD word1, DWORD dword1, DWORD dword2,
                                 DWORD dword3, DWORD dword6, BYTE notify) {
  ++g_record.cleanUpCalls;
  Keep({text1, text2, text3, text4}, g_record.cleanUpAddresses, g_record.cleanUpTexts);
  g_record.cleanUpWord1 = word1;
  const DWORD dwords[] = {dword1, dword2, dword3, dword6};
  CopyMemory(g_record.cleanUpDwords, dwords, sizeof(dwords));
  g_record.notify = notify;
  if (g_record.onCleanUp != nullptr) {
    g_record.onCleanUp(g_record.context);
  }
  return g_record.cleanUpResult;
}
}
