// The product's own units write trace lines. Here they do not reach the trace, into which this
// program never writes: they are kept, for whoever wants to say why something failed.
#pragma once

#include <string>
#include <vector>

// Takes what has been written since the last call: "function: text", oldest first, in UTF-8.
std::vector<std::string> TakeWrittenLines();
