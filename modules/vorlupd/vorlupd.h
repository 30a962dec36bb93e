// An update module that puts files in place.
#pragma once

#include "support/vorlupd.h"

extern "C" {

// Applies what lies in the folder "pending" below the folder of this module: every file there, in
// sub-folders too, takes the place of the file of the same relative path in the installation, or
// is added. All or nothing: when one file cannot be put in place, or when the process dies
// half-way, the installation gets back what it had (in the latter case at the next call) and the
// files stay pending. Success when nothing is pending or everything was applied.
UpdateBeforeClientServiceFn UpdateBeforeClientService;
}
