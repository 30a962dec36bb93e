// The closure watcher: the thread that waits until the service is to end, and the names of the two
// events that tell it so.
#pragma once

// The close event ends the service from inside, on a stop or a failed start; the exit event ends it
// from another module of the product. Base names, which each product version turns into its own.
constexpr char kCloseEventBaseName[] = "AcClientAgentSrvcCloseFromServicef";
constexpr char kExitEventBaseName[] = "AcClientAgentSrvcExitFromOuterModuleEvent";

// The buffers that hold an event's name, in bytes.
constexpr unsigned kEventNameSize = 500;

// Thread procedure of the closure watcher; `argument` is the CAcAsSvc. Ends when the close event or
// the exit event is signalled, or when one of them cannot be had. Always returns 0.
unsigned __stdcall WaitForServiceClosure(void* argument);
