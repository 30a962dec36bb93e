// The record and the digest of the fingerprint. Whole machines are in ztuuid_collection_test.cpp
// and ztuuid_composition_test.cpp.
#include "identity/ztuuid.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "tests/unit/ztuuid_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// ---- The record ----

TEST(FingerprintStatus, IsWrittenOnlyWhenBothFieldsHoldSomething) {
  for (const FingerprintStatus start : {FingerprintStatus{0, 0}, {0, 5}, {5, 0}}) {
    FingerprintStatus status = start;
    status.RecordFailure(E_FAIL, 4);
    EXPECT_EQ(status.ErrorCode, start.ErrorCode);
    EXPECT_EQ(status.ErrorStage, start.ErrorStage);
  }
  FingerprintStatus status{5, 5};
  status.RecordFailure(E_FAIL, 4);
  EXPECT_EQ(status.ErrorCode, E_FAIL);
  EXPECT_EQ(status.ErrorStage, 4U);
}

TEST(FingerprintStatus, TakesCodeAndStageOfZeroAndThenNothingMore) {
  FingerprintStatus status{5, 5};
  status.RecordFailure(0, 3);
  status.RecordFailure(E_FAIL, 4);
  EXPECT_EQ(status.ErrorCode, 0);
  EXPECT_EQ(status.ErrorStage, 3U);
}

TEST(CZTUUIDRecord, IsFreshAtFirst) {
  const CZTUUID fingerprint;
  EXPECT_EQ(fingerprint.LastError.ErrorCode, 0);
  EXPECT_EQ(fingerprint.LastError.ErrorStage, 0U);
  EXPECT_FALSE(fingerprint.IsWindows2000);
  for (const char* text :
       {fingerprint.MacAddress1, fingerprint.MacAddress2, fingerprint.ProcessedBiosId,
        fingerprint.OptimumHddSerial, fingerprint.BiosUuid, fingerprint.PrimaryHddSerial}) {
    EXPECT_STREQ(text, "");
  }
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
  EXPECT_EQ(fingerprint.CacheFolder, "");
}

TEST(CZTUUIDRecord, FieldsHaveTheirWidthsAndTheFourOfTheFingerprintLieBackToBack) {
  const CZTUUID fingerprint;
  EXPECT_EQ(sizeof(fingerprint.MacAddress1), 18U);
  EXPECT_EQ(sizeof(fingerprint.MacAddress2), 18U);
  EXPECT_EQ(sizeof(fingerprint.ProcessedBiosId), 33U);
  EXPECT_EQ(sizeof(fingerprint.OptimumHddSerial), 57U);
  EXPECT_EQ(sizeof(fingerprint.BiosUuid), 37U);
  EXPECT_EQ(sizeof(fingerprint.PrimaryHddSerial), 100U);
  EXPECT_EQ(fingerprint.MacAddress2 - fingerprint.MacAddress1, 18);
  EXPECT_EQ(fingerprint.ProcessedBiosId - fingerprint.MacAddress2, 18);
  EXPECT_EQ(fingerprint.OptimumHddSerial - fingerprint.ProcessedBiosId, 33);
}

// ---- All steps ----

class ProcessUUIDParameters : public CZTUUIDTest {};

TEST_F(ProcessUUIDParameters, NormalisesEveryParameter) {
  fingerprint.MacAddressList = {"00:AA:BB:CC:DD:EE", "001A2B3C4D5E"};
  SetBiosUuid("4C4C4544-0035-3010-8048-B4C04F4B3732");
  SetSerial("WD-WCC4E1234567");
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_STREQ(fingerprint.MacAddress1, "001A2B3C4D5E");
  EXPECT_STREQ(fingerprint.MacAddress2, "00AABBCCDDEE");
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "4C4C4544003530108048B4C04F4B3732");
  EXPECT_STREQ(fingerprint.OptimumHddSerial, "E1234567");
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kNormalise.Info("Entry"), kHyphenate.Info("Entry"), kSort.Info("Entry"),
                          kValidate.Info("Entry"), kSerialTail.Info("Entry"), kBiosId.Info("Entry"),
                          kBiosId.Info("Success.."), kNormalise.Info("Success....")));
}

