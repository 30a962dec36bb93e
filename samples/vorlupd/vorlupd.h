// What the service expects of an update module.
#pragma once

#include "support/windows_api.h"

extern "C" {

// Applies what lies in the folder "pending" below the folder of this module: every file there, in
// sub-folders too, takes the place of the file of the same relative path in the installation, or
// is added. All or nothing: when one file cannot be put in place, or when the process dies
// half-way, the installation gets back what it had (in the latter case at the next call) and the
// files stay pending. Returns a byte-sized boolean: nonzero when nothing is pending or everything
// was applied.
BOOLEAN UpdateBeforeClientService();
}
