// Undoes what an Authenticode signature does to a program file.
#pragma once

#include <string>
#include <vector>

// The bytes that the file may have had before it was signed: without the certificates at its end
// and the headers' note of them, with the checksum that a linker writes or leaves out. Several,
// since a signature does not tell which; none for a file that has no signature at its very end.
std::vector<std::string> UnsignedForms(const std::string& bytes);
