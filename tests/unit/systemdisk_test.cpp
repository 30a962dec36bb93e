// The reader of the system disk's serial number, against a WMI server in this process.
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "tests/support/collector_test.h"
#include "tests/support/import_patch.h"
#include "tests/support/no_memory.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

class GetPrimaryHDDSrNo : public CollectorTest {
 protected:
  GetPrimaryHDDSrNo() {
    const char* const present = std::getenv("SystemDrive");
    m_systemDrive = present != nullptr ? present : "";
    _putenv_s("SystemDrive", "C:");
  }
  ~GetPrimaryHDDSrNo() override { _putenv_s("SystemDrive", m_systemDrive.c_str()); }

  void AddMedia(std::vector<FakeObject> media) {
    server.Add(
        {"media", L"ROOT\\CIMV2", L"SELECT * FROM Win32_PhysicalMedia", std::move(media), {}});
  }
  void AddPartitions(int disk, std::vector<FakeObject> partitions) {
    server.Add({"partitions of disk " + std::to_string(disk),
                L"ROOT\\CIMV2",
                L"Associators of {Win32_DiskDrive.DeviceID='\\\\.\\PHYSICALDRIVE" +
                    std::to_wstring(disk) + L"'} where AssocClass=Win32_DiskDriveToDiskPartition",
                std::move(partitions),
                {}});
  }
  void AddLogicalDisks(const std::string& name, const std::wstring& partition,
                       std::vector<FakeObject> logicalDisks) {
    server.Add({name,
                L"ROOT\\CIMV2",
                L"Associators of {Win32_DiskPartition.DeviceID='" + partition +
                    L"'} where AssocClass=Win32_LogicalDiskToPartition",
                std::move(logicalDisks),
                {}});
  }

  static FakeObject Media(int disk, FakeValue serial) {
    return {"media " + std::to_string(disk),
            {{L"Tag", Text(L"\\\\.\\PHYSICALDRIVE" + std::to_wstring(disk))},
             {L"SerialNumber", std::move(serial)}}};
  }
  static FakeObject Device(const std::string& name, FakeValue id) {
    return {name, {{L"DeviceID", std::move(id)}}};
  }

  // Disk `disk` with one partition that carries the drives given.
  void AddDisk(int disk, const std::vector<std::wstring>& drives) {
    const std::wstring partition = L"Disk #" + std::to_wstring(disk) + L", Partition #0";
    AddPartitions(disk, {Device("partition of disk " + std::to_string(disk), Text(partition))});
    std::vector<FakeObject> logicalDisks;
    for (const std::wstring& drive : drives) {
      logicalDisks.push_back(Device("drive", Text(drive)));
    }
    AddLogicalDisks("drives of disk " + std::to_string(disk), partition, std::move(logicalDisks));
  }

  // Collects from one disk with drive C: and the serial number given.
  bool CollectFromOneDisk(FakeValue serial) {
    AddMedia({Media(0, std::move(serial))});
    AddDisk(0, {L"C:"});
    return fingerprint.GetPrimaryHDDSrNo();
  }

 private:
  std::string m_systemDrive;
};

TEST_F(GetPrimaryHDDSrNo, GoesFromMediaToPartitionsToLogicalDisksAndReleasesFromTheInsideOut) {
  AddMedia({Media(0, Text(L"WD-ABC123"))});
  AddDisk(0, {L"C:", L"D:"});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-ABC123");
  EXPECT_THAT(
      server.Journal(),
      ElementsAre("create locator", "ConnectServer ROOT\\CIMV2", "SetBlanket", "ExecQuery media",
                  "Next media", "Get Tag of media 0", "ExecQuery partitions of disk 0",
                  "Next partitions of disk 0", "Get DeviceID of partition of disk 0",
                  "ExecQuery drives of disk 0", "Next drives of disk 0", "Get DeviceID of drive",
                  "Get SerialNumber of media 0", "release drive", "release drives of disk 0",
                  "release partition of disk 0", "release partitions of disk 0", "release media 0",
                  "release media", "release services", "release locator"));
  ExpectRecorded(1, 1);
}

