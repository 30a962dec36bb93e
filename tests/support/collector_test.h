// Tests of one source of the fingerprint.
#pragma once

#include <gmock/gmock.h>

#include <string>

#include "tests/support/fake_wmi.h"
#include "tests/support/fingerprint_test.h"
#include "tests/support/import_patch.h"

// comdef.h needs the COM interfaces that the headers above bring.
#include <comdef.h>

// For the readers that fill a fingerprint through WMI. At the end everything must be released.
class CollectorTest : public FingerprintTest {
 protected:
  void TearDown() override { EXPECT_THAT(server.Problems(), ::testing::IsEmpty()); }

  // Lets each step before the walk fail in turn: `collect` fails with the step's code and stage
  // recorded, or with nothing recorded when the record is empty, and leaves nothing held.
  template <typename Collect>
  void ExpectEachStepToFail(const std::string& query, Collect collect) {
    struct Step {
      const char* name;
      HRESULT& result;
      unsigned stage;
    };
    const Step steps[] = {{"locator", server.locatorResult, 4},
                          {"connect", server.connectResult, 5},
                          {"blanket", server.blanketResult, 0},
                          {"query", server.Query(query).result, 6}};
    for (const Step& step : steps) {
      SCOPED_TRACE(step.name);
      step.result = E_ACCESSDENIED;
      fingerprint.LastError = {1, 1};
      EXPECT_FALSE(collect());
      ExpectRecorded(E_ACCESSDENIED, step.stage);
      fingerprint.LastError = {};
      EXPECT_FALSE(collect());
      ExpectRecorded(0, 0);
      step.result = S_OK;
      EXPECT_THAT(server.Problems(), ::testing::IsEmpty());
    }
  }

  // Lets each allocation of a COM text fail in turn until `collect` gets through.
  template <typename Collect>
  void ExpectEachAllocationToThrow(int texts, Collect collect) {
    int failures = 0;
    for (bool isThrown = true; isThrown;) {
      int calls = 0;
      FakeWmi& everything = server;
      const CallPatch<struct AllocateTag, BSTR WINAPI(const OLECHAR*, UINT)> allocate(
          "oleaut32.dll", "SysAllocStringLen", [&](const OLECHAR* text, UINT length) -> BSTR {
            return ++calls == failures + 1 ? nullptr : allocate.CallOriginal(text, length);
          });
      try {
        collect();
        isThrown = false;
      } catch (const _com_error& error) {
        EXPECT_EQ(error.Error(), E_OUTOFMEMORY);
        ++failures;
      }
      EXPECT_EQ(everything.Journal().back(), "release locator");
      EXPECT_THAT(everything.Problems(), ::testing::IsEmpty());
    }
    EXPECT_EQ(failures, texts);
  }

  FakeWmi server;
};
