// Start, stop and recovery configuration of a service by name. Every failure writes one trace line;
// all handles are closed on every path.
#pragma once

#include "support/windows_api.h"

// Starts the service and waits while its start is pending. False also when it runs already.
BOOL StartServiceByName(const char* serviceName);

// Sends SERVICE_CONTROL_STOP and waits, without a limit, while the stop is pending. False also when
// the service does not run.
BOOL StopServiceByName(const char* serviceName);

// As StopServiceByName with SERVICE_CONTROL_USER_STOP, which also notifies the server.
BOOL StopServiceByNameEx(const char* serviceName);

// Sets what the service control manager does at the first, second and every further failure within
// an hour. SC_ACTION_RUN_COMMAND runs `commandPath` with "-reset".
bool ConfigureServiceRecoveryOptionsW(SC_HANDLE service, const wchar_t* commandPath,
                                      SC_ACTION_TYPE action1, SC_ACTION_TYPE action2,
                                      SC_ACTION_TYPE action3);
