// The calls by which the security attributes are made and freed, each failing once.
#include <aclapi.h>
#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/unit/operations.h"
#include "tests/unit/secattrb_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// The calls that both functions make, each of which a test can make fail. The library is a row of
// stand-ins that end in the real functions.
class SecurityAttributeCalls : public ::testing::Test {
 public:
  static inline SecurityAttributeCalls* s_test = nullptr;

 protected:
  SecurityAttributeCalls() {
    s_test = this;
    real = GetModuleHandleW(L"advapi32.dll");
  }
  ~SecurityAttributeCalls() override { s_test = nullptr; }

  template <typename Function>
  Function* Real(const char* name) {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(m_getProcAddress.CallOriginal(real, name)));
  }

  static BOOL WINAPI OnAllocateSid(SID_IDENTIFIER_AUTHORITY* authority, BYTE count, DWORD sub0,
                                   DWORD sub1, DWORD sub2, DWORD sub3, DWORD sub4, DWORD sub5,
                                   DWORD sub6, DWORD sub7, PSID* sid) {
    SecurityAttributeCalls& test = *s_test;
    test.journal.Call("AllocateAndInitializeSid");
    test.authority.assign(authority->Value, authority->Value + 6);
    test.subAuthorityCount = count;
    test.subAuthorities = {sub0, sub1, sub2, sub3, sub4, sub5, sub6, sub7};
    if (test.failing == "AllocateAndInitializeSid") {
      return FALSE;
    }
    const BOOL result = test.Real<decltype(AllocateAndInitializeSid)>("AllocateAndInitializeSid")(
        authority, count, sub0, sub1, sub2, sub3, sub4, sub5, sub6, sub7, sid);
    test.labels[*sid] = "sid";
    return result;
  }

  static DWORD WINAPI OnSetEntries(ULONG count, EXPLICIT_ACCESS_W* entries, PACL oldAcl,
                                   PACL* acl) {
    SecurityAttributeCalls& test = *s_test;
    test.journal.Call("SetEntriesInAclW");
    test.entryCount = count;
    test.entry = entries[0];
    test.oldAcl = oldAcl;
    if (test.failing == "SetEntriesInAclW") {
      return ERROR_NOT_ENOUGH_MEMORY;
    }
    const DWORD result =
        test.Real<decltype(SetEntriesInAclW)>("SetEntriesInAclW")(count, entries, oldAcl, acl);
    test.labels[*acl] = "acl";
    return result;
  }

  static BOOL WINAPI OnInitialize(PSECURITY_DESCRIPTOR descriptor, DWORD revision) {
    SecurityAttributeCalls& test = *s_test;
    test.journal.Call("InitializeSecurityDescriptor " + test.labels[descriptor] + " " +
                      std::to_string(revision));
    return test.failing != "InitializeSecurityDescriptor" &&
           test.Real<decltype(InitializeSecurityDescriptor)>("InitializeSecurityDescriptor")(
               descriptor, revision);
  }

  static BOOL WINAPI OnSetDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL acl,
                               BOOL defaulted) {
    SecurityAttributeCalls& test = *s_test;
    test.journal.Call("SetSecurityDescriptorDacl " + test.labels[descriptor] + " " +
                      std::to_string(present) + " " + test.labels[acl] + " " +
                      std::to_string(defaulted));
    return test.failing != "SetSecurityDescriptorDacl" &&
           test.Real<decltype(SetSecurityDescriptorDacl)>("SetSecurityDescriptorDacl")(
               descriptor, present, acl, defaulted);
  }

  static void* WINAPI OnFreeSid(PSID sid) {
    SecurityAttributeCalls& test = *s_test;
    test.journal.Call("FreeSid " + test.labels[sid]);
    return test.Real<decltype(FreeSid)>("FreeSid")(sid);
  }

  FARPROC OnGetProcAddress(HMODULE module, const std::string& name) {
    EXPECT_EQ(module, libraries.back());
    names.push_back(name);
    static const std::map<std::string, void*> kStandIns = {
        {"AllocateAndInitializeSid", reinterpret_cast<void*>(&OnAllocateSid)},
        {"SetEntriesInAclW", reinterpret_cast<void*>(&OnSetEntries)},
        {"InitializeSecurityDescriptor", reinterpret_cast<void*>(&OnInitialize)},
        {"SetSecurityDescriptorDacl", reinterpret_cast<void*>(&OnSetDacl)},
        {"FreeSid", reinterpret_cast<void*>(&OnFreeSid)}};
    const auto found = kStandIns.find(name);
    if (found == kStandIns.end() || name == missing) {
      SetLastError(ERROR_PROC_NOT_FOUND);
      return nullptr;
    }
    return reinterpret_cast<FARPROC>(found->second);
  }

  Journal journal;
  Attributes attributes;

  std::string failing;
  std::string missing;
  HMODULE real = nullptr;
  // The handles that LoadLibraryA gave, in order: no addresses of anything.
  std::vector<HMODULE> libraries;
  std::vector<std::string> names;
  std::map<void*, std::string> labels{{nullptr, "null"}};

  std::vector<int> authority;
  BYTE subAuthorityCount = 0;
  std::vector<DWORD> subAuthorities;
  ULONG entryCount = 0;
  EXPLICIT_ACCESS_W entry{};
  PACL oldAcl = nullptr;

 private:
  struct LoadTag;
  struct ProcTag;
  struct FreeTag;
  struct AllocTag;
  struct LocalFreeTag;

  CallPatch<LoadTag, HMODULE(const char*)> m_loadLibrary{
      "KERNEL32.dll", "LoadLibraryA", [this](const char* name) -> HMODULE {
        journal.Call(std::string("LoadLibraryA ") + name);
        if (failing == "LoadLibraryA") {
          SetLastError(ERROR_MOD_NOT_FOUND);
          return nullptr;
        }
        const auto number = ULONG_PTR{libraries.size()} + 1;
        libraries.push_back(reinterpret_cast<HMODULE>(number << 16));
        return libraries.back();
      }};
  CallPatch<ProcTag, FARPROC(HMODULE, const char*)> m_getProcAddress{
      "KERNEL32.dll", "GetProcAddress",
      [this](HMODULE module, const char* name) { return OnGetProcAddress(module, name); }};
  CallPatch<FreeTag, BOOL(HMODULE)> m_freeLibrary{
      "KERNEL32.dll", "FreeLibrary", [this](HMODULE module) -> BOOL {
        journal.Call("FreeLibrary " + std::to_string(reinterpret_cast<ULONG_PTR>(module) >> 16));
        return TRUE;
      }};
  CallPatch<AllocTag, HLOCAL(UINT, SIZE_T)> m_localAlloc{
      "KERNEL32.dll", "LocalAlloc", [this](UINT flags, SIZE_T size) -> HLOCAL {
        journal.Call("LocalAlloc " + std::to_string(flags) + " " + std::to_string(size));
        if (failing == "LocalAlloc") {
          return nullptr;
        }
        const HLOCAL memory = m_localAlloc.CallOriginal(flags, size);
        labels[memory] = "sd";
        return memory;
      }};
  CallPatch<LocalFreeTag, HLOCAL(HLOCAL)> m_localFree{"KERNEL32.dll", "LocalFree",
                                                      [this](HLOCAL memory) {
                                                        journal.Call("LocalFree " + labels[memory]);
                                                        return m_localFree.CallOriginal(memory);
                                                      }};
};

