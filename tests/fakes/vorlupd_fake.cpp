#include "tests/fakes/vorlupd_fake.h"

namespace {

FakeUpdateRecord g_record = {.result = 1, .calls = 0};

}  // namespace

extern "C" {

FakeUpdateRecord* FakeUpdate();
ULONGLONG UpdateBeforeClientService();

FakeUpdateRecord* FakeUpdate() { return &g_record; }

ULONGLONG UpdateBeforeClientService() {
  ++g_record.calls;
  return g_record.result;
}
}
