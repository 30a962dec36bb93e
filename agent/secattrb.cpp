#include "agent/secattrb.h"

#include <aclapi.h>

#include "support/procaddress.h"
#include "support/trace.h"

namespace {

constexpr Trace createTrace{"CreateSecurityAttributeForEveryone"};

constexpr char kLibraryName[] = "advapi32.dll";

using AllocateAndInitializeSidFn = decltype(AllocateAndInitializeSid);
using SetEntriesInAclFn = decltype(SetEntriesInAclW);
using InitializeSecurityDescriptorFn = decltype(InitializeSecurityDescriptor);
using SetSecurityDescriptorDaclFn = decltype(SetSecurityDescriptorDacl);
using FreeSidFn = decltype(FreeSid);

HMODULE g_hAdvapi32 = nullptr;
FreeSidFn* g_pfnFreeSid = nullptr;

EXPLICIT_ACCESS_W EntryForEveryone(DWORD accessMask, PSID sid) {
  EXPLICIT_ACCESS_W entry{};
  entry.grfAccessPermissions = accessMask;
  entry.grfAccessMode = GRANT_ACCESS;
  entry.grfInheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT;
  entry.Trustee.pMultipleTrustee = nullptr;
  entry.Trustee.MultipleTrusteeOperation = NO_MULTIPLE_TRUSTEE;
  entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
  entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
  entry.Trustee.ptstrName = static_cast<LPWSTR>(sid);
  return entry;
}

void FreeDescriptorAclAndSid(PSECURITY_DESCRIPTOR sd, PACL acl, PSID sid) {
  LocalFree(sd);
  LocalFree(acl);
  g_pfnFreeSid(sid);
}

// The functions that are looked up anew each time; FreeSid is kept process-wide.
struct Functions {
  AllocateAndInitializeSidFn* s_pfnAllocateAndInitializeSid;
  SetEntriesInAclFn* s_pfnSetEntriesInAcl;
  InitializeSecurityDescriptorFn* s_pfnInitializeSecurityDescriptor;
  SetSecurityDescriptorDaclFn* s_pfnSetSecurityDescriptorDacl;
};

// Each step of the creation gives false after its trace line, with everything freed that this and
// the earlier steps have made.

bool LoadFunctions(Functions& functions) {
  g_hAdvapi32 = LoadLibraryA(kLibraryName);
  if (g_hAdvapi32 == nullptr) {
    createTrace.Error("LoadLibrary Failed For : %s(%u)", kLibraryName, GetLastError());
    return false;
  }
  functions = {
      ProcAddress<AllocateAndInitializeSidFn>(g_hAdvapi32, "AllocateAndInitializeSid"),
      ProcAddress<SetEntriesInAclFn>(g_hAdvapi32, "SetEntriesInAclW"),
      ProcAddress<InitializeSecurityDescriptorFn>(g_hAdvapi32, "InitializeSecurityDescriptor"),
      ProcAddress<SetSecurityDescriptorDaclFn>(g_hAdvapi32, "SetSecurityDescriptorDacl")};
  g_pfnFreeSid = ProcAddress<FreeSidFn>(g_hAdvapi32, "FreeSid");
  if (functions.s_pfnAllocateAndInitializeSid == nullptr ||
      functions.s_pfnSetEntriesInAcl == nullptr ||
      functions.s_pfnInitializeSecurityDescriptor == nullptr ||
      functions.s_pfnSetSecurityDescriptorDacl == nullptr || g_pfnFreeSid == nullptr) {
    FreeLibrary(g_hAdvapi32);
    createTrace.Error("get proc address Failed (%u)", GetLastError());
    return false;
  }
  return true;
}

bool MakeWorldSid(const Functions& functions, PSID* sid) {
  SID_IDENTIFIER_AUTHORITY worldAuthority = {SECURITY_WORLD_SID_AUTHORITY};
  if (!functions.s_pfnAllocateAndInitializeSid(&worldAuthority, /*nSubAuthorityCount=*/1,
                                               SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, sid)) {
    FreeLibrary(g_hAdvapi32);
    createTrace.Error("s_pfnAllocateAndInitializeSid() Failed");
    return false;
  }
  return true;
}

bool MakeAcl(const Functions& functions, DWORD accessMask, PSID sid, PACL* acl) {
  EXPLICIT_ACCESS_W entry = EntryForEveryone(accessMask, sid);
  if (functions.s_pfnSetEntriesInAcl(/*cCountOfExplicitEntries=*/1, &entry, /*OldAcl=*/nullptr,
                                     acl) != ERROR_SUCCESS) {
    createTrace.Error("s_pfnSetEntriesInAcl() Failed");
    g_pfnFreeSid(sid);
    return false;
  }
  return true;
}

// After a failure `*sd` still holds the address of freed memory. The caller uses nothing that a
// failed call has left.
bool MakeDescriptor(const Functions& functions, PSID sid, PACL acl, PSECURITY_DESCRIPTOR* sd) {
  *sd = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
  if (*sd == nullptr) {
    LocalFree(acl);
    g_pfnFreeSid(sid);
    createTrace.Error("LocalAlloc() Failed");
    return false;
  }
  if (!functions.s_pfnInitializeSecurityDescriptor(*sd, SECURITY_DESCRIPTOR_REVISION)) {
    FreeDescriptorAclAndSid(*sd, acl, sid);
    createTrace.Error("s_pfnInitializeSecurityDescriptor() Failed");
    return false;
  }
  if (!functions.s_pfnSetSecurityDescriptorDacl(*sd, /*bDaclPresent=*/TRUE, acl,
                                                /*bDaclDefaulted=*/FALSE)) {
    FreeDescriptorAclAndSid(*sd, acl, sid);
    createTrace.Error("s_pfnSetSecurityDescriptorDacl() Failed");
    return false;
  }
  return true;
}

}  // namespace