using CreateSecurityAttributeSteps = SecurityAttributeCalls;
using FreeSecurityAttributeSteps = SecurityAttributeCalls;

TEST_F(CreateSecurityAttributeSteps, RunInOrder) {
  EXPECT_EQ(attributes.Create(), TRUE);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kMakeAttributes.Info("Entry"), "LoadLibraryA advapi32.dll",
                          "AllocateAndInitializeSid", "SetEntriesInAclW", "LocalAlloc 64 40",
                          "InitializeSecurityDescriptor sd 1",
                          "SetSecurityDescriptorDacl sd 1 acl 0", kMakeAttributes.Info("Exit")));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kMakeAttributes.Info("Entry"), kMakeAttributes.Info("Exit")));
  EXPECT_THAT(names, ::testing::UnorderedElementsAre("AllocateAndInitializeSid", "SetEntriesInAclW",
                                                     "InitializeSecurityDescriptor",
                                                     "SetSecurityDescriptorDacl", "FreeSid"));
  attributes.Free();
}

TEST_F(CreateSecurityAttributeSteps, AskForTheWorldSidAndOneGrantingEntry) {
  ASSERT_EQ(attributes.Create(0x100002), TRUE);
  EXPECT_THAT(authority, ElementsAre(0, 0, 0, 0, 0, 1));
  EXPECT_EQ(subAuthorityCount, 1);
  EXPECT_THAT(subAuthorities, ElementsAre(0U, 0U, 0U, 0U, 0U, 0U, 0U, 0U));
  EXPECT_EQ(entryCount, 1U);
  EXPECT_EQ(oldAcl, nullptr);
  EXPECT_EQ(entry.grfAccessPermissions, 0x100002U);
  EXPECT_EQ(entry.grfAccessMode, 1);
  EXPECT_EQ(entry.grfInheritance, 3U);
  EXPECT_EQ(entry.Trustee.pMultipleTrustee, nullptr);
  EXPECT_EQ(entry.Trustee.MultipleTrusteeOperation, 0);
  EXPECT_EQ(entry.Trustee.TrusteeForm, 0);
  EXPECT_EQ(entry.Trustee.TrusteeType, 5);
  EXPECT_EQ(static_cast<void*>(entry.Trustee.ptstrName), attributes.sid);
  attributes.Free();
}

