// Composition of the identifier on whole machines, played by a WMI server, an IP Helper interface
// and a reported Windows version in this process. The expected digests are md5sum's.
#include <gmock/gmock.h>

#include <cstring>
#include <functional>

#include "tests/support/fake_machine.h"
#include "tests/support/import_patch.h"
#include "tests/support/no_memory.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

class GetZTUUID : public MachineTest {};
class GetZTUUIDEx : public MachineTest {};

TEST_F(GetZTUUID, TracesEveryStepOnAMachineWithEverything) {
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetZTUUID(out, 33));
  EXPECT_STREQ(out, "6519F7C59F825CB9C3EB7873769899BE");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(
          kCompose.Info("Entry"), kCollect.Info("Entry"),
          kCollect.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
          kCollect.Info("Success..."), kNormalise.Info("Entry"), kHyphenate.Info("Entry"),
          kSort.Info("Entry"), kValidate.Info("Entry"), kSerialTail.Info("Entry"),
          kBiosId.Info("Entry"), kBiosId.Info("Success.."), kNormalise.Info("Success...."),
          kCompose.InfoDirect("Client MAC Address:(%s)", "Client MAC Address:(001A2B3C4D5E)"),
          kCompose.InfoDirect("Client MAC Address:(%s)", "Client MAC Address:(00AABBCCDDEE)"),
          kCompose.InfoDirect("Combined UUID:(%s)",
                              "Combined UUID:(4C4C4544003530108048B4C04F4B3732E1234567001A2B3C4D5E"
                              "00AABBCCDDEE)"),
          kStringify.Info("Entry"),
          kCompose.InfoDirect(
              "MD5 of combined ZT UUID:(%s)\tSuccess...",
              "MD5 of combined ZT UUID:(6519F7C59F825CB9C3EB7873769899BE)\tSuccess...")));
}

TEST_F(GetZTUUIDEx, TracesEveryStepButTheAddresses) {
  machine.SetEverything();
  EXPECT_TRUE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_STREQ(out, "6519F7C59F825CB9C3EB7873769899BE");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kComposeEx.Info("Entry"), kCollectEx.Info("Entry"),
                  kCollectEx.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  kCollectEx.Info("Success..."), kNormalise.Info("Entry"), kHyphenate.Info("Entry"),
                  kSort.Info("Entry"), kValidate.Info("Entry"), kSerialTail.Info("Entry"),
                  kBiosId.Info("Entry"), kBiosId.Info("Success.."), kNormalise.Info("Success...."),
                  kComposeEx.InfoDirect(
                      "Combined UUID:(%s)",
                      "Combined UUID:(4C4C4544003530108048B4C04F4B3732E1234567001A2B3C4D5E"
                      "00AABBCCDDEE)"),
                  kStringify.Info("Entry"),
                  kComposeEx.InfoDirect(
                      "MD5 of combined ZT UUID:(%s)\tSuccess...",
                      "MD5 of combined ZT UUID:(6519F7C59F825CB9C3EB7873769899BE)\tSuccess...")));
}

TEST_F(GetZTUUID, EveryComponentEmptyIsAFailure) {
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_STREQ(out, "");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(
          kCompose.Info("Entry"), kCollect.Info("Entry"), kCollect.Error("GetBiosUuid failed."),
          kCollect.InfoDirect("UUID:(%s)", "UUID:()"), kCollect.Error("GetPrimaryHDDSrNo failed."),
          kCollect.Error("GetOnboardNICMacAddress failed."), kCollect.Info("Success..."),
          kNormalise.Info("Entry"), kHyphenate.Info("Entry"), kSort.Info("Entry"),
          kValidate.Info("Entry"), kNormalise.Error("ValidateUUID failed."),
          kSerialTail.Info("Entry"), kBiosId.Info("Entry"), kBiosId.Info("Success.."),
          kNormalise.Info("Success...."),
          kCompose.InfoDirect("Client MAC Address:(%s)", "Client MAC Address:()"),
          kCompose.InfoDirect("Client MAC Address:(%s)", "Client MAC Address:()"),
          kCompose.InfoDirect("Combined UUID:(%s)", "Combined UUID:()"),
          kCompose.Error("Empty ZT UUID found.")));
}

TEST_F(GetZTUUID, EmptyFingerprintIsStage10) {
  machine.SetEverything();
  for (const char* query : {"products", "media", "adapters"}) {
    machine.server.Query(query).objects.clear();
  }
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_EQ(recorder.Lines().back(), kCompose.Error("Empty ZT UUID found."));
  ExpectRecorded(0, 10);
}

