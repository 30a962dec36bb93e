// Every call that fails in the operations of identity/.
#include <gmock/gmock.h>

#include <new>
#include <string>

#include "identity/biosuuid.h"
#include "identity/osversion.h"
#include "identity/ztuuid.h"
#include "tests/support/fake_machine.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/files.h"

// comdef.h needs the COM interfaces that the headers above bring.
#include <comdef.h>

namespace {

bool IsIdentifier(const std::string& text) {
  return text.size() == kIdentifierSize - 1 &&
         text.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

// Memory that is missing is stated for the whole fingerprint: it fails, and nothing is thrown.
SweepOptions WithMemory() {
  SweepOptions options;
  options.memory = true;
  return options;
}

TEST(IdentityFaults, Identifier) {
  for (const bool isEx : {false, true}) {
    SweepFaults(
        isEx ? "CZTUUID::GetZTUUIDEx" : "CZTUUID::GetZTUUID",
        [isEx](FaultRun& run) {
          Machine machine;
          machine.SetEverything();
          TraceRecorder recorder;
          char out[kIdentifierSize] = "";
          bool result = false;
          run.Call([&] {
            CZTUUID fingerprint;
            result = isEx ? fingerprint.GetZTUUIDEx(out, kIdentifierSize)
                          : fingerprint.GetZTUUID(out, kIdentifierSize);
          });
          EXPECT_TRUE(!result || IsIdentifier(out)) << out;
          EXPECT_TRUE(result || run.IsFaulted());
          run.ExpectLines(recorder.Lines());
        },
        WithMemory());
  }
}

TEST(IdentityFaults, Version50) {
  SweepFaults(
      "CZTUUID::GetZTUUID on version 5.0",
      [](FaultRun& run) {
        Machine machine;
        machine.SetEverything();
        machine.version.reset();
        machine.version.emplace(5U, 0U);
        machine.ipAdapters = {{1, 2, 3, 4, 5, 6}, {6, 5, 4, 3, 2, 1}};
        TraceRecorder recorder;
        char out[kIdentifierSize] = "";
        bool result = false;
        run.Call([&] {
          CZTUUID fingerprint;
          result = fingerprint.GetZTUUID(out, kIdentifierSize);
        });
        EXPECT_TRUE(!result || IsIdentifier(out)) << out;
        EXPECT_TRUE(result || run.IsFaulted());
        run.ExpectLines(recorder.Lines());
      },
      WithMemory());
}

// Throws what it says, and then holds nothing.
TEST(IdentityFaults, Parameters) {
  SweepFaults(
      "CZTUUID::GetUUIDParameters",
      [](FaultRun& run) {
        Machine machine;
        machine.SetEverything();
        TraceRecorder recorder;
        bool isThrown = false;
        run.Call([&] {
          CZTUUID fingerprint;
          try {
            static_cast<void>(fingerprint.GetUUIDParameters());
          } catch (const std::bad_alloc&) {
            isThrown = true;
          } catch (const _com_error& error) {
            isThrown = error.Error() == E_OUTOFMEMORY;
          }
        });
        EXPECT_TRUE(!isThrown || run.IsFaultIn({"malloc", "SysAllocStringLen",
                                                "MultiByteToWideChar", "WideCharToMultiByte"}));
        run.ExpectLines(recorder.Lines());
      },
      WithMemory());
}

class CacheFile : public testing::Test {
 protected:
  static void Fill(CZTUUID& fingerprint, const TempFolder& folder) {
    fingerprint.CacheFolder = folder.File("");
    StringCchCopyA(fingerprint.BiosUuid, sizeof(fingerprint.BiosUuid),
                   "4C4C4544-0035-3010-8048-B4C04F4B3732");
    StringCchCopyA(fingerprint.PrimaryHddSerial, sizeof(fingerprint.PrimaryHddSerial), "WD-1234");
    fingerprint.MacAddressList = {"00:AA:BB:CC:DD:EE", "00:1A:2B:3C:4D:5E"};
  }
};

TEST_F(CacheFile, IsWrittenOrRefusedAtAnyFailure) {
  SweepFaults("CZTUUID::WriteCacheFile", [](FaultRun& run) {
    const TempFolder folder;
    CZTUUID fingerprint;
    Fill(fingerprint, folder);
    bool isWritten = false;
    run.Call([&] { isWritten = fingerprint.WriteCacheFile(); });
    EXPECT_TRUE(isWritten || run.IsFaulted());
    // What is reported as written is read, what is not whole is not.
    const bool isCurrent = fingerprint.IsCacheCurrent();
    EXPECT_TRUE(isCurrent || !isWritten);
  });
}

TEST_F(CacheFile, IsReadOrRefusedAtAnyFailure) {
  SweepFaults("CZTUUID::IsCacheCurrent", [](FaultRun& run) {
    const TempFolder folder;
    CZTUUID fingerprint;
    Fill(fingerprint, folder);
    ASSERT_TRUE(fingerprint.WriteCacheFile());
    bool isCurrent = false;
    run.Call([&] { isCurrent = fingerprint.IsCacheCurrent(); });
    EXPECT_TRUE(isCurrent || run.IsFaulted());
    if (run.IsFaultIn({"_sopen_s", "_lseek"}) || (run.IsFaultIn({"_read"}) && !run.IsLess())) {
      EXPECT_FALSE(isCurrent);
    }
  });
}

}  // namespace
