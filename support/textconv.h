// Text between the ANSI code page (CP_ACP) and UTF-16.
#pragma once

#include "support/windows_api.h"

// MultiByteToWideChar for null-terminated text in the ANSI code page, with the same results: the
// characters with the terminator, needed (capacity 0) or written, or 0 and the last error.
// Precomposed characters are asked for, except where the machine's code page is UTF-8, which takes
// no such flag.
int AnsiToWide(const char* narrow, wchar_t* wide, int capacity) noexcept;

// Converts null-terminated `narrow` into `wide`, which holds `capacity` characters with the
// terminator. False, with `wide` empty, when the text does not fit or cannot be converted.
bool NarrowToWide(const char* narrow, wchar_t* wide, int capacity) noexcept;

// The same the other way; `capacity` counts bytes.
bool WideToNarrow(const wchar_t* wide, char* narrow, int capacity) noexcept;
