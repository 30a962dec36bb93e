#include "companions/common/protected_access.h"

#include <cstddef>

namespace {

// An entry that allows something to S-1-5-..., in the layout of ACCESS_ALLOWED_ACE.
template <std::size_t SubAuthorities>
struct AllowedEntry {
  ACE_HEADER header;
  ACCESS_MASK access;
  BYTE revision;
  BYTE subAuthorityCount;
  BYTE authority[6];
  DWORD subAuthority[SubAuthorities];
};

struct Descriptor {
  SECURITY_DESCRIPTOR_RELATIVE header;
  ACL list;
  AllowedEntry<1> system;
  AllowedEntry<2> administrators;
};
static_assert(offsetof(Descriptor, list) == 20 && offsetof(Descriptor, system) == 28 &&
              offsetof(Descriptor, administrators) == 48 && sizeof(Descriptor) == 72);

constexpr Descriptor MakeDescriptor(BYTE inheritance) noexcept {
  constexpr WORD kListSize = sizeof(Descriptor) - offsetof(Descriptor, list);
  return {{SECURITY_DESCRIPTOR_REVISION, 0, SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_DACL_PROTECTED,
           0, 0, 0, offsetof(Descriptor, list)},
          {ACL_REVISION, 0, kListSize, 2, 0},
          {{ACCESS_ALLOWED_ACE_TYPE, inheritance, sizeof(AllowedEntry<1>)},
           FILE_ALL_ACCESS,
           SID_REVISION,
           1,
           SECURITY_NT_AUTHORITY,
           {SECURITY_LOCAL_SYSTEM_RID}},
          {{ACCESS_ALLOWED_ACE_TYPE, inheritance, sizeof(AllowedEntry<2>)},
           FILE_ALL_ACCESS,
           SID_REVISION,
           2,
           SECURITY_NT_AUTHORITY,
           {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS}}};
}

// Windows takes them by pointers to what is not constant, and only reads them.
constinit Descriptor g_forFiles = MakeDescriptor(0);
constinit Descriptor g_forFolders = MakeDescriptor(OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);

}  // namespace

SECURITY_ATTRIBUTES ProtectedAccess(ProtectedObject object) noexcept {
  return {sizeof(SECURITY_ATTRIBUTES),
          object == ProtectedObject::kFolder ? &g_forFolders : &g_forFiles, FALSE};
}