TEST_F(GetPrimaryHDDSrNo, OnlyTheDiskOfTheSystemDriveSuppliesTheSerial) {
  AddMedia({Media(0, Text(L"serial 0")), Media(1, Text(L"serial 1")), Media(2, Text(L"serial 2"))});
  AddDisk(0, {L"D:", L"E:"});
  AddPartitions(1, {Device("boot partition", Text(L"Disk #1, Partition #0")),
                    Device("main partition", Text(L"Disk #1, Partition #1"))});
  AddLogicalDisks("drives of the boot partition", L"Disk #1, Partition #0", {});
  AddLogicalDisks("drives of the main partition", L"Disk #1, Partition #1",
                  {Device("drive F", Text(L"F:")), Device("drive C", Text(L"C:"))});
  AddDisk(2, {L"C:"});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "serial 1");
  EXPECT_THAT(server.Journal(), Not(Contains("Get SerialNumber of media 0")));
  EXPECT_THAT(server.Journal(), Not(Contains("ExecQuery partitions of disk 2")));
}

TEST_F(GetPrimaryHDDSrNo, DiskWithABlankSerialIsPassedOver) {
  AddMedia({Media(0, Text(L"   ")), Media(1, Text(L"")), Media(2, Text(L"serial 2"))});
  AddDisk(0, {L"C:"});
  AddDisk(1, {L"C:"});
  AddDisk(2, {L"C:"});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "serial 2");
}

