// Keeps the trace lines that the product's own units write in this program. They do not reach the
// trace, into which this program never writes; they say why something failed.
#pragma once

#include <string>
#include <vector>

// Takes what has been written since the last call: "function: text", oldest first, in UTF-8.
std::vector<std::string> TakeWrittenLines();
