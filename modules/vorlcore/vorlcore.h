// This product's own core module (the contract is support/vorlcore.h). It reports every option
// through the trace and then writes a heartbeat line at every `dword1` milliseconds (0: every
// minute) from a thread of its own until it is cleaned up.
#pragma once

#include "support/vorlcore.h"

extern "C" {

// FALSE when a text is missing, when the core is already started or when its thread cannot be
// started. The module can then be unloaded, unless the core was started before.
ClientAgentCoreStartUpFn ClientAgentCoreStartUp;

// When it returns, no code of the module runs any more and it can be unloaded. FALSE when the core
// is not started.
ClientAgentCoreCleanUpFn ClientAgentCoreCleanUp;
}
