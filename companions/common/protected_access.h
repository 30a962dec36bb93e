// Access rights of what the libraries make: for administrators and the system only.
#pragma once

#include "support/windows_api.h"

// For new files and folders: full access for the system and the administrators, for nobody else,
// and nothing inherited. Whatever is made in a folder later inherits the same.
enum class ProtectedObject { kFile, kFolder };

// Points to constant memory. Not made from a text, for what converts texts may ask the loader,
// which a library that is used from DllMain must not.
SECURITY_ATTRIBUTES ProtectedAccess(ProtectedObject object) noexcept;
