// The steps that turn collected parameters into the identifier's components. Whole machines are in
// ztuuid_collection_test.cpp and ztuuid_composition_test.cpp.
#include "identity/ztuuid.h"

#include <gmock/gmock.h>

#include "support/windows_api.h"
#include "tests/support/fingerprint_test.h"
#include "tests/support/import_patch.h"
#include "tests/support/no_memory.h"

// COM is left out of the lean windows.h.
#include <objbase.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using std::string_literals::operator""s;

class CZTUUIDTest : public FingerprintTest {
 protected:
  void SetBiosUuid(const char* text) { StringCchCopyA(fingerprint.BiosUuid, kBiosUuidSize, text); }
  void SetSerial(const char* text) {
    StringCchCopyA(fingerprint.PrimaryHddSerial, kPrimaryHddSerialSize, text);
  }

  TraceRecorder recorder;
};

// While one lives, formatting with one format fails as if the text did not fit.
class NoFormatting {
 public:
  explicit NoFormatting(const std::string& failingFormat)
      : m_patch("msvcrt.dll", "_vsnprintf",
                [this, failingFormat](char* text, std::size_t size, const char* format,
                                      char* arguments) {
                  return format == failingFormat
                             ? -1
                             : m_patch.CallOriginal(text, size, format, arguments);
                }) {}

 private:
  CallPatch<NoFormatting, int __cdecl(char*, std::size_t, const char*, char*)> m_patch;
};

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

// ---- Addresses ----

class ProcessMACAddresses : public CZTUUIDTest {};

TEST_F(ProcessMACAddresses, BringsTheThreeFormsIntoOneAndKeepsTheLetterCase) {
  fingerprint.MacAddressList = {"00:1a:2B:3c:4d:5e", "00-1a-2B-3c-4d-5e", "001a2B3c4d5e"};
  EXPECT_TRUE(fingerprint.ProcessMACAddresses());
  EXPECT_THAT(fingerprint.MacAddressList,
              ElementsAre("00-1a-2B-3c-4d-5e", "00-1a-2B-3c-4d-5e", "00-1a-2B-3c-4d-5e"));
  EXPECT_THAT(recorder.Lines(), ElementsAre(kHyphenate.Info("Entry")));
  ExpectRecorded(1, 1);
}

TEST_F(ProcessMACAddresses, FiveSeparatorsOfOneKindDecideWhateverElseThereIs) {
  fingerprint.MacAddressList = {"00-1a-2b-3c-4d-5e:", "00:1a:2b:3c:4d:5e-"};
  EXPECT_TRUE(fingerprint.ProcessMACAddresses());
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00-1a-2b-3c-4d-5e:", "00-1a-2b-3c-4d-5e-"));
}

TEST_F(ProcessMACAddresses, FiveHyphensDecideBeforeFiveColons) {
  fingerprint.MacAddressList = {"00-1a-2b-3c-4d-5e:6f:70:81:92:a3", "::-:-:-:--"};
  EXPECT_TRUE(fingerprint.ProcessMACAddresses());
  EXPECT_THAT(fingerprint.MacAddressList,
              ElementsAre("00-1a-2b-3c-4d-5e:6f:70:81:92:a3", "::-:-:-:--"));
}

TEST_F(ProcessMACAddresses, EmptyListIsSuccess) {
  EXPECT_TRUE(fingerprint.ProcessMACAddresses());
  ExpectRecorded(1, 1);
}

TEST_F(ProcessMACAddresses, LongerDigitsAreSeparatedAtTheSamePlaces) {
  fingerprint.MacAddressList = {"001a2b3c4d5e6f70", "001a2b3c4d"};
  EXPECT_TRUE(fingerprint.ProcessMACAddresses());
  EXPECT_THAT(fingerprint.MacAddressList, ElementsAre("00-1a-2b-3c-4d-5e6f70", "00-1a-2b-3c-4d-"));
}

TEST_F(ProcessMACAddresses, MixedSeparatorsFailWithStage2AndLaterEntriesAreUntouched) {
  fingerprint.MacAddressList = {"001a2b3c4d5e", "00:1a-2b:3c-4d:5e", "001a2b3c4d5e"};
  EXPECT_FALSE(fingerprint.ProcessMACAddresses());
  EXPECT_THAT(fingerprint.MacAddressList,
              ElementsAre("00-1a-2b-3c-4d-5e", "00:1a-2b:3c-4d:5e", "001a2b3c4d5e"));
  ExpectRecorded(0, 2);
}