BOOL CreateSecurityAttributeForEveryone(SECURITY_ATTRIBUTES* sa, PSID* sid, PACL* acl,
                                        PSECURITY_DESCRIPTOR* sd, DWORD accessMask) {
  createTrace.Info("Entry");
  if (sa == nullptr) {
    createTrace.Error("NULL Parameters Received");
    return FALSE;
  }
  *sa = {};

  Functions functions;
  if (!LoadFunctions(functions) || !MakeWorldSid(functions, sid)) {
    return FALSE;
  }
  // From here on a failure leaves the library loaded: FreeSid is still to be called.
  if (!MakeAcl(functions, accessMask, *sid, acl) || !MakeDescriptor(functions, *sid, *acl, sd)) {
    return FALSE;
  }
  *sa = {.nLength = sizeof(*sa), .lpSecurityDescriptor = *sd, .bInheritHandle = FALSE};
  createTrace.Info("Exit");
  return TRUE;
}

BOOL FreeSecurityAttributeForEveryone(SECURITY_ATTRIBUTES* sa, PSID sid, PACL acl,
                                      PSECURITY_DESCRIPTOR sd) {
  constexpr Trace trace{"FreeSecurityAttributeForEveryone"};
  trace.Info("Entry");
  if (sa == nullptr) {
    trace.Error("NULL Parameters Received");
    return FALSE;
  }
  if (sid != nullptr) {
    trace.Info("Before calling g_pfnFreeSid");
    g_pfnFreeSid(sid);
  }
  if (acl != nullptr) {
    trace.Info("Before calling LocalFree");
    LocalFree(acl);
  }
  if (sd != nullptr) {
    trace.Info("Before calling LocalFree");
    LocalFree(sd);
  }
  FreeLibrary(g_hAdvapi32);
  g_hAdvapi32 = nullptr;
  trace.Info("Exit");
  return TRUE;
}

static_assert(SECURITY_DESCRIPTOR_MIN_LENGTH == 40);
static_assert(sizeof(SECURITY_ATTRIBUTES) == 24);