TEST_F(CreateSecurityAttributeSteps, ClearTheRecordAndEndWhenTheLibraryCannotBeLoaded) {
  failing = "LoadLibraryA";
  attributes.sa = {24, &attributes, TRUE};
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_THAT(journal.Calls(), ElementsAre("LoadLibraryA advapi32.dll"));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kMakeAttributes.Info("Entry"),
                          kMakeAttributes.Error("LoadLibrary Failed For : advapi32.dll(126)")));
  EXPECT_EQ(attributes.sa.nLength, 0U);
  EXPECT_EQ(attributes.sa.lpSecurityDescriptor, nullptr);
  EXPECT_FALSE(attributes.sa.bInheritHandle);
}

class MissingFunction : public SecurityAttributeCalls,
                        public ::testing::WithParamInterface<const char*> {};

TEST_P(MissingFunction, UnloadsTheLibraryAndFails) {
  missing = GetParam();
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kMakeAttributes.Info("Entry"), "LoadLibraryA advapi32.dll",
                          "FreeLibrary 1", kMakeAttributes.Error("get proc address Failed (127)")));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kMakeAttributes.Info("Entry"),
                          kMakeAttributes.Error("get proc address Failed (127)")));
  EXPECT_EQ(attributes.sa.nLength, 0U);
}

INSTANTIATE_TEST_SUITE_P(CreateSecurityAttribute, MissingFunction,
                         ::testing::Values("AllocateAndInitializeSid", "SetEntriesInAclW",
                                           "InitializeSecurityDescriptor",
                                           "SetSecurityDescriptorDacl", "FreeSid"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(CreateSecurityAttributeSteps, ReportTheErrorThatStandsBehindTheUnloadOfTheLibrary) {
  missing = "FreeSid";
  const CallPatch<struct FailingFreeTag, BOOL(HMODULE)> freeLibrary("KERNEL32.dll", "FreeLibrary",
                                                                    [](HMODULE) {
                                                                      SetLastError(4711);
                                                                      return FALSE;
                                                                    });
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_EQ(journal.Traces().back(), kMakeAttributes.Error("get proc address Failed (4711)"));
}

TEST_F(CreateSecurityAttributeSteps, UnloadTheLibraryWhenThereIsNoSid) {
  failing = "AllocateAndInitializeSid";
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kMakeAttributes.Info("Entry"), "LoadLibraryA advapi32.dll",
                          "AllocateAndInitializeSid", "FreeLibrary 1",
                          kMakeAttributes.Error("s_pfnAllocateAndInitializeSid() Failed")));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kMakeAttributes.Info("Entry"),
                          kMakeAttributes.Error("s_pfnAllocateAndInitializeSid() Failed")));
}

