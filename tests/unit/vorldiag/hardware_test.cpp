// What the tool says of the hardware is what it hashes, and what failed is said with WMI's number.
#include "tools/vorldiag/identity/hardware.h"

#include <gmock/gmock.h>

#include <map>

#include "identity/md5.h"
#include "support/handle.h"
#include "tests/support/fake_machine.h"
#include "tools/vorldiag/identity/identityreport.h"

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

constexpr unsigned kPatience = 60;

std::string Md5Of(const std::string& text) {
  unsigned char digest[kMd5DigestSize] = {};
  CMd5 md5;
  EXPECT_EQ(md5.CalculateMD5(reinterpret_cast<const unsigned char*>(text.data()),
                             static_cast<std::uint32_t>(text.size()), digest),
            1);
  std::string hexadecimal;
  for (const unsigned char byte : digest) {
    constexpr char digits[] = "0123456789ABCDEF";
    hexadecimal += digits[byte / 16];
    hexadecimal += digits[byte % 16];
  }
  return hexadecimal;
}

class HardwareTest : public ::testing::Test {
 protected:
  Machine machine;
};

TEST_F(HardwareTest, EveryParameterAndWhatBecomesOfIt) {
  machine.SetBiosUuid(Text(L"4C4C4544-0042-3510-8052-B9C04F384E32"));
  machine.SetDiskSerial(L"  WD-0M512345 ");
  machine.SetAddresses({L"A4:BB:6D:11:22:33", L"00:15:5D:01:02:03"});
  const Hardware hardware = CollectHardware(kPatience);
  EXPECT_EQ(hardware.problem, "");
  EXPECT_EQ(hardware.biosUuid.value, "4C4C4544-0042-3510-8052-B9C04F384E32");
  EXPECT_EQ(hardware.diskSerial.value, "WD-0M512345");
  ASSERT_THAT(hardware.addresses, SizeIs(2));
  EXPECT_EQ(hardware.addresses[0].value, "A4:BB:6D:11:22:33");
  EXPECT_EQ(hardware.addresses[1].value, "00:15:5D:01:02:03");
  EXPECT_EQ(hardware.combined, "4C4C4544004235108052B9C04F384E320M51234500155D010203A4BB6D112233");
  // md5sum's.
  EXPECT_EQ(hardware.identifier, "F6DDB1CAA36D124F6BF28F7F9EFB4B22");
}

// Two collections could differ; the tool makes one.
TEST_F(HardwareTest, IsCollectedOnce) {
  machine.SetEverything();
  const Hardware hardware = CollectHardware(kPatience);
  EXPECT_EQ(hardware.identifier, Md5Of(hardware.combined));
  const std::vector<std::string> journal = machine.server.Journal();
  EXPECT_EQ(std::count(journal.begin(), journal.end(), "ExecQuery products"), 1);
}

TEST_F(HardwareTest, IsTheServicesOwnIdentifier) {
  machine.SetEverything();
  CZTUUID fingerprint;
  char identifier[33] = "";
  ASSERT_TRUE(fingerprint.GetZTUUID(identifier, 33));
  EXPECT_EQ(CollectHardware(kPatience).identifier, identifier);
}

TEST_F(HardwareTest, SaysWhatWmiSaidWhereAPartIsMissing) {
  machine.SetBiosUuid(Fails(static_cast<HRESULT>(0x80041002)));
  machine.SetDiskSerial(L"WD-WCC4E1234567");
  machine.SetAddresses({L"00:AA:BB:CC:DD:EE"});
  machine.server.connectResults[L"ROOT\\StandardCIMV2"] = static_cast<HRESULT>(0x8004100E);
  const Hardware hardware = CollectHardware(kPatience);
  EXPECT_EQ(hardware.biosUuid.value, "");
  EXPECT_EQ(hardware.biosUuid.error, "00000001 (no object, or no further one)");
  EXPECT_THAT(hardware.addresses, IsEmpty());
  EXPECT_EQ(hardware.addressError, "8004100E (connecting to WMI's namespace)");
  EXPECT_NE(hardware.diskSerial.value, "");
  EXPECT_EQ(hardware.diskSerial.error, "");
  EXPECT_EQ(hardware.identifier, Md5Of(hardware.combined));
  // That there is none is an answer.
  EXPECT_FALSE(hardware.biosUuid.hasFailed);
  EXPECT_EQ(hardware.FailedParts(), "network addresses");
}

// A stored identifier must not be thrown away because WMI has no answer at the moment.
TEST_F(HardwareTest, IsNotComparedWhileWmiCannotAnswer) {
  machine.SetEverything();
  const std::string own = CollectHardware(kPatience).identifier;
  machine.server.connectResults[L"ROOT\\StandardCIMV2"] = static_cast<HRESULT>(0x8004100E);
  const Hardware hardware = CollectHardware(kPatience);
  ASSERT_NE(hardware.identifier, own);
  const Report report = IdentityReport(hardware, {own, ""}, {});
  EXPECT_EQ(report.Worst(), Verdict::kWarning);
  std::map<std::string, Finding> findings;
  for (const Section& section : report.sections) {
    for (const Finding& finding : section.findings) {
      findings[finding.id] = finding;
    }
  }
  EXPECT_EQ(findings["stored"].value,
            own + ", not compared: WMI could not answer for network addresses");
  EXPECT_THAT(findings["stored"].advice, StartsWith("Repair WMI"));
  EXPECT_EQ(findings["identifier"].value, hardware.identifier + " without network addresses");
  EXPECT_EQ(findings["network-address-1"].verdict, Verdict::kWarning);
  EXPECT_EQ(findings["bios-uuid"].verdict, Verdict::kOk);
}

