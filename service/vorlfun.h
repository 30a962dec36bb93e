// Starts and stops a service by its name and sets its recovery actions, for the command line. A
// failed call of Windows writes one trace line, two when the status cannot be read while a stop is
// pending; a service that ends in another state than the wanted one writes a line only when it was
// to stop. All handles are closed on every path.
#pragma once

#include "support/windows_api.h"

// Starts the service and waits while its start is pending and makes progress. False also when it
// runs already, and, without a line, when it is not running after the wait.
BOOL StartServiceByName(const char* serviceName);

// Sends SERVICE_CONTROL_STOP and waits, without a limit, while the stop is pending. False also when
// the service does not run.
BOOL StopServiceByName(const char* serviceName);

// As StopServiceByName with SERVICE_CONTROL_USER_STOP, which also notifies the server.
BOOL StopServiceByNameEx(const char* serviceName);

// Sets what the service control manager does at the first, second and every further failure within
// an hour. SC_ACTION_RUN_COMMAND runs `commandPath` with "-reset", 259 characters together at the
// most. All failures write the same line.
bool ConfigureServiceRecoveryOptionsW(SC_HANDLE service, const wchar_t* commandPath,
                                      SC_ACTION_TYPE action1, SC_ACTION_TYPE action2,
                                      SC_ACTION_TYPE action3);
