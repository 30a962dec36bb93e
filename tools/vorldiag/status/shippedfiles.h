// The binaries as they were built.
#pragma once

#include <string>

// The SHA-256 of the binary that was built together with this tool; empty for a name that was not.
std::string ShippedSha256(const std::string& name);