TEST_F(ProcessMACAddresses, DigitsThatAreTooFewFailWithStage3) {
  for (const char* address : {"", "001a2b3c4"}) {
    fingerprint.LastError = {1, 1};
    fingerprint.MacAddressList = {"00:1a:2b:3c:4d:5e", address, "001a2b3c4d5e"};
    EXPECT_FALSE(fingerprint.ProcessMACAddresses());
    EXPECT_THAT(fingerprint.MacAddressList,
                ElementsAre("00-1a-2b-3c-4d-5e", address, "001a2b3c4d5e"));
    ExpectRecorded(0, 3);
  }
}

class SortMacAddress : public CZTUUIDTest {};

TEST_F(SortMacAddress, EmptyListLeavesTheFieldsUntouched) {
  StringCchCopyA(fingerprint.MacAddress1, 18, "z");
  StringCchCopyA(fingerprint.MacAddress2, 18, "a");
  EXPECT_TRUE(fingerprint.SortMacAddress());
  EXPECT_STREQ(fingerprint.MacAddress1, "z");
  EXPECT_STREQ(fingerprint.MacAddress2, "a");
  EXPECT_THAT(recorder.Lines(), ElementsAre(kSort.Info("Entry")));
}

TEST_F(SortMacAddress, OneAddressEndsUpInTheSecondField) {
  fingerprint.MacAddressList = {"00-1a-2b-3c-4d-5e"};
  EXPECT_TRUE(fingerprint.SortMacAddress());
  EXPECT_STREQ(fingerprint.MacAddress1, "");
  EXPECT_STREQ(fingerprint.MacAddress2, "001a2b3c4d5e");
}

TEST_F(SortMacAddress, SmallerAddressComesFirstInEitherOrder) {
  for (const std::list<std::string>& list :
       {std::list<std::string>{"00-1a-2b-3c-4d-5e", "00-1a-2b-3c-4d-5f"},
        std::list<std::string>{"00-1a-2b-3c-4d-5f", "00-1a-2b-3c-4d-5e"}}) {
    fingerprint.MacAddressList = list;
    EXPECT_TRUE(fingerprint.SortMacAddress());
    EXPECT_STREQ(fingerprint.MacAddress1, "001a2b3c4d5e");
    EXPECT_STREQ(fingerprint.MacAddress2, "001a2b3c4d5f");
  }
}

TEST_F(SortMacAddress, EqualAddressesStay) {
  fingerprint.MacAddressList = {"001a2b3c4d5e", "001a2b3c4d5e"};
  EXPECT_TRUE(fingerprint.SortMacAddress());
  EXPECT_STREQ(fingerprint.MacAddress1, "001a2b3c4d5e");
  EXPECT_STREQ(fingerprint.MacAddress2, "001a2b3c4d5e");
}

TEST_F(SortMacAddress, CharactersAreComparedAsSignedInEitherOrder) {
  for (const std::list<std::string>& list :
       {std::list<std::string>{"A", "\xE9"}, std::list<std::string>{"\xE9", "A"}}) {
    fingerprint.MacAddressList = list;
    EXPECT_TRUE(fingerprint.SortMacAddress());
    EXPECT_STREQ(fingerprint.MacAddress1, "\xE9") << "first in the list: " << list.front();
    EXPECT_STREQ(fingerprint.MacAddress2, "A");
  }
}

TEST_F(SortMacAddress, WholeFieldsAreExchanged) {
  std::fill_n(fingerprint.MacAddress1, sizeof(fingerprint.MacAddress1), '1');
  std::fill_n(fingerprint.MacAddress2, sizeof(fingerprint.MacAddress2), '2');
  fingerprint.MacAddressList = {"00000000000b", "00000000000a"};
  EXPECT_TRUE(fingerprint.SortMacAddress());
  EXPECT_EQ(std::string(fingerprint.MacAddress1, 18),
            "00000000000a\0"
            "22222"s);
  EXPECT_EQ(std::string(fingerprint.MacAddress2, 18),
            "00000000000b\0"
            "11111"s);
}

TEST_F(SortMacAddress, UpperCaseSortsBeforeLowerCase) {
  fingerprint.MacAddressList = {"00-1a-2b-3c-4d-5e", "00-1A-2B-3C-4D-5E"};
  EXPECT_TRUE(fingerprint.SortMacAddress());
  EXPECT_STREQ(fingerprint.MacAddress1, "001A2B3C4D5E");
}

TEST_F(SortMacAddress, AnAddressIsCutToTwelveDigits) {
  fingerprint.MacAddressList = {"00-1a-2b-3c-4d-5e-6f-70"};
  EXPECT_TRUE(fingerprint.SortMacAddress());
  EXPECT_STREQ(fingerprint.MacAddress2, "001a2b3c4d5e");
}

