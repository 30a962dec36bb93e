// What a masked bundle replaces because the hardware and Windows say that it is this computer's.
#include "tools/vorldiag/bundle/secrets.h"

#include <gmock/gmock.h>

#include <string_view>
#include <utility>

#include "support/windows_api.h"
#include "tests/support/empty_machine_key.h"

namespace {

class Secrets : public ::testing::Test {
 protected:
  std::string Masked(const std::string& text) const {
    Mask mask;
    AddSecrets(hardware, mask);
    return mask.Apply(text);
  }

  Hardware hardware;
};

TEST_F(Secrets, AreTheIdentifierAndWhatItIsMadeOf) {
  hardware.identifier = "F6DDB1CAA36D124F6BF28F7F9EFB4B22";
  hardware.biosUuid.value = "4C4C4544-0042-3510-8052-B9C04F384E32";
  hardware.processedBiosId = "4C4C4544004235108052B9C04F384E32";
  hardware.diskSerial.value = "WD-0M512345";
  hardware.optimumSerial = "0M512345";
  hardware.addresses.resize(2);
  hardware.addresses[0].value = "A4:BB:6D:11:22:33";
  hardware.addresses[1].value = "00:15:5D:01:02:03";
  hardware.address1 = "00155D010203";
  hardware.address2 = "A4BB6D112233";
  EXPECT_EQ(Masked("xF6DDB1CAA36D124F6BF28F7F9EFB4B22x wd-0m512345 x0M512345 a4-bb-6d-11-22-33 "
                   "00155d010203 x4C4C4544004235108052B9C04F384E32x"),
            "x[identifier-1]x [serial-1] x[serial-2] [address-1] [address-2] x[uuid-1]x");
}

// A serial number that the maker left in tells no computer from others, and may be a word of every
// log.
TEST_F(Secrets, AreNoPlaceholders) {
  for (const char* serial : {"None", "Default string", "To be filled by O.E.M.", "123456789",
                             "0000000000000000", "FFFFFFFF"}) {
    SCOPED_TRACE(serial);
    hardware.diskSerial.value = serial;
    hardware.optimumSerial = serial;
    const std::string text = std::string("<") + serial + "> None of the lines, 123456789 bytes";
    EXPECT_EQ(Masked(text), text);
  }
  // The part that goes into the identifier is looked at by itself.
  hardware.diskSerial.value = "WD-00000000";
  hardware.optimumSerial = "00000000";
  EXPECT_EQ(Masked("<WD-00000000> 00000000"), "<[serial-1]> 00000000");
}

TEST_F(Secrets, AreTheComputersNames) {
  wchar_t name[512] = {};
  DWORD size = static_cast<DWORD>(std::size(name));
  ASSERT_TRUE(GetComputerNameExW(ComputerNameNetBIOS, name, &size));
  const std::wstring wide = name;
  const std::string computer(wide.begin(), wide.end());
  EXPECT_EQ(Masked("on " + computer + ", not not" + computer),
            "on [computer-1], not not" + computer);
}

// Of people who have ever logged on, also when Windows does not know them any more.
TEST_F(Secrets, AreTheFoldersOfUsers) {
  const EmptyMachineKey registry;
  const std::wstring list = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\";
  EXPECT_EQ(Masked("janes-profile"), "janes-profile");
  const std::pair<const wchar_t*, const wchar_t*> profiles[] = {
      {L"S-1-5-18", L"C:\\Windows\\systemsprofile"},
      {L"S-1-5-21-1-2-3-4711", L"D:\\Homes\\janes-profile"},
      {L"S-1-12-1-5-6", L"D:\\Homes\\joes-profile"},
      {L"S-1-5-21-no", L"D:\\Homes\\nobodys-profile"}};
  const auto make = [&](const std::wstring& sid) {
    RegistryKey key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, (list + sid).c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                    KEY_ALL_ACCESS, nullptr, key.Receive(), nullptr);
    return key;
  };
  for (const auto& [sid, path] : profiles) {
    EXPECT_EQ(
        RegSetValueExW(make(sid).Get(), L"ProfileImagePath", 0, REG_SZ,
                       reinterpret_cast<const BYTE*>(path),
                       static_cast<DWORD>((std::wstring_view(path).size() + 1) * sizeof(wchar_t))),
        ERROR_SUCCESS);
  }
  make(L"S-1-5-21-1-2-3-4712");  // without a path
  EXPECT_THAT(Masked("janes-profile joes-profile systemsprofile nobodys-profile"),
              ::testing::MatchesRegex("\\[user-.\\] \\[user-.\\] systemsprofile nobodys-profile"));
}

}  // namespace
