#pragma once

// Prints how this version's service is registered, its recovery actions, its event-log source and
// its state. False when it is not registered or cannot be read; the reason is printed.
bool ReportService();
