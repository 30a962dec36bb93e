// The rights that the package sets, and the question who could change a folder until now.
#pragma once

#include <string>

#include "support/handle.h"
#include "support/windows_api.h"

// Program folder: everybody runs the programs, administrators and the system alone change them.
constexpr wchar_t kProgramFolderRights[] =
    L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

// Configuration, trace and pending updates: administrators and the system alone.
constexpr wchar_t kClosedFolderRights[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

// The registry key that says where everything lies: the same.
constexpr wchar_t kClosedKeyRights[] = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)";

// What Windows gives a new service, without the right of interactive users and other services to
// send user controls (CR): control 140 stops the agent and reports an administrator's act.
constexpr wchar_t kServiceRights[] =
    L"D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
    L"(A;;CCLCSWLORC;;;IU)(A;;CCLCSWLORC;;;SU)";

// The security descriptor that `text` describes, or none with the last error set.
LocalMemory MakeDescriptor(const wchar_t* text) noexcept;

// Gives the folder or registry key these rights, in place of all others, and hands them down to
// what lies in it. A folder also becomes the administrators' own. 0 or the error.
DWORD SetFolderRights(const std::wstring& folder, const wchar_t* rights) noexcept;
DWORD SetKeyRights(const wchar_t* keyBelowMachine, const wchar_t* rights) noexcept;

// Whether everybody, all users or all who are signed in have one of these rights to the folder;
// also true when that cannot be read. Rights that only what lies in the folder inherits do not
// count.
bool MayOrdinaryUsers(ACCESS_MASK rights, const std::wstring& folder) noexcept;

// Whether the folder belongs to the administrators, the system, Windows' own installer or the
// account that this process runs as.
bool IsOwnedByAdministrators(const std::wstring& folder) noexcept;
