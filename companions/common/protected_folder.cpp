#include "companions/common/protected_folder.h"

#include "companions/common/protected_access.h"
#include "support/folder.h"

DWORD MakeProtectedFolder(const wchar_t* path) noexcept {
  SECURITY_ATTRIBUTES access = ProtectedAccess(ProtectedObject::kFolder);
  // The attempt itself says whether the folder was missing: another process may make it meanwhile.
  const DWORD error = CreateDirectoryW(path, &access) ? DWORD{ERROR_SUCCESS} : GetLastError();
  return error == ERROR_SUCCESS || IsFolder(path) ? DWORD{ERROR_SUCCESS} : error;
}