TEST_F(ProcessUUIDParameters, OnVersion50OnlyTheAddressesAreNormalised) {
  fingerprint.IsWindows2000 = true;
  fingerprint.MacAddressList = {"00-1a-2b-3c-4d-5e"};
  SetBiosUuid("no GUID");
  SetSerial("WD-WCC4E1234567");
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_STREQ(fingerprint.MacAddress2, "001a2b3c4d5e");
  EXPECT_STREQ(fingerprint.BiosUuid, "no GUID");
  EXPECT_STREQ(fingerprint.OptimumHddSerial, "");
  EXPECT_THAT(recorder.Lines(), ElementsAre(kNormalise.Info("Entry"), kHyphenate.Info("Entry"),
                                            kSort.Info("Entry"), kNormalise.Info("Success...")));
}

TEST_F(ProcessUUIDParameters, AddressOfUnknownFormEmptiesTheListAndNothingFillsTheFields) {
  fingerprint.MacAddressList = {"001a2b3c4d5e", "00:1a-2b:3c-4d:5e"};
  SetBiosUuid("4C4C4544-0035-3010-8048-B4C04F4B3732");
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
  EXPECT_STREQ(fingerprint.MacAddress1, "");
  EXPECT_STREQ(fingerprint.MacAddress2, "");
  EXPECT_THAT(recorder.LinesOf("CZTUUID::ProcessUUIDParameters"),
              ElementsAre(kNormalise.Info("Entry"), kNormalise.Error("ProcessMACAddresses failed."),
                          kNormalise.Info("Success....")));
}

TEST_F(ProcessUUIDParameters, FailedSortingEmptiesTheListAndKeepsTheFieldsWritten) {
  // The second entry is longer than any other text here, and cannot be copied.
  const std::string tooLong = "00-1a-2b-3c-4d-" + std::string(100, 'f');
  fingerprint.MacAddressList = {"00-1a-2b-3c-4d-5e", tooLong};
  fingerprint.IsWindows2000 = true;
  // ProcessMACAddresses copies it, too: let only the second copy fail.
  int copies = 0;
  const CallPatch<struct SecondCopyTag, void* __cdecl(std::size_t)> allocate(
      "msvcrt.dll", "malloc", [&](std::size_t size) -> void* {
        return size == tooLong.size() + 1 && ++copies == 2 ? nullptr : allocate.CallOriginal(size);
      });
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_THAT(fingerprint.MacAddressList, IsEmpty());
  EXPECT_STREQ(fingerprint.MacAddress1, "001a2b3c4d5e");
  EXPECT_THAT(recorder.LinesOf("CZTUUID::ProcessUUIDParameters"),
              ElementsAre(kNormalise.Info("Entry"), kNormalise.Error("SortMacAddress failed."),
                          kNormalise.Info("Success...")));
}

TEST_F(ProcessUUIDParameters, UuidThatIsNoGuidContributesNothing) {
  SetBiosUuid("4C4C4544003530108048B4C04F4B3732");
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_STREQ(fingerprint.BiosUuid, "");
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "");
  EXPECT_THAT(recorder.LinesOf("CZTUUID::ProcessUUIDParameters"),
              ElementsAre(kNormalise.Info("Entry"), kNormalise.Error("ValidateUUID failed."),
                          kNormalise.Info("Success....")));
}

TEST_F(ProcessUUIDParameters, UuidThatDoesNotFitContributesNothing) {
  // The system's own test lets no such text through.
  const CallPatch<struct AnyGuidTag, HRESULT WINAPI(LPCOLESTR, LPCLSID)> anyGuid(
      "ole32.dll", "CLSIDFromString", [](LPCOLESTR, LPCLSID) { return S_OK; });
  SetBiosUuid("0123456789abcdef0123456789abcdefX");
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "");
  EXPECT_THAT(recorder.LinesOf("CZTUUID::ProcessUUIDParameters"),
              ElementsAre(kNormalise.Info("Entry"), kNormalise.Error("ProcessBiosId failed."),
                          kNormalise.Info("Success....")));
}

