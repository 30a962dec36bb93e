// The tool's commands, as they are given on the command line.
#pragma once

#include <string>
#include <vector>

#include "tools/vorldiag/text/output.h"

// Runs the command. `arguments`: UTF-8, without the program's name. Returns the exit code, which is
// documented in docs/vorldiag.md; throws nothing. A thread that still waits for WMI may be left
// behind: the process must end without waiting for it.
int RunCommandLine(const std::vector<std::string>& arguments, Output& output, Output& errors);