TEST_F(GetPrimaryHDDSrNo, SerialOfOnlySpacesIsSkippedWithStage3) {
  EXPECT_FALSE(CollectFromOneDisk(Text(L"     ")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
  ExpectRecorded(0, 3);
}

TEST_F(GetPrimaryHDDSrNo, SpacesAreTrimmedAtBothEnds) {
  EXPECT_TRUE(CollectFromOneDisk(Text(L"   WD-ABC123  ")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-ABC123");
}

TEST_F(GetPrimaryHDDSrNo, TabAtTheEndStays) {
  EXPECT_TRUE(CollectFromOneDisk(Text(L"WD-ABC\t  ")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-ABC\t");
}

TEST_F(GetPrimaryHDDSrNo, OtherWhiteSpaceAndInnerSpacesStay) {
  EXPECT_TRUE(CollectFromOneDisk(Text(L" \tWD ABC\n ")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "\tWD ABC\n");
}

TEST_F(GetPrimaryHDDSrNo, WholeLengthOfTheSerialIsTrimmed) {
  // The last character is a null, so that the space before it is not at the end.
  EXPECT_TRUE(CollectFromOneDisk(Text(std::wstring(L" AB \0", 5))));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "AB ");
}

// The last one is left out: its byte is what the C library gives for a failure.
TEST_F(GetPrimaryHDDSrNo, CharactersOfTheCodePageAboveAsciiBecomeTheirBytes) {
  std::wstring serial;
  std::string expected;
  for (int byte = 0x80; byte < 0xFF; ++byte) {
    const char narrow = static_cast<char>(byte);
    wchar_t wide = 0;
    if (MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, &narrow, 1, &wide, 1) == 1 &&
        wide >= 0x80) {
      serial += wide;
      expected += narrow;
    }
  }
  AddMedia({Media(0, Text(L""))});
  AddDisk(0, {L"C:"});
  for (std::size_t begin = 0; begin < serial.size(); begin += 50) {
    server.Query("media").objects[0].properties[L"SerialNumber"] = Text(serial.substr(begin, 50));
    EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
    EXPECT_EQ(fingerprint.PrimaryHddSerial, expected.substr(begin, 50));
  }
  // A machine whose code page is UTF-8 has no such characters; all others have.
  EXPECT_EQ(serial.empty(), GetACP() == CP_UTF8);
}

TEST_F(GetPrimaryHDDSrNo, CharactersThatCannotBeNarrowedBecomeQuestionMarks) {
  EXPECT_TRUE(CollectFromOneDisk(Text(L"A\u4E2DB")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "A?B");
}

// Documented for a machine whose code page is UTF-8, where the C library then narrows no character
// at all. The identifier of such a machine must not be made of question marks.
TEST_F(GetPrimaryHDDSrNo, SerialHoldsWhereTheCodePageTellsOfNoDefaultCharacter) {
  const CallPatch<struct Utf8Tag, int WINAPI(UINT, DWORD, LPCWCH, int, LPSTR, int, LPCCH, LPBOOL)>
      convert("KERNEL32.dll", "WideCharToMultiByte",
              [&](UINT, DWORD flags, LPCWCH wide, int length, LPSTR narrow, int size,
                  LPCCH defaultChar, LPBOOL usedDefaultChar) {
                if (defaultChar != nullptr || usedDefaultChar != nullptr) {
                  SetLastError(ERROR_INVALID_PARAMETER);
                  return 0;
                }
                return convert.CallOriginal(CP_UTF8, flags, wide, length, narrow, size, nullptr,
                                            nullptr);
              });
  EXPECT_TRUE(CollectFromOneDisk(Text(L"  WD-ABC~123 ")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "WD-ABC~123");
}

TEST_F(GetPrimaryHDDSrNo, LetterCaseAndByteOrderOfTheSerialStay) {
  EXPECT_TRUE(CollectFromOneDisk(Text(L"DWA-cb1a32")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "DWA-cb1a32");
}

TEST_F(GetPrimaryHDDSrNo, SerialThatIsTooLongByOneIsNotStoredAndTheNextMatchingDiskIsTried) {
  AddMedia({Media(0, Text(std::wstring(100, L'x'))), Media(1, Text(std::wstring(99, L'y')))});
  AddDisk(0, {L"C:"});
  server.Query("drives of disk 0").end = {kShuttingDown, 0, false};
  AddDisk(1, {L"C:"});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  EXPECT_EQ(fingerprint.PrimaryHddSerial, std::string(99, 'y'));
}

TEST_F(GetPrimaryHDDSrNo, SerialThatIsTooLongIsStage0AndAFailureWithoutAnotherDisk) {
  EXPECT_FALSE(CollectFromOneDisk(Text(std::wstring(100, L'x'))));
  // Its stage 0 keeps the ends of the walks from being recorded.
  ExpectRecorded(kCut, 0);
}

TEST_F(GetPrimaryHDDSrNo, DriveLettersAreComparedWithoutCase) {
  _putenv_s("SystemDrive", "c:");
  EXPECT_TRUE(CollectFromOneDisk(Text(L"serial")));
}

TEST_F(GetPrimaryHDDSrNo, OnlyTwoCharactersOfADriveAreCompared) {
  _putenv_s("SystemDrive", "C:\\");
  EXPECT_TRUE(CollectFromOneDisk(Text(L"serial")));
}

TEST_F(GetPrimaryHDDSrNo, UnsetSystemDriveFailsWithoutAWalk) {
  _putenv_s("SystemDrive", "");
  EXPECT_FALSE(CollectFromOneDisk(Text(L"serial")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
  EXPECT_THAT(server.Journal(), ElementsAre("create locator", "ConnectServer ROOT\\CIMV2",
                                            "SetBlanket", "ExecQuery media", "release media",
                                            "release services", "release locator"));
  ExpectRecorded(1, 1);
}

TEST_F(GetPrimaryHDDSrNo, SystemDriveOfMoreThanFourCharactersFailsWithoutAWalk) {
  _putenv_s("SystemDrive", "C:\\xy");
  EXPECT_FALSE(CollectFromOneDisk(Text(L"serial")));
  EXPECT_THAT(server.Journal(), Not(Contains("Next media")));
}

using GetEnvironment = errno_t __cdecl(std::size_t*, char*, rsize_t, const char*);

TEST_F(GetPrimaryHDDSrNo, SystemDriveIsReadIntoFiveCharacters) {
  const CallPatch<struct EnvironmentTag, GetEnvironment> environment(
      "msvcrt.dll", "getenv_s",
      [](std::size_t* size, char* value, rsize_t capacity, const char* name) -> errno_t {
        EXPECT_EQ(capacity, 5U);
        EXPECT_STREQ(name, "SystemDrive");
        StringCchCopyA(value, capacity, "C:");
        *size = 3;
        return 0;
      });
  EXPECT_TRUE(CollectFromOneDisk(Text(L"serial")));
}

// What Windows answers for a variable that is not set; Wine answers EINVAL.
TEST_F(GetPrimaryHDDSrNo, SystemDriveThatIsReadAsMissingFailsWithoutAWalk) {
  const CallPatch<struct MissingTag, GetEnvironment> environment(
      "msvcrt.dll", "getenv_s",
      [](std::size_t* size, char* value, rsize_t, const char*) -> errno_t {
        value[0] = '\0';
        *size = 0;
        return 0;
      });
  EXPECT_FALSE(CollectFromOneDisk(Text(L"serial")));
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
  EXPECT_THAT(server.Journal(), ElementsAre("create locator", "ConnectServer ROOT\\CIMV2",
                                            "SetBlanket", "ExecQuery media", "release media",
                                            "release services", "release locator"));
}

TEST_F(GetPrimaryHDDSrNo, SystemDriveThatCannotBeReadFailsWithoutAWalk) {
  const CallPatch<struct NoEnvironmentTag, GetEnvironment> environment(
      "msvcrt.dll", "getenv_s",
      [](std::size_t*, char* value, rsize_t capacity, const char*) -> errno_t {
        StringCchCopyA(value, capacity, "C:");
        return EINVAL;
      });
  EXPECT_FALSE(CollectFromOneDisk(Text(L"serial")));
  EXPECT_THAT(server.Journal(), Not(Contains("Next media")));
}

TEST_F(GetPrimaryHDDSrNo, MediaWithoutATagIsSkippedWithStage9) {
  AddMedia({{"media 0", {{L"Tag", Fails(E_ACCESSDENIED)}, {L"SerialNumber", Text(L"serial 0")}}},
            Media(1, Text(L"serial 1"))});
  AddDisk(1, {L"C:"});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "serial 1");
  ExpectRecorded(E_ACCESSDENIED, 9);
}

TEST_F(GetPrimaryHDDSrNo, TagShorterThanItsPrefixNamesNoDisk) {
  AddMedia({{"media 0", {{L"Tag", Text(L"\\\\.")}, {L"SerialNumber", Text(L"serial 0")}}}});
  EXPECT_FALSE(fingerprint.GetPrimaryHDDSrNo());
  EXPECT_THAT(server.Journal(),
              Contains("ExecQuery Associators of {Win32_DiskDrive.DeviceID='\\\\.\\'} where "
                       "AssocClass=Win32_DiskDriveToDiskPartition"));
}

TEST_F(GetPrimaryHDDSrNo, FailedQueryForPartitionsIsStage6AndSkipsTheMedia) {
  AddMedia({Media(0, Text(L"serial 0")), Media(1, Text(L"serial 1"))});
  AddDisk(0, {L"C:"});
  server.Query("partitions of disk 0").result = E_ACCESSDENIED;
  AddDisk(1, {L"C:"});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "serial 1");
  ExpectRecorded(E_ACCESSDENIED, 6);
}

TEST_F(GetPrimaryHDDSrNo, PartitionWithoutAnIdIsSkippedWithStage9) {
  AddMedia({Media(0, Text(L"serial 0"))});
  AddPartitions(0, {Device("partition 0", Fails(E_ACCESSDENIED)),
                    Device("partition 1", Text(L"Disk #0, Partition #1"))});
  AddLogicalDisks("drives", L"Disk #0, Partition #1", {Device("drive", Text(L"C:"))});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  ExpectRecorded(E_ACCESSDENIED, 9);
}

TEST_F(GetPrimaryHDDSrNo, FailedQueryForLogicalDisksIsStage6AndSkipsThePartition) {
  AddMedia({Media(0, Text(L"serial 0"))});
  AddPartitions(0, {Device("partition 0", Text(L"Disk #0, Partition #0")),
                    Device("partition 1", Text(L"Disk #0, Partition #1"))});
  AddLogicalDisks("failing", L"Disk #0, Partition #0", {});
  server.Query("failing").givesNothing = true;
  server.Query("failing").result = S_FALSE;
  AddLogicalDisks("drives", L"Disk #0, Partition #1", {Device("drive", Text(L"C:"))});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  ExpectRecorded(S_FALSE, 6);
}

TEST_F(GetPrimaryHDDSrNo, LogicalDiskWithoutAnIdIsSkippedWithStage9) {
  AddMedia({Media(0, Text(L"serial 0"))});
  AddPartitions(0, {Device("partition", Text(L"Disk #0, Partition #0"))});
  AddLogicalDisks("drives", L"Disk #0, Partition #0",
                  {Device("drive 1", Fails(E_ACCESSDENIED)), Device("drive 2", Text(L"C:"))});
  EXPECT_TRUE(fingerprint.GetPrimaryHDDSrNo());
  ExpectRecorded(E_ACCESSDENIED, 9);
}

TEST_F(GetPrimaryHDDSrNo, SerialThatCannotBeReadIsStage9AndTheNextLogicalDiskIsTried) {
  AddMedia({Media(0, Fails(E_ACCESSDENIED)), Media(1, Null())});
  AddDisk(0, {L"C:", L"C:"});
  AddDisk(1, {L"C:", L"C:"});
  EXPECT_FALSE(fingerprint.GetPrimaryHDDSrNo());
  const std::vector<std::string> journal = server.Journal();
  EXPECT_EQ(std::ranges::count(journal, "Get SerialNumber of media 0"), 2);
  EXPECT_EQ(std::ranges::count(journal, "Get SerialNumber of media 1"), 2);
  // The second one's: its code 0 keeps the ends of the walks from being recorded.
  ExpectRecorded(0, 9);
}

TEST_F(GetPrimaryHDDSrNo, InnerWalksOfferStage8AtTheirNormalEnd) {
  AddMedia({Media(0, Text(L"serial 0"))});
  AddDisk(0, {L"D:"});
  server.Query("drives of disk 0").end = {0, 0, false};
  EXPECT_FALSE(fingerprint.GetPrimaryHDDSrNo());
  ExpectRecorded(0, 8);

  fingerprint.LastError = {1, 1};
  server.Query("drives of disk 0").end = {};
  server.Query("partitions of disk 0").end = {0, 0, false};
  EXPECT_FALSE(fingerprint.GetPrimaryHDDSrNo());
  ExpectRecorded(0, 8);
}

TEST_F(GetPrimaryHDDSrNo, NoMediaIsAFailure) {
  AddMedia({});
  EXPECT_FALSE(fingerprint.GetPrimaryHDDSrNo());
  ExpectRecorded(1, 8);
}

TEST_F(GetPrimaryHDDSrNo, EachStepBeforeTheWalkMayFail) {
  AddMedia({Media(0, Text(L"serial 0"))});
  AddDisk(0, {L"C:"});
  ExpectEachStepToFail("media", [&] { return fingerprint.GetPrimaryHDDSrNo(); });
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "");
}

TEST_F(GetPrimaryHDDSrNo, MissingMemoryForAQueryIsThrownWithEverythingReleased) {
  AddMedia({Media(0, Text(L"serial 0"))});
  AddDisk(0, {L"C:"});
  for (const std::size_t size : {sizeof(L"Associators of {Win32_DiskDrive.DeviceID='"),
                                 sizeof(L"Associators of {Win32_DiskPartition.DeviceID='")}) {
    FakeWmi& everything = server;
    const NoMemoryFor noMemory(size);
    EXPECT_THROW(fingerprint.GetPrimaryHDDSrNo(), std::bad_alloc);
    EXPECT_EQ(everything.Journal().back(), "release locator");
    EXPECT_THAT(everything.Problems(), IsEmpty());
  }
}

TEST_F(GetPrimaryHDDSrNo, MissingMemoryIsThrownWithEverythingReleased) {
  AddMedia({Media(0, Text(L"serial 0"))});
  AddDisk(0, {L"C:"});
  // Namespace; three queries with their language; tag, two ids and the serial.
  ExpectEachAllocationToThrow(1 + 3 * 2 + 4, [&] { fingerprint.GetPrimaryHDDSrNo(); });
  EXPECT_STREQ(fingerprint.PrimaryHddSerial, "serial 0");
}

}  // namespace
