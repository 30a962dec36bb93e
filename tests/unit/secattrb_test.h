// What the tests of the security attributes share.
#pragma once

#include "agent/secattrb.h"
#include "support/windows_api.h"

inline constexpr DWORD kEventAllAccess = 0x1F0003;

// What a call to create hands out, and how it is freed without the product.
struct Attributes {
  SECURITY_ATTRIBUTES sa{};
  PSID sid = nullptr;
  PACL acl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;

  BOOL Create(DWORD mask = kEventAllAccess) {
    return CreateSecurityAttributeForEveryone(&sa, &sid, &acl, &sd, mask);
  }
  BOOL Free() { return FreeSecurityAttributeForEveryone(&sa, sid, acl, sd); }
};
