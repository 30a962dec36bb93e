#include "companions/common/protected_folder.h"

// Reads the types of windows.h.
#include <sddl.h>

#include "companions/common/folders.h"

namespace {

// Full access for the system and the administrators, for what will lie inside as well.
constexpr wchar_t kAccess[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

}  // namespace

DWORD MakeProtectedFolder(const wchar_t* path) noexcept {
  SECURITY_ATTRIBUTES access{sizeof access, nullptr, FALSE};
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(
          kAccess, SDDL_REVISION_1, &access.lpSecurityDescriptor, nullptr)) {
    return GetLastError();
  }
  // The attempt itself says whether the folder was missing: another process may make it meanwhile.
  const DWORD error = CreateDirectoryW(path, &access) ? DWORD{ERROR_SUCCESS} : GetLastError();
  LocalFree(access.lpSecurityDescriptor);
  return error == ERROR_SUCCESS || IsFolder(path) ? DWORD{ERROR_SUCCESS} : error;
}
