// How a service is made known to Windows: to the service control manager and as a source of the
// event log. For CNTService and for the control of services by name; writes no trace lines.
#pragma once

#include "support/handle.h"
#include "support/windows_api.h"

// The path of a program in its two quotes.
constexpr unsigned kCommandPathSize = 260 + 2;

// A service's name in wide characters. It has no more of them than it has bytes.
constexpr unsigned kWideServiceNameSize = 260;

// The service control manager of this computer with all rights; none, with the last error set, when
// it cannot be opened.
ServiceHandle OpenManager();

// The path of this program as the command of a service. False when it has more than 259 characters
// or cannot be had.
bool GetCommandPath(wchar_t (&commandPath)[kCommandPathSize]);

// Registers a service in a process of its own that starts with the computer; none, with the last
// error set, when that fails.
ServiceHandle CreateOwnService(SC_HANDLE manager, const char* serviceName,
                               const wchar_t* commandPath);

// Makes the service a source of the event log whose texts are in the program. False when its key
// cannot be made, with the thread's last error as the registry has left it.
bool AddEventLogSource(const char* serviceName, const wchar_t* commandPath);
