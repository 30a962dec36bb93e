#include "agent/secattrb.h"

#include <aclapi.h>

#include "support/procaddress.h"
#include "support/trace.h"

namespace {

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

}  // namespace

BOOL CreateSecurityAttributeForEveryone(SECURITY_ATTRIBUTES* sa, PSID* sid, PACL* acl,
                                        PSECURITY_DESCRIPTOR* sd, DWORD accessMask) {
  constexpr Trace trace{"CreateSecurityAttributeForEveryone"};
  trace.Info("Entry");
  if (sa == nullptr) {
    trace.Error("NULL Parameters Received");
    return FALSE;
  }
  *sa = {};

  g_hAdvapi32 = LoadLibraryA(kLibraryName);
  if (g_hAdvapi32 == nullptr) {
    trace.Error("LoadLibrary Failed For : %s(%u)", kLibraryName, GetLastError());
    return FALSE;
  }

  auto* const s_pfnAllocateAndInitializeSid =
      ProcAddress<AllocateAndInitializeSidFn>(g_hAdvapi32, "AllocateAndInitializeSid");
  auto* const s_pfnSetEntriesInAcl =
      ProcAddress<SetEntriesInAclFn>(g_hAdvapi32, "SetEntriesInAclW");
  auto* const s_pfnInitializeSecurityDescriptor =
      ProcAddress<InitializeSecurityDescriptorFn>(g_hAdvapi32, "InitializeSecurityDescriptor");
  auto* const s_pfnSetSecurityDescriptorDacl =
      ProcAddress<SetSecurityDescriptorDaclFn>(g_hAdvapi32, "SetSecurityDescriptorDacl");
  g_pfnFreeSid = ProcAddress<FreeSidFn>(g_hAdvapi32, "FreeSid");
  if (s_pfnAllocateAndInitializeSid == nullptr || s_pfnSetEntriesInAcl == nullptr ||
      s_pfnInitializeSecurityDescriptor == nullptr || s_pfnSetSecurityDescriptorDacl == nullptr ||
      g_pfnFreeSid == nullptr) {
    FreeLibrary(g_hAdvapi32);
    trace.Error("get proc address Failed (%u)", GetLastError());
    return FALSE;
  }

  SID_IDENTIFIER_AUTHORITY worldAuthority = {SECURITY_WORLD_SID_AUTHORITY};
  if (!s_pfnAllocateAndInitializeSid(&worldAuthority, /*nSubAuthorityCount=*/1, SECURITY_WORLD_RID,
                                     0, 0, 0, 0, 0, 0, 0, sid)) {
    FreeLibrary(g_hAdvapi32);
    trace.Error("s_pfnAllocateAndInitializeSid() Failed");
    return FALSE;
  }

  // From here on a failure leaves the library loaded.
  EXPLICIT_ACCESS_W entry = EntryForEveryone(accessMask, *sid);
  if (s_pfnSetEntriesInAcl(/*cCountOfExplicitEntries=*/1, &entry, /*OldAcl=*/nullptr, acl) !=
      ERROR_SUCCESS) {
    trace.Error("s_pfnSetEntriesInAcl() Failed");
    g_pfnFreeSid(*sid);
    return FALSE;
  }
  *sd = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
  if (*sd == nullptr) {
    LocalFree(*acl);
    g_pfnFreeSid(*sid);
    trace.Error("LocalAlloc() Failed");
    return FALSE;
  }
  if (!s_pfnInitializeSecurityDescriptor(*sd, SECURITY_DESCRIPTOR_REVISION)) {
    FreeDescriptorAclAndSid(*sd, *acl, *sid);
    trace.Error("s_pfnInitializeSecurityDescriptor() Failed");
    return FALSE;
  }
  if (!s_pfnSetSecurityDescriptorDacl(*sd, /*bDaclPresent=*/TRUE, *acl, /*bDaclDefaulted=*/FALSE)) {
    FreeDescriptorAclAndSid(*sd, *acl, *sid);
    trace.Error("s_pfnSetSecurityDescriptorDacl() Failed");
    return FALSE;
  }

  sa->nLength = sizeof(*sa);
  sa->lpSecurityDescriptor = *sd;
  sa->bInheritHandle = FALSE;
  trace.Info("Exit");
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
