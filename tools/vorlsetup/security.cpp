#include "tools/vorlsetup/security.h"

#include <aclapi.h>
#include <sddl.h>

#include <vector>

namespace {

// Windows' own installer (TrustedInstaller), to whom system folders belong.
constexpr wchar_t kTrustedInstaller[] =
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

bool IsWellKnown(PSID sid, WELL_KNOWN_SID_TYPE type) noexcept {
  return IsWellKnownSid(sid, type) != FALSE;
}

bool IsEverybody(PSID sid) noexcept {
  // The number of the domain's or the machine's "users" group at the end of an identifier.
  constexpr DWORD kDomainUsers = 513;
  const bool isDomainUsers =
      IsValidSid(sid) && *GetSidSubAuthorityCount(sid) == 5 &&
      *GetSidSubAuthority(sid, 0) == SECURITY_NT_NON_UNIQUE &&
      *GetSidSubAuthority(sid, static_cast<DWORD>(*GetSidSubAuthorityCount(sid)) - 1) ==
          kDomainUsers;
  return isDomainUsers || IsWellKnown(sid, WinWorldSid) ||
         IsWellKnown(sid, WinAuthenticatedUserSid) || IsWellKnown(sid, WinBuiltinUsersSid) ||
         IsWellKnown(sid, WinInteractiveSid) || IsWellKnown(sid, WinAnonymousSid) ||
         IsWellKnown(sid, WinBuiltinGuestsSid) || IsWellKnown(sid, WinNetworkSid);
}

bool IsSidOf(PSID sid, const wchar_t* text) noexcept {
  PSID other = nullptr;
  if (!ConvertStringSidToSidW(text, &other)) {
    return false;
  }
  const LocalMemory owner(other);
  return EqualSid(sid, other) != FALSE;
}

bool IsOwnAccount(PSID sid) {
  KernelHandle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive())) {
    return false;
  }
  DWORD size = 0;
  GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &size);
  std::vector<BYTE> user(size);
  return GetTokenInformation(token.Get(), TokenUser, user.data(), size, &size) &&
         EqualSid(sid, reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid);
}

// The DACL and owner inside `descriptor`, which `keeper` keeps. 0 or the error.
DWORD ReadSecurity(const std::wstring& folder, LocalMemory& keeper, PSID* owner,
                   PACL* dacl) noexcept {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetNamedSecurityInfoW(const_cast<wchar_t*>(folder.c_str()), SE_FILE_OBJECT,
                                            OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                            owner, nullptr, dacl, nullptr, &descriptor);
  keeper.Reset(descriptor);
  return error;
}

DWORD SetNamedRights(const std::wstring& name, SE_OBJECT_TYPE type,
                     const wchar_t* rights) noexcept {
  const LocalMemory descriptor = MakeDescriptor(rights);
  PACL dacl = nullptr;
  BOOL isPresent = FALSE;
  BOOL isDefaulted = FALSE;
  if (!descriptor ||
      !GetSecurityDescriptorDacl(descriptor.Get(), &isPresent, &dacl, &isDefaulted)) {
    return GetLastError();
  }
  return SetNamedSecurityInfoW(const_cast<wchar_t*>(name.c_str()), type,
                               DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                               /*psidOwner=*/nullptr, /*psidGroup=*/nullptr, dacl,
                               /*pSacl=*/nullptr);
}

}  // namespace

LocalMemory MakeDescriptor(const wchar_t* text) noexcept {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor,
                                                            nullptr)) {
    return {};
  }
  return LocalMemory(descriptor);
}

DWORD SetFolderRights(const std::wstring& folder, const wchar_t* rights) noexcept {
  // An owner may always change the rights again: a user who made the folder must not stay its
  // owner.
  if (!IsOwnedByAdministrators(folder)) {
    const LocalMemory administrators = MakeDescriptor(L"O:BA");
    PSID owner = nullptr;
    BOOL isDefaulted = FALSE;
    if (!administrators ||
        !GetSecurityDescriptorOwner(administrators.Get(), &owner, &isDefaulted)) {
      return GetLastError();
    }
    const DWORD error = SetNamedSecurityInfoW(
        const_cast<wchar_t*>(folder.c_str()), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, owner,
        /*psidGroup=*/nullptr, /*pDacl=*/nullptr, /*pSacl=*/nullptr);
    if (error != ERROR_SUCCESS) {
      return error;
    }
  }
  return SetNamedRights(folder, SE_FILE_OBJECT, rights);
}

DWORD SetKeyRights(const wchar_t* keyBelowMachine, const wchar_t* rights) noexcept {
  return SetNamedRights(std::wstring(L"MACHINE\\") + keyBelowMachine, SE_REGISTRY_KEY, rights);
}

bool MayOrdinaryUsers(ACCESS_MASK rights, const std::wstring& folder) noexcept {
  LocalMemory keeper;
  PSID owner = nullptr;
  PACL dacl = nullptr;
  if (ReadSecurity(folder, keeper, &owner, &dacl) != ERROR_SUCCESS || dacl == nullptr) {
    return true;  // without a list everybody may do everything
  }
  for (DWORD index = 0; index < dacl->AceCount; ++index) {
    void* entry = nullptr;
    if (!GetAce(dacl, index, &entry)) {
      return true;
    }
    const auto* const header = static_cast<const ACE_HEADER*>(entry);
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE || (header->AceFlags & INHERIT_ONLY_ACE) != 0) {
      continue;  // what is denied only makes it safer
    }
    auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    if ((allowed->Mask & (rights | GENERIC_ALL)) != 0 && IsEverybody(&allowed->SidStart)) {
      return true;
    }
  }
  return false;
}

bool IsOwnedByAdministrators(const std::wstring& folder) noexcept {
  LocalMemory keeper;
  PSID owner = nullptr;
  PACL dacl = nullptr;
  return ReadSecurity(folder, keeper, &owner, &dacl) == ERROR_SUCCESS && owner != nullptr &&
         (IsWellKnown(owner, WinBuiltinAdministratorsSid) ||
          IsWellKnown(owner, WinLocalSystemSid) || IsSidOf(owner, kTrustedInstaller) ||
          IsOwnAccount(owner));
}