TEST_F(CreateSecurityAttributeSteps, FreeTheSidAndKeepTheLibraryWhenThereIsNoList) {
  failing = "SetEntriesInAclW";
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kMakeAttributes.Info("Entry"), "LoadLibraryA advapi32.dll",
                          "AllocateAndInitializeSid", "SetEntriesInAclW",
                          kMakeAttributes.Error("s_pfnSetEntriesInAcl() Failed"), "FreeSid sid"));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kMakeAttributes.Info("Entry"),
                          kMakeAttributes.Error("s_pfnSetEntriesInAcl() Failed")));
}

TEST_F(CreateSecurityAttributeSteps, FreeListAndSidAndKeepTheLibraryWhenThereIsNoMemory) {
  failing = "LocalAlloc";
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kMakeAttributes.Info("Entry"), "LoadLibraryA advapi32.dll",
                  "AllocateAndInitializeSid", "SetEntriesInAclW", "LocalAlloc 64 40",
                  "LocalFree acl", "FreeSid sid", kMakeAttributes.Error("LocalAlloc() Failed")));
  EXPECT_THAT(journal.Traces(), ElementsAre(kMakeAttributes.Info("Entry"),
                                            kMakeAttributes.Error("LocalAlloc() Failed")));
  EXPECT_EQ(attributes.sd, nullptr);
  EXPECT_NE(attributes.acl, nullptr);  // dangling, as the caller finds it
}

TEST_F(CreateSecurityAttributeSteps, FreeEverythingWhenTheDescriptorCannotBeInitialised) {
  failing = "InitializeSecurityDescriptor";
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kMakeAttributes.Info("Entry"), "LoadLibraryA advapi32.dll",
                          "AllocateAndInitializeSid", "SetEntriesInAclW", "LocalAlloc 64 40",
                          "InitializeSecurityDescriptor sd 1", "LocalFree sd", "LocalFree acl",
                          "FreeSid sid",
                          kMakeAttributes.Error("s_pfnInitializeSecurityDescriptor() Failed")));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kMakeAttributes.Info("Entry"),
                          kMakeAttributes.Error("s_pfnInitializeSecurityDescriptor() Failed")));
  EXPECT_NE(attributes.sd, nullptr);
  EXPECT_NE(attributes.acl, nullptr);
  EXPECT_EQ(attributes.sa.lpSecurityDescriptor, nullptr);
}

TEST_F(CreateSecurityAttributeSteps, FreeEverythingWhenTheListCannotBeSet) {
  failing = "SetSecurityDescriptorDacl";
  EXPECT_EQ(attributes.Create(), FALSE);
  EXPECT_THAT(
      journal.Entries(),
      ElementsAre(kMakeAttributes.Info("Entry"), "LoadLibraryA advapi32.dll",
                  "AllocateAndInitializeSid", "SetEntriesInAclW", "LocalAlloc 64 40",
                  "InitializeSecurityDescriptor sd 1", "SetSecurityDescriptorDacl sd 1 acl 0",
                  "LocalFree sd", "LocalFree acl", "FreeSid sid",
                  kMakeAttributes.Error("s_pfnSetSecurityDescriptorDacl() Failed")));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kMakeAttributes.Info("Entry"),
                          kMakeAttributes.Error("s_pfnSetSecurityDescriptorDacl() Failed")));
  EXPECT_EQ(attributes.sa.nLength, 0U);
  EXPECT_EQ(attributes.sa.lpSecurityDescriptor, nullptr);
}

