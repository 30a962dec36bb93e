// The report of everything, for a browser.
#pragma once

#include <string>

#include "tools/vorldiag/report/snapshot.h"

// The report as one self-contained page: status, identity, the last starts and stops as a time
// line, error lines with their explanation, settings.
std::string ReportPage(const Snapshot& snapshot);
