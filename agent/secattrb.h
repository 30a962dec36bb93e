// Security attributes that let everyone use a kernel object; the agent service gives them to its
// two events. Not thread-safe: the library that serves both functions is kept process-wide.
#pragma once

#include "support/windows_api.h"

// Fills `sa` with attributes that grant `accessMask` to the world group. On TRUE the caller owns
// `*sid`, `*acl` and `*sd`, which `sa` refers to, and gives them to
// FreeSecurityAttributeForEveryone.
BOOL CreateSecurityAttributeForEveryone(SECURITY_ATTRIBUTES* sa, PSID* sid, PACL* acl,
                                        PSECURITY_DESCRIPTOR* sd, DWORD accessMask);

// Frees what is not null of the last three and lets go of the library. `*sa` is not cleared. FALSE
// for a null `sa`.
BOOL FreeSecurityAttributeForEveryone(SECURITY_ATTRIBUTES* sa, PSID sid, PACL acl,
                                      PSECURITY_DESCRIPTOR sd);