TEST_F(GetZTUUID, OnVersion50TheAddressesAloneMakeTheIdentifier) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.SetEverything();
  machine.ipAdapters = {{0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA}, {1, 2, 3, 4, 5, 6}, {7}};
  EXPECT_TRUE(fingerprint.GetZTUUID(out, 33));
  EXPECT_STREQ(out, "FBCDF456B606EAE683FD241BFD444F3E");
  EXPECT_THAT(machine.server.Journal(), IsEmpty());
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(
          kCompose.Info("Entry"), kCollect.Info("Entry"), kCollect.Info("Success..."),
          kNormalise.Info("Entry"), kHyphenate.Info("Entry"), kSort.Info("Entry"),
          kNormalise.Info("Success..."),
          kCompose.InfoDirect("Client MAC Address:(%s)", "Client MAC Address:(010203040506)"),
          kCompose.InfoDirect("Client MAC Address:(%s)", "Client MAC Address:(fffefdfcfbfa)"),
          kCompose.InfoDirect("Combined UUID:(%s)", "Combined UUID:(010203040506fffefdfcfbfa)"),
          kStringify.Info("Entry"),
          kCompose.InfoDirect(
              "MD5 of combined ZT UUID:(%s)\tSuccess...",
              "MD5 of combined ZT UUID:(FBCDF456B606EAE683FD241BFD444F3E)\tSuccess...")));
}

TEST_F(GetZTUUID, MissingOutputIsRefusedBeforeAnythingElse) {
  EXPECT_FALSE(fingerprint.GetZTUUID(nullptr, 33));
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 0));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(nullptr, 33));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 0));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(kCompose.Info("Entry"), kCompose.Error("Invalid i/p params."),
                          kCompose.Info("Entry"), kCompose.Error("Invalid i/p params."),
                          kComposeEx.Info("Entry"), kComposeEx.Error("Invalid i/p params."),
                          kComposeEx.Info("Entry"), kComposeEx.Error("Invalid i/p params.")));
}

TEST_F(GetZTUUID, FailedCollectionIsAFailure) {
  machine.com.initializeResult = E_FAIL;
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_THAT(recorder.LinesOf("CZTUUID::GetZTUUID"),
              ElementsAre(kCompose.Info("Entry"), kCompose.Error("GetUUIDParameters failed.")));
  EXPECT_THAT(
      recorder.LinesOf("CZTUUID::GetZTUUIDEx"),
      ElementsAre(kComposeEx.Info("Entry"), kComposeEx.Error("GetUUIDParametersEx failed.")));
}

TEST_F(GetZTUUID, CollectionThatRunsOutOfMemoryIsAFailureThatLeavesComAndReleasesEverything) {
  machine.SetEverything();
  const CallPatch<struct NoTextTag, BSTR WINAPI(const OLECHAR*, UINT)> noText(
      "oleaut32.dll", "SysAllocStringLen", [](const OLECHAR*, UINT) -> BSTR { return nullptr; });
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_THAT(
      machine.server.Journal(),
      ElementsAre("CoInitializeEx", "CoInitializeSecurity", "create locator", "release locator",
                  "CoUninitialize", "CoInitializeEx", "CoInitializeSecurity", "create locator",
                  "release locator", "CoUninitialize"));
  EXPECT_THAT(recorder.Lines(), ElementsAre(kCompose.Info("Entry"), kCollect.Info("Entry"),
                                            kCompose.Error("GetUUIDParameters failed."),
                                            kComposeEx.Info("Entry"), kCollectEx.Info("Entry"),
                                            kComposeEx.Error("GetUUIDParametersEx failed.")));
}

// A query's text needs memory of its own, whose lack is another exception than that of COM's texts.
TEST_F(GetZTUUID, CollectionWithoutMemoryForAQueryIsAFailureThatLeavesComAndReleasesEverything) {
  machine.SetEverything();
  const NoMemoryFor noMemory(sizeof(L"Associators of {Win32_DiskDrive.DeviceID='"));
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_EQ(machine.server.Journal().back(), "CoUninitialize");
  EXPECT_THAT(machine.server.Problems(), IsEmpty());
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_EQ(machine.server.Journal().back(), "CoUninitialize");
  EXPECT_THAT(machine.server.Journal(), Not(Contains("ExecQuery partitions")));
  EXPECT_STREQ(out, "");
  EXPECT_THAT(
      recorder.Lines(),
      ElementsAre(kCompose.Info("Entry"), kCollect.Info("Entry"),
                  kCollect.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  kCompose.Error("GetUUIDParameters failed."), kComposeEx.Info("Entry"),
                  kCollectEx.Info("Entry"),
                  kCollectEx.InfoDirect("UUID:(%s)", "UUID:(4C4C4544-0035-3010-8048-B4C04F4B3732)"),
                  kComposeEx.Error("GetUUIDParametersEx failed.")));
}

