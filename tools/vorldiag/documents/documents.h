// The product's own documents, which the program carries with it.
#pragma once

#include <string>

// TROUBLESHOOTING, CONFIGURATION, TRACE or SETTINGS, as documents.rc names them. UTF-8, lines
// ending with "\n".
std::string Document(const wchar_t* name);
