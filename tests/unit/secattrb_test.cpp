// The security attributes as Windows takes them.
#include "tests/unit/secattrb_test.h"

#include <gmock/gmock.h>

#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/unit/operations.h"

using ::testing::ElementsAre;

namespace {

// The entry of `descriptor` that a list with exactly one allowing entry has.
struct OnlyEntry {
  DWORD mask = 0;
  BYTE flags = 0;
  bool isWorld = false;
};

OnlyEntry ReadOnlyEntry(PSECURITY_DESCRIPTOR descriptor) {
  BOOL present = FALSE;
  BOOL defaulted = TRUE;
  PACL acl = nullptr;
  EXPECT_TRUE(IsValidSecurityDescriptor(descriptor));
  EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &acl, &defaulted));
  EXPECT_TRUE(present);
  EXPECT_FALSE(defaulted);
  if (acl == nullptr || acl->AceCount != 1) {
    ADD_FAILURE() << "not exactly one entry";
    return {};
  }
  void* entry = nullptr;
  EXPECT_TRUE(GetAce(acl, 0, &entry));
  const auto& allowed = *static_cast<const ACCESS_ALLOWED_ACE*>(entry);
  EXPECT_EQ(allowed.Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
  // S-1-1-0
  BYTE world[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof(world);
  EXPECT_TRUE(CreateWellKnownSid(WinWorldSid, nullptr, world, &size));
  PSID sid = const_cast<DWORD*>(&allowed.SidStart);
  return {allowed.Mask, allowed.Header.AceFlags, EqualSid(sid, world) != FALSE};
}

TEST(CreateSecurityAttributeForEveryone, GrantsTheMaskToTheWorldGroupAlone) {
  Attributes attributes;
  attributes.sa.bInheritHandle = TRUE;
  ASSERT_EQ(attributes.Create(), TRUE);
  EXPECT_EQ(attributes.sa.nLength, 24U);
  EXPECT_EQ(attributes.sa.lpSecurityDescriptor, attributes.sd);
  EXPECT_FALSE(attributes.sa.bInheritHandle);
  const OnlyEntry entry = ReadOnlyEntry(attributes.sd);
  EXPECT_EQ(entry.mask, 0x1F0003U);
  EXPECT_EQ(entry.flags, 3);
  EXPECT_TRUE(entry.isWorld);
  EXPECT_EQ(attributes.Free(), TRUE);
}

TEST(CreateSecurityAttributeForEveryone, PassesAnyMaskThrough) {
  Attributes attributes;
  ASSERT_EQ(attributes.Create(EVENT_MODIFY_STATE), TRUE);
  EXPECT_EQ(ReadOnlyEntry(attributes.sd).mask, 2U);
  attributes.Free();
}

TEST(CreateSecurityAttributeForEveryone, AnEventMadeWithItHasExactlyThatEntry) {
  Attributes attributes;
  ASSERT_EQ(attributes.Create(), TRUE);
  const HANDLE event = CreateEventW(&attributes.sa, TRUE, FALSE, nullptr);
  ASSERT_NE(event, nullptr);
  BYTE descriptor[1024];
  DWORD size = 0;
  ASSERT_TRUE(GetKernelObjectSecurity(event, DACL_SECURITY_INFORMATION, descriptor,
                                      sizeof(descriptor), &size));
  const OnlyEntry entry = ReadOnlyEntry(descriptor);
  EXPECT_EQ(entry.mask, 0x1F0003U);
  EXPECT_EQ(entry.flags, 3);
  EXPECT_TRUE(entry.isWorld);
  CloseHandle(event);
  attributes.Free();
}

TEST(CreateSecurityAttributeForEveryone, RefusesANullRecordAndLoadsNothing) {
  Journal journal;
  unsigned loads = 0;
  const CallPatch<struct NullLoad, HMODULE(const char*)> load("KERNEL32.dll", "LoadLibraryA",
                                                              [&](const char*) -> HMODULE {
                                                                ++loads;
                                                                return nullptr;
                                                              });
  PSID sid = nullptr;
  PACL acl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  EXPECT_EQ(CreateSecurityAttributeForEveryone(nullptr, &sid, &acl, &sd, kEventAllAccess), FALSE);
  EXPECT_EQ(loads, 0U);
  EXPECT_THAT(journal.Traces(), ElementsAre(kMakeAttributes.Info("Entry"),
                                            kMakeAttributes.Error("NULL Parameters Received")));
}

}  // namespace