TEST_F(GetZTUUID, UuidThatIsNotGuidShapedYieldsAnIdentifierFromDiskAndAddressesOnly) {
  machine.SetEverything();
  machine.server.Query("products").objects[0].properties[L"UUID"] =
      Text(L"4C4C4544003530108048B4C04F4B3732");
  EXPECT_EQ(Identifier(), "C695A0596E2E73DD6CB48500DE75D5E9");
}

TEST_F(GetZTUUID, EitherCollectionOrderOfTwoAddressesGivesTheSameIdentifier) {
  machine.SetEverything();
  std::vector<FakeObject>& adapters = machine.server.Query("adapters").objects;
  std::swap(adapters[0], adapters[1]);
  EXPECT_EQ(Identifier(), "6519F7C59F825CB9C3EB7873769899BE");
}

TEST_F(GetZTUUID, EveryFormOfAnAddressGivesTheSameIdentifier) {
  machine.SetAddresses({L""});
  for (const wchar_t* address : {L"00:1a:2b:3c:4d:5e", L"00-1a-2b-3c-4d-5e", L"001a2b3c4d5e"}) {
    machine.server.Query("adapters").objects[0].properties[L"MACAddress"] = Text(address);
    EXPECT_EQ(Identifier(), "66EFB1A45C262D043508813DC97C1D0B");
  }
}

TEST_F(GetZTUUID, LetterCaseOfAnAddressCounts) {
  machine.SetAddresses({L"001A2B3C4D5E"});
  EXPECT_EQ(Identifier(), "7598B725A578EE13656D280B6520F326");
}

TEST_F(GetZTUUID, OutputOf32CharactersFailsAtTheFinalCopyAnd33Succeed) {
  machine.SetAddresses({L"001A2B3C4D5E"});
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 32));
  EXPECT_EQ(recorder.LinesOf("CZTUUID::GetZTUUID").back(),
            kCompose.ErrorDirect("StringCchPrintfW failed for szZTUUIDA\tError code:(%X).",
                                 "StringCchPrintfW failed for szZTUUIDA\tError code:(8007007A)."));
  EXPECT_EQ(Identifier().size(), 32U);
}

TEST_F(GetZTUUID, FailedFinalCopyIsStage0) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.ipAdapters = {{1}};
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 1));
  ExpectRecorded(kCut, 0);
}

