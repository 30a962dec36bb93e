// The steps that turn collected parameters into the identifier's components.
#include <gmock/gmock.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tests/unit/ztuuid_test.h"

using ::testing::ElementsAre;
using std::string_literals::operator""s;

namespace {

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

}  // namespace