TEST_F(HardwareTest, SaysThatComCannotBeUsed) {
  machine.com.securityResult = E_ACCESSDENIED;
  const Hardware hardware = CollectHardware(kPatience);
  EXPECT_EQ(hardware.problem, "COM cannot be used (80070005)");
  EXPECT_EQ(hardware.identifier, "");
}

TEST_F(HardwareTest, KeepsTheLinesThatTheUnitsWrote) {
  machine.SetBiosUuid(Text(L"no UUID"));
  const Hardware hardware = CollectHardware(kPatience);
  EXPECT_THAT(hardware.lines, Contains("CZTUUID::ProcessUUIDParameters: ValidateUUID failed."));
  EXPECT_EQ(hardware.processedBiosId, "");
}

// A WMI that never answers.
TEST_F(HardwareTest, GivesUpAWmiThatDoesNotAnswer) {
  machine.SetEverything();
  const KernelHandle asked(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const KernelHandle answer(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  KernelHandle left;
  CallPatch<struct CreateTag, HRESULT WINAPI(const CLSID&, IUnknown*, DWORD, const IID&, void**)>
      patch("ole32.dll", "CoCreateInstance",
            [&](const CLSID&, IUnknown*, DWORD, const IID&, void** object) {
              if (!left) {
                left.Reset(OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId()));
                SetEvent(asked.Get());
              }
              WaitForSingleObject(answer.Get(), INFINITE);
              *object = nullptr;
              return E_FAIL;
            });
  EXPECT_EQ(CollectHardware(0).problem, "WMI does not answer within 0 s");
  WaitForSingleObject(asked.Get(), INFINITE);
  // The thread that was left behind still uses this machine: it must be at its end before it goes.
  SetEvent(answer.Get());
  WaitForSingleObject(left.Get(), INFINITE);
}

// The words for what WMI was doing are those of the steps that a record has.
TEST_F(HardwareTest, SaysAtWhichStepWmiFailed) {
  machine.SetEverything();
  machine.server.connectResults[L"ROOT\\CIMV2"] = static_cast<HRESULT>(0x80041003);
  Hardware hardware = CollectHardware(kPatience);
  EXPECT_EQ(hardware.biosUuid.error, "80041003 (connecting to WMI's namespace)");
  EXPECT_EQ(hardware.diskSerial.error, "80041003 (connecting to WMI's namespace)");
  EXPECT_EQ(hardware.FailedParts(), "BIOS UUID, disk serial, network addresses");
  EXPECT_EQ(hardware.identifier, "");
  EXPECT_EQ(hardware.combined, "");
  EXPECT_EQ(RunBothCollections(kPatience).at(0).identifier, "");
}

TEST_F(HardwareTest, WithoutAThreadSaysThatMemoryIsOut) {
  const CallPatch<struct ThreadTag,
                  std::uintptr_t __cdecl(void*, unsigned, unsigned __stdcall (*)(void*), void*,
                                         unsigned, unsigned*)>
      thread("msvcrt.dll", "_beginthreadex",
             [](void*, unsigned, unsigned __stdcall (*)(void*), void*, unsigned, unsigned*) {
               return std::uintptr_t{0};
             });
  EXPECT_EQ(CollectHardware(kPatience).problem, "out of memory");
  const std::vector<Collection> collections = RunBothCollections(kPatience);
  ASSERT_THAT(collections, SizeIs(1));
  EXPECT_EQ(collections[0].identifier, "");
  EXPECT_THAT(collections[0].lines, Contains("it did not end in time"));
}

TEST_F(HardwareTest, WithoutMemoryOnItsThreadSaysSo) {
  machine.SetEverything();
  // The texts of the first parameter are longer than what a text has room for without memory.
  const DWORD own = GetCurrentThreadId();
  const CallPatch<struct MemoryTag, void* __cdecl(std::size_t)> memory(
      "msvcrt.dll", "malloc", [&](std::size_t size) -> void* {
        return GetCurrentThreadId() != own && size == sizeof("Win32_ComputerSystemProduct.UUID")
                   ? nullptr
                   : memory.CallOriginal(size);
      });
  EXPECT_EQ(CollectHardware(kPatience).problem, "out of memory");
}

TEST_F(HardwareTest, WithoutComSaysSo) {
  machine.com.initializeResult = RPC_E_CHANGED_MODE;
  EXPECT_EQ(CollectHardware(kPatience).problem, "COM cannot be used (80010106)");
}

// Somebody else has set COM's security up in this process: what it allows is used.
TEST_F(HardwareTest, UsesComAsSomebodyElseHasSetItUp) {
  machine.SetEverything();
  machine.com.securityResult = RPC_E_TOO_LATE;
  EXPECT_EQ(CollectHardware(kPatience).problem, "");
}

}  // namespace
