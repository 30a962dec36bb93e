// Reports as text, for people.
#pragma once

#include "tools/vorldiag/report/findings.h"
#include "tools/vorldiag/text/output.h"

// Writes a report for people: one line for each finding, its verdict in front, and below what is
// not ok what to do about it. False when the output cannot be written.
bool PrintReport(const Report& report, Output& output);