TEST_F(ProcessUUIDParameters, ThirdAddressStaysInThePlaceOfARejectedUuid) {
  fingerprint.MacAddressList = {"000000000001", "000000000002", "000000000003"};
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "000000000003");
}

TEST_F(ProcessUUIDParameters, UuidAndSerialTakeTheirPlacesBackFromFurtherAddresses) {
  fingerprint.MacAddressList = {"000000000001", "000000000002", "000000000003", "000000000004"};
  SetBiosUuid("4C4C4544-0035-3010-8048-B4C04F4B3732");
  SetSerial("WD-WCC4E1234567");
  EXPECT_TRUE(fingerprint.ProcessUUIDParameters());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "4C4C4544003530108048B4C04F4B3732");
  EXPECT_STREQ(fingerprint.OptimumHddSerial, "E1234567");
}

// ---- Digest ----

class StringifyMD5 : public CZTUUIDTest {
 protected:
  static constexpr unsigned char kDigest[16] = {0x00, 0x0F, 0xF0, 0xFF, 0xd4, 0x1d, 0x8c, 0xd9,
                                                0x8f, 0x00, 0xb2, 0x04, 0xe9, 0x80, 0x09, 0x98};
};

TEST_F(StringifyMD5, WritesTwoUpperCaseDigitsForEachByte) {
  char text[33];
  EXPECT_TRUE(fingerprint.StringifyMD5(kDigest, text, 33));
  EXPECT_STREQ(text, "000FF0FFD41D8CD98F00B204E9800998");
  EXPECT_THAT(recorder.Lines(), ElementsAre(kStringify.Info("Entry")));
  ExpectRecorded(1, 1);
}

TEST_F(StringifyMD5, FillsTheRestOfTheBufferWithZeros) {
  std::string text(40, '#');
  EXPECT_TRUE(fingerprint.StringifyMD5(kDigest, text.data(), 39));
  EXPECT_EQ(text, "000FF0FFD41D8CD98F00B204E9800998" + std::string(7, '\0') + "#");
}

TEST_F(StringifyMD5, MissingArgumentsAreAFailure) {
  char text[33] = "as it was";
  EXPECT_FALSE(fingerprint.StringifyMD5(nullptr, text, 33));
  EXPECT_FALSE(fingerprint.StringifyMD5(kDigest, nullptr, 33));
  EXPECT_FALSE(fingerprint.StringifyMD5(kDigest, text, 0));
  EXPECT_STREQ(text, "as it was");
  ExpectRecorded(1, 1);
}

TEST_F(StringifyMD5, SizeOf2GigabytesOrMoreIsAnInvalidArgument) {
  char text[33] = "as it was";
  for (const unsigned size : {0x80000000U, 0xFFFFFFFFU}) {
    fingerprint.LastError = {1, 1};
    EXPECT_FALSE(fingerprint.StringifyMD5(kDigest, text, size));
    EXPECT_STREQ(text, "as it was");
    ExpectRecorded(static_cast<HRESULT>(0x80070057), 0);
  }
}

TEST_F(StringifyMD5, BufferThatIsTooSmallIsStage0) {
  char text[33];
  for (const unsigned size : {1U, 2U, 3U, 32U}) {
    fingerprint.LastError = {1, 1};
    EXPECT_FALSE(fingerprint.StringifyMD5(kDigest, text, size)) << size;
    ExpectRecorded(kCut, 0);
  }
}

TEST_F(StringifyMD5, FailedFormattingIsStage0) {
  const NoFormatting noFormatting("%02X");
  char text[33];
  EXPECT_FALSE(fingerprint.StringifyMD5(kDigest, text, 33));
  ExpectRecorded(kCut, 0);
}

}  // namespace