TEST_F(FreeSecurityAttributeSteps, FreeSidListAndDescriptorThenUnload) {
  ASSERT_EQ(attributes.Create(), TRUE);
  journal.Clear();
  EXPECT_EQ(attributes.Free(), TRUE);
  EXPECT_THAT(journal.Calls(),
              ElementsAre("FreeSid sid", "LocalFree acl", "LocalFree sd", "FreeLibrary 1"));
  EXPECT_THAT(journal.Traces(), ElementsAre(kFreeAttributes.Info("Entry"),
                                            kFreeAttributes.Info("Before calling g_pfnFreeSid"),
                                            kFreeAttributes.Info("Before calling LocalFree"),
                                            kFreeAttributes.Info("Before calling LocalFree"),
                                            kFreeAttributes.Info("Exit")));
}

TEST_F(FreeSecurityAttributeSteps, LeaveTheRecordItselfAlone) {
  ASSERT_EQ(attributes.Create(), TRUE);
  EXPECT_EQ(attributes.Free(), TRUE);
  EXPECT_EQ(attributes.sa.nLength, 24U);
  EXPECT_EQ(attributes.sa.lpSecurityDescriptor, attributes.sd);
}

TEST_F(FreeSecurityAttributeSteps, WriteEachLineAheadOfItsCall) {
  ASSERT_EQ(attributes.Create(), TRUE);
  journal.Clear();
  attributes.Free();
  EXPECT_THAT(journal.Entries(),
              ElementsAre(kFreeAttributes.Info("Entry"),
                          kFreeAttributes.Info("Before calling g_pfnFreeSid"), "FreeSid sid",
                          kFreeAttributes.Info("Before calling LocalFree"), "LocalFree acl",
                          kFreeAttributes.Info("Before calling LocalFree"), "LocalFree sd",
                          "FreeLibrary 1", kFreeAttributes.Info("Exit")));
}

TEST_F(FreeSecurityAttributeSteps, FreeNothingForANullRecord) {
  PSID const sid = &attributes;
  EXPECT_EQ(FreeSecurityAttributeForEveryone(nullptr, sid, nullptr, nullptr), FALSE);
  EXPECT_THAT(journal.Calls(), IsEmpty());
  EXPECT_THAT(journal.Traces(), ElementsAre(kFreeAttributes.Info("Entry"),
                                            kFreeAttributes.Error("NULL Parameters Received")));
}

TEST_F(FreeSecurityAttributeSteps, WithAllThreePointersNullStillUnloadTheLibraryAndReturnTrue) {
  ASSERT_EQ(attributes.Create(), TRUE);
  const Attributes made = attributes;
  journal.Clear();
  attributes.sid = nullptr;
  attributes.acl = nullptr;
  attributes.sd = nullptr;
  EXPECT_EQ(attributes.Free(), TRUE);
  EXPECT_THAT(journal.Calls(), ElementsAre("FreeLibrary 1"));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kFreeAttributes.Info("Entry"), kFreeAttributes.Info("Exit")));
  attributes = made;
  attributes.Free();
}

TEST_F(FreeSecurityAttributeSteps, ForgetTheLibrary) {
  ASSERT_EQ(attributes.Create(), TRUE);
  attributes.Free();
  FreeSecurityAttributeForEveryone(&attributes.sa, nullptr, nullptr, nullptr);
  EXPECT_EQ(journal.Calls().back(), "FreeLibrary 0");
}

TEST_F(CreateSecurityAttributeSteps, TwiceWithoutAFreeLoadTheLibraryTwiceAndKeepOnlyTheLastHandle) {
  ASSERT_EQ(attributes.Create(), TRUE);
  Attributes second;
  ASSERT_EQ(second.Create(), TRUE);
  ASSERT_EQ(libraries.size(), 2U);
  attributes.Free();
  second.Free();
  std::vector<std::string> frees;
  for (const std::string& call : journal.Calls()) {
    if (call.starts_with("FreeLibrary")) {
      frees.push_back(call);
    }
  }
  EXPECT_THAT(frees, ElementsAre("FreeLibrary 2", "FreeLibrary 0"));
}

}  // namespace
