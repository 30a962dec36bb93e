// The reader of the network addresses by IP Helper, against an interface in this process.
#include <gmock/gmock.h>

#include <cstdlib>

#include "tests/support/fingerprint_test.h"
#include "tests/support/import_patch.h"
#include "tests/support/no_memory.h"

// iphlpapi.h needs the types of windows.h.
#include <iphlpapi.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Adapters = std::vector<std::vector<BYTE>>;

class GetMacAddresses : public FingerprintTest {
 protected:
  GetMacAddresses()
      : m_patch("iphlpapi.dll", "GetAdaptersInfo", [this](IP_ADAPTER_INFO* list, ULONG* size) {
          ++calls;
          sizes.push_back(*size);
          return failingCall == calls ? failure : Fill(list, size);
        }) {
    fingerprint.LastError = {1, 1};
  }

  void ExpectRecorded(int code, unsigned stage) {
    EXPECT_EQ(fingerprint.LastError.ErrorCode, code);
    EXPECT_EQ(fingerprint.LastError.ErrorStage, stage);
  }

  Adapters adapters;
  int failingCall = 0;
  ULONG failure = ERROR_SUCCESS;
  int calls = 0;
  std::vector<ULONG> sizes;

 private:
  ULONG Fill(IP_ADAPTER_INFO* list, ULONG* size) {
    const auto needed = static_cast<ULONG>(adapters.size() * sizeof(IP_ADAPTER_INFO));
    if (*size < needed) {
      *size = needed;
      return ERROR_BUFFER_OVERFLOW;
    }
    for (std::size_t i = 0; i < adapters.size(); ++i) {
      list[i] = {};
      list[i].Next = i + 1 < adapters.size() ? &list[i + 1] : nullptr;
      // Neither length nor type are what an adapter has.
      list[i].AddressLength = 0;
      list[i].Type = 0xFFFF;
      std::copy(adapters[i].begin(), adapters[i].end(), list[i].Address);
    }
    return ERROR_SUCCESS;
  }

  CallPatch<GetMacAddresses, ULONG WINAPI(IP_ADAPTER_INFO*, ULONG*)> m_patch;
};

TEST_F(GetMacAddresses, FormatsSixBytesInLowerCaseWithHyphens) {
  adapters = {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 0x77, 0x88}};
  EXPECT_TRUE(fingerprint.GetMacAddresses());
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00-1a-2b-3c-4d-5e"));
  EXPECT_THAT(sizes, ElementsAre(704U));
  ExpectRecorded(1, 1);
}

TEST_F(GetMacAddresses, MoreThanOneAdapterSucceedsOnTheSecondCall) {
  adapters = {{1, 2, 3, 4, 5, 6}, {0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA}};
  EXPECT_TRUE(fingerprint.GetMacAddresses());
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("01-02-03-04-05-06", "ff-fe-fd-fc-fb-fa"));
  EXPECT_THAT(sizes, ElementsAre(704U, 1408U));
}

TEST_F(GetMacAddresses, OfThreeAdaptersTheFirstTwoAreKept) {
  adapters = {{1}, {2}, {3}};
  EXPECT_TRUE(fingerprint.GetMacAddresses());
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("01-00-00-00-00-00", "02-00-00-00-00-00"));
}

TEST_F(GetMacAddresses, FailureOfEitherCallIsRecordedWithStage0) {
  adapters = {{1}, {2}};
  for (failingCall = 1; failingCall <= 2; ++failingCall) {
    SCOPED_TRACE(failingCall);
    calls = 0;
    failure = ERROR_NO_DATA;
    fingerprint.LastError = {1, 1};
    EXPECT_FALSE(fingerprint.GetMacAddresses());
    EXPECT_EQ(calls, failingCall);
    ExpectRecorded(ERROR_NO_DATA, 0);
  }
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
}

TEST_F(GetMacAddresses, ListThatGrowsBetweenTheCallsIsAFailure) {
  adapters = {{1}, {2}};
  failingCall = 2;
  failure = ERROR_BUFFER_OVERFLOW;
  EXPECT_FALSE(fingerprint.GetMacAddresses());
  EXPECT_EQ(calls, 2);
  ExpectRecorded(ERROR_BUFFER_OVERFLOW, 0);
}

TEST_F(GetMacAddresses, FailureIsNotRecordedInAnEmptyRecord) {
  fingerprint.LastError = {};
  failingCall = 1;
  failure = ERROR_NO_DATA;
  EXPECT_FALSE(fingerprint.GetMacAddresses());
  ExpectRecorded(0, 0);
}

TEST_F(GetMacAddresses, MissingMemoryForOneAdapterIsStage1) {
  adapters = {{1}};
  const NoMemoryFor noMemory(704);
  EXPECT_FALSE(fingerprint.GetMacAddresses());
  EXPECT_EQ(calls, 0);
  ExpectRecorded(0, 1);
}

TEST_F(GetMacAddresses, MissingMemoryForTheReportedSizeIsStage1) {
  adapters = {{1}, {2}};
  const NoMemoryFor noMemory(1408);
  EXPECT_FALSE(fingerprint.GetMacAddresses());
  EXPECT_EQ(calls, 1);
  ExpectRecorded(0, 1);
}

TEST_F(GetMacAddresses, ExceptionWhileAppendingIsStage3) {
  adapters = {{1}};
  const NoMemoryFor noMemory(kListNodeSize);
  EXPECT_FALSE(fingerprint.GetMacAddresses());
  ExpectRecorded(0, 3);
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
}

TEST_F(GetMacAddresses, FailedFormattingIsStage0) {
  adapters = {{1}};
  const CallPatch<struct FormatTag, int __cdecl(char*, std::size_t, const char*, char*)> format(
      "msvcrt.dll", "_vsnprintf", [](char*, std::size_t, const char*, char*) { return -1; });
  EXPECT_FALSE(fingerprint.GetMacAddresses());
  ExpectRecorded(kCut, 0);
}

TEST_F(GetMacAddresses, BuffersAreFreedOnEveryPath) {
  adapters = {{1}, {2}};
  std::vector<void*> held;
  const CallPatch<struct MallocTag, void* __cdecl(std::size_t)> allocate(
      "msvcrt.dll", "malloc", [&](std::size_t size) {
        void* const memory = allocate.CallOriginal(size);
        if (size == 704 || size == 1408) {
          held.push_back(memory);
        }
        return memory;
      });
  const CallPatch<struct FreeTag, void __cdecl(void*)> release("msvcrt.dll", "free",
                                                               [&](void* memory) {
                                                                 std::erase(held, memory);
                                                                 release.CallOriginal(memory);
                                                               });
  held.reserve(10);
  for (failingCall = 0; failingCall <= 2; ++failingCall) {
    calls = 0;
    failure = ERROR_NO_DATA;
    EXPECT_EQ(fingerprint.GetMacAddresses(), failingCall == 0);
    EXPECT_THAT(held, IsEmpty());
  }
}

}  // namespace
