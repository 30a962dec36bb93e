#include "tests/fakes/vorlupd_fake.h"

#include "support/vorlupd.h"
#include "tests/fakes/whole_result.h"

namespace {

FakeUpdateRecord g_record = {.result = 1, .calls = 0, .onCall = nullptr, .context = nullptr};

}  // namespace

extern "C" {

FakeUpdateRecord* FakeUpdate();
WholeResult<UpdateBeforeClientServiceFn> UpdateBeforeClientService;

FakeUpdateRecord* FakeUpdate() { return &g_record; }

ULONGLONG UpdateBeforeClientService() {
  ++g_record.calls;
  if (g_record.onCall != nullptr) {
    g_record.onCall(g_record.context);
  }
  return g_record.result;
}
}
