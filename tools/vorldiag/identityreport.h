#pragma once

// Collects the machine's hardware parameters as the service does and prints them, the text that is
// hashed and the identifier. False when there is no identifier; the reason is in the trace.
bool ReportIdentity();
