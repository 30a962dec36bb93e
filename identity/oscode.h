// The product's code of the running operating system. Kept for the product's other modules, which
// link this library; no program of this repository asks for it.
#pragma once

#include <cstdint>

// Returns the code of the running system, 50001 to 50049, or 0 when it has none.
std::uint32_t GetOSCode();