TEST_F(GetZTUUID, IdentifierIs32CharactersOf0To9AndAToF) {
  machine.SetAddresses({L""});
  for (int i = 0; i < 100; ++i) {
    machine.server.Query("adapters").objects[0].properties[L"MACAddress"] =
        Text(std::to_wstring(100000000000 + i));
    const std::string identifier = Identifier();
    EXPECT_EQ(identifier.size(), 32U);
    EXPECT_EQ(identifier.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  }
}

using Format = int __cdecl(char*, std::size_t, const char*, char*);

TEST_F(GetZTUUID, CombinedTextThatDoesNotFitIsTracedAndStage0) {
  machine.version.reset();
  machine.version.emplace(5U, 0U);
  machine.ipAdapters = {{1}};
  const CallPatch<struct CombineTag, Format> format(
      "msvcrt.dll", "_vsnprintf",
      [&](char* text, std::size_t size, const char* pattern, char* arguments) {
        if (std::strcmp(pattern, "%s%s%s%s") == 0) {
          EXPECT_EQ(size, 259U);
          return -1;
        }
        return format.CallOriginal(text, size, pattern, arguments);
      });
  // The addresses are traced behind the composition, so not at all here.
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_THAT(
      recorder.LinesOf("CZTUUID::GetZTUUID"),
      ElementsAre(kCompose.Info("Entry"),
                  kCompose.ErrorDirect(
                      "StringCchPrintfA failed for Combined ZT UUID\tError code:(%X).",
                      "StringCchPrintfA failed for Combined ZT UUID\tError code:(8007007A).")));
  ExpectRecorded(kCut, 0);

  fingerprint.LastError = {1, 1};
  EXPECT_FALSE(fingerprint.GetZTUUIDEx(out, 33));
  EXPECT_THAT(
      recorder.LinesOf("CZTUUID::GetZTUUIDEx"),
      ElementsAre(kComposeEx.Info("Entry"),
                  kComposeEx.ErrorDirect(
                      "StringCchPrintfA failed for Combined ZT UUID\tError code:(%X).",
                      "StringCchPrintfA failed for Combined ZT UUID\tError code:(8007007A).")));
  ExpectRecorded(kCut, 0);
}

TEST_F(GetZTUUID, DigestThatCannotBeWrittenIsTraced) {
  machine.SetAddresses({L"001A2B3C4D5E"});
  const CallPatch<struct DigitsTag, Format> format(
      "msvcrt.dll", "_vsnprintf",
      [&](char* text, std::size_t size, const char* pattern, char* arguments) {
        return std::strcmp(pattern, "%02X") == 0
                   ? -1
                   : format.CallOriginal(text, size, pattern, arguments);
      });
  EXPECT_FALSE(fingerprint.GetZTUUID(out, 33));
  EXPECT_EQ(recorder.Lines().back(), kCompose.Error("StringifyMD5 failed for Combined ZT UUID."));
}

// ---- Entry points ----

// The four by one signature.
using EntryPoint = std::function<bool(char*, unsigned, FingerprintStatus*)>;

EntryPoint Reserved(bool (*function)(void*, char*, unsigned, FingerprintStatus*)) {
  return [function](char* out, unsigned outChars, FingerprintStatus* status) {
    int ignored = 0;
    return function(&ignored, out, outChars, status);
  };
}

class ComputeZTUUIDTest : public MachineTest {
 protected:
  const std::vector<EntryPoint> all = {Reserved(&ComputeZTUUID), ComputeZTUUIDEx,
                                       Reserved(&ComputeZTUUIDInto), ComputeZTUUIDExInto};
  const std::vector<EntryPoint> copying = {Reserved(&ComputeZTUUID), ComputeZTUUIDEx};
  const std::vector<EntryPoint> direct = {Reserved(&ComputeZTUUIDInto), ComputeZTUUIDExInto};
};

TEST_F(ComputeZTUUIDTest, AllWriteTheIdentifierAndLeaveTheStatusUntouched) {
  machine.SetEverything();
  for (const EntryPoint& compute : all) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_TRUE(compute(text, 33, &status));
    EXPECT_STREQ(text, "6519F7C59F825CB9C3EB7873769899BE");
    EXPECT_EQ(status.ErrorCode, 7);
    EXPECT_EQ(status.ErrorStage, 8U);
  }
}

TEST_F(ComputeZTUUIDTest, EachRunsItsOwnMember) {
  machine.SetEverything();
  machine.com.securityResult = kTooLate;
  FingerprintStatus status{};
  char text[33] = "";
  EXPECT_FALSE(ComputeZTUUID(nullptr, text, 33, &status));
  EXPECT_TRUE(ComputeZTUUIDEx(text, 33, &status));
  EXPECT_FALSE(ComputeZTUUIDInto(nullptr, text, 33, &status));
  EXPECT_TRUE(ComputeZTUUIDExInto(text, 33, &status));
}

TEST_F(ComputeZTUUIDTest, FailedMemberHandsBackTheZerosOfItsFreshRecord) {
  for (const EntryPoint& compute : all) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 33, &status));
    EXPECT_EQ(status.ErrorCode, 0);
    EXPECT_EQ(status.ErrorStage, 0U);
  }
}

TEST_F(ComputeZTUUIDTest, CopyThatDoesNotFitHandsBackItsResultAndStage0) {
  machine.SetEverything();
  for (const EntryPoint& compute : copying) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 32, &status));
    EXPECT_EQ(status.ErrorCode, kCut);
    EXPECT_EQ(status.ErrorStage, 0U);
  }
}

TEST_F(ComputeZTUUIDTest, CopyToNowhereIsAnInvalidArgument) {
  machine.SetEverything();
  for (const EntryPoint& compute : copying) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 0, &status));
    EXPECT_EQ(status.ErrorCode, E_INVALIDARG);
    EXPECT_FALSE(compute(nullptr, 33, &status));
    EXPECT_EQ(status.ErrorCode, E_INVALIDARG);
  }
}

TEST_F(ComputeZTUUIDTest, DirectOutputThatIsTooSmallFailsInTheMember) {
  machine.SetEverything();
  for (const EntryPoint& compute : direct) {
    FingerprintStatus status{7, 8};
    char text[33] = "";
    EXPECT_FALSE(compute(text, 32, &status));
    EXPECT_EQ(status.ErrorCode, 0);
    EXPECT_EQ(status.ErrorStage, 0U);
    EXPECT_FALSE(compute(nullptr, 33, &status));
  }
}

}  // namespace
