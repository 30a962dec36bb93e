// The names that belong to the codes of operating systems. Kept for the product's other modules,
// which link this library; no program of this repository asks for them.
#pragma once

#include <cstddef>
#include <cstdint>

// Returns the code of an exact name, or 0 when there is none. The two Small Business Server names
// are not found.
std::uint32_t GetOSCodeByName(const char* name);

// Copies the name into `buffer` of `size` characters (1 to 0x7FFFFFFF), terminator included.
// Returns false for an unknown code and for a name that does not fit.
bool GetOSNameByCode(std::uint32_t code, char* buffer, std::size_t size);