TEST_F(SortMacAddress, ThirdAndFourthEntryOverlayTheNextFieldsAndAFifthIsNotWritten) {
  std::fill_n(fingerprint.ProcessedBiosId, sizeof(fingerprint.ProcessedBiosId), '#');
  std::fill_n(fingerprint.OptimumHddSerial, sizeof(fingerprint.OptimumHddSerial), '#');
  fingerprint.MacAddressList = {"000000000001", "000000000002", "000000000003", "000000000004",
                                "000000000005"};
  EXPECT_TRUE(fingerprint.SortMacAddress());
  EXPECT_STREQ(fingerprint.MacAddress1, "000000000001");
  EXPECT_STREQ(fingerprint.MacAddress2, "000000000002");
  EXPECT_EQ(std::string(fingerprint.ProcessedBiosId, 33),
            std::string("000000000003\0#####000000000004\0##", 33));
  EXPECT_EQ(std::string(fingerprint.OptimumHddSerial, 57), std::string(57, '#'));
}

TEST_F(SortMacAddress, ExceptionIsStage3) {
  const std::string address = "00-1a-2b-3c-4d-5e";
  fingerprint.MacAddressList = {address};
  const NoMemoryFor noMemory(address.size() + 1);
  EXPECT_FALSE(fingerprint.SortMacAddress());
  ExpectRecorded(0, 3);
}

// ---- BIOS UUID ----

class ValidateUUID : public CZTUUIDTest {};

TEST_F(ValidateUUID, AcceptsAGuidInEitherLetterCase) {
  for (const char* uuid :
       {"4C4C4544-0035-3010-8048-B4C04F4B3732", "4c4c4544-0035-3010-8048-b4c04f4b3732"}) {
    SetBiosUuid(uuid);
    EXPECT_TRUE(fingerprint.ValidateUUID()) << uuid;
  }
  EXPECT_THAT(recorder.Lines(), ElementsAre(kValidate.Info("Entry"), kValidate.Info("Entry")));
  ExpectRecorded(1, 1);
}

TEST_F(ValidateUUID, RejectsWhatIsNoGuid) {
  for (const char* uuid :
       {"", "4C4C4544003530108048B4C04F4B3732", "4C4C4544-0035-3010-8048-B4C04F4B373",
        "4C4C4544-0035-3010-8048-B4C04F4B373G", "To be filled by O.E.M."}) {
    SetBiosUuid(uuid);
    EXPECT_FALSE(fingerprint.ValidateUUID()) << uuid;
  }
  ExpectRecorded(1, 1);
}

TEST_F(ValidateUUID, TextThatDoesNotFitBetweenTheBracesIsStage0) {
  const NoFormatting noFormatting("{%s}");
  EXPECT_FALSE(fingerprint.ValidateUUID());
  ExpectRecorded(kCut, 0);
}

TEST_F(ValidateUUID, FailedConversionIsAFailure) {
  SetBiosUuid("4C4C4544-0035-3010-8048-B4C04F4B3732");
  SetLastError(ERROR_INVALID_FLAGS);
  int measured = 0;
  int converted = 0;
  const CallPatch<struct ConvertTag, int WINAPI(UINT, DWORD, LPCCH, int, LPWSTR, int)> convert(
      "KERNEL32.dll", "MultiByteToWideChar",
      [&](UINT codePage, DWORD flags, LPCCH text, int length, LPWSTR wide, int size) {
        EXPECT_EQ(codePage, 0U);
        EXPECT_EQ(flags, 1U);
        EXPECT_EQ(length, -1);
        EXPECT_EQ(size, wide == nullptr ? 0 : 39);
        const int result = convert.CallOriginal(codePage, flags, text, length, wide, size);
        // What the thread's last error was before must not decide.
        SetLastError(ERROR_NO_UNICODE_TRANSLATION);
        return wide == nullptr ? measured : result != 0 ? converted : 0;
      });
  for (const auto& [measure, conversion, isValid] :
       {std::tuple(39, 39, true), std::tuple(0, 39, false), std::tuple(40, 39, false),
        std::tuple(39, 0, false)}) {
    measured = measure;
    converted = conversion;
    EXPECT_EQ(fingerprint.ValidateUUID(), isValid) << measure << " " << conversion;
  }
  ExpectRecorded(1, 1);
}

