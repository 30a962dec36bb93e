// Texts and paths of tests.
#pragma once

#include <string>

// Texts as tests compare them.
std::string Utf8(const std::wstring& text);

// The folder of the test program, without a trailing backslash.
std::wstring TestFolder();