// Documented for a machine whose code page is UTF-8. Its identifier must not depend on that.
TEST_F(ValidateUUID, HoldsWhereTheCodePageTakesNoFlags) {
  SetBiosUuid("4C4C4544-0035-3010-8048-B4C04F4B3732");
  const CallPatch<struct Utf8Tag, int WINAPI(UINT, DWORD, LPCCH, int, LPWSTR, int)> convert(
      "KERNEL32.dll", "MultiByteToWideChar",
      [&](UINT, DWORD flags, LPCCH text, int length, LPWSTR wide, int size) {
        if (flags != 0) {
          SetLastError(ERROR_INVALID_FLAGS);
          return 0;
        }
        return convert.CallOriginal(CP_UTF8, flags, text, length, wide, size);
      });
  EXPECT_TRUE(fingerprint.ValidateUUID());
}

class ProcessBiosId : public CZTUUIDTest {};

TEST_F(ProcessBiosId, RemovesEveryHyphenAndNothingElse) {
  SetBiosUuid("4C4C4544-0035-3010-8048-B4C04F4B3732");
  EXPECT_TRUE(fingerprint.ProcessBiosId());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "4C4C4544003530108048B4C04F4B3732");
  SetBiosUuid("-{a b}--C-");
  EXPECT_TRUE(fingerprint.ProcessBiosId());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "{a b}C");
  EXPECT_THAT(recorder.Lines(), ElementsAre(kBiosId.Info("Entry"), kBiosId.Info("Success.."),
                                            kBiosId.Info("Entry"), kBiosId.Info("Success..")));
}

TEST_F(ProcessBiosId, EmptyUuidLeavesTheFieldUnchangedAndCountsAsSuccess) {
  StringCchCopyA(fingerprint.ProcessedBiosId, 33, "as it was");
  EXPECT_TRUE(fingerprint.ProcessBiosId());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "as it was");
  EXPECT_THAT(recorder.Lines(), ElementsAre(kBiosId.Info("Entry"), kBiosId.Info("Success..")));
}

TEST_F(ProcessBiosId, UuidOfHyphensOnlyEmptiesTheField) {
  StringCchCopyA(fingerprint.ProcessedBiosId, 33, "as it was");
  SetBiosUuid("----");
  EXPECT_TRUE(fingerprint.ProcessBiosId());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "");
}

TEST_F(ProcessBiosId, TextThatIsTooLongByOneIsCutAndStage0) {
  SetBiosUuid("0123456789abcdef0123456789abcdefX");
  EXPECT_FALSE(fingerprint.ProcessBiosId());
  EXPECT_STREQ(fingerprint.ProcessedBiosId, "0123456789abcdef0123456789abcdef");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kBiosId.Info("Entry"),
                  kBiosId.ErrorDirect("StringCchCopy failed for UUID\tError code:(%X).",
                                      "StringCchCopy failed for UUID\tError code:(8007007A).")));
  ExpectRecorded(kCut, 0);
}

// ---- Disk serial ----

class GetOptimumHDDSrNo : public CZTUUIDTest {};

TEST_F(GetOptimumHDDSrNo, SerialOfSevenCharactersContributesNothing) {
  for (const char* serial : {"", "1234567"}) {
    StringCchCopyA(fingerprint.OptimumHddSerial, 57, "as it was");
    SetSerial(serial);
    EXPECT_TRUE(fingerprint.GetOptimumHDDSrNo());
    EXPECT_STREQ(fingerprint.OptimumHddSerial, "");
  }
}

TEST_F(GetOptimumHDDSrNo, LongerSerialContributesItsLastEightCharactersSpacesIncluded) {
  SetSerial("12345678");
  EXPECT_TRUE(fingerprint.GetOptimumHDDSrNo());
  EXPECT_STREQ(fingerprint.OptimumHddSerial, "12345678");
  SetSerial("WD-WCC4E 12 567");
  EXPECT_TRUE(fingerprint.GetOptimumHDDSrNo());
  EXPECT_STREQ(fingerprint.OptimumHddSerial, "E 12 567");
  SetSerial(std::string(99, 'x').c_str());
  EXPECT_TRUE(fingerprint.GetOptimumHDDSrNo());
  EXPECT_STREQ(fingerprint.OptimumHddSerial, "xxxxxxxx");
  EXPECT_THAT(
      recorder.LinesOf("CZTUUID::GetOptimumHDDSrNo"),
      ElementsAre(kSerialTail.Info("Entry"), kSerialTail.Info("Entry"), kSerialTail.Info("Entry")));
}

TEST_F(GetOptimumHDDSrNo, WritesNoMoreThanNineCharacters) {
  std::fill_n(fingerprint.OptimumHddSerial, sizeof(fingerprint.OptimumHddSerial), '#');
  SetSerial("WD-12345678");
  EXPECT_TRUE(fingerprint.GetOptimumHDDSrNo());
  EXPECT_EQ(std::string(fingerprint.OptimumHddSerial, 57),
            std::string("12345678\0", 9) + std::string(48, '#'));
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
