// The start-up options as they stand in the configuration file, for the support library.
#pragma once

#include "support/vorlmisc.h"

// Fills `options`, all zero so far, from the section [STARTUP_OPTIONS] of `configurationFile`: each
// field from the key of its own name; numbers are decimal, or hexadecimal with 0x, and what follows
// a ";" is a comment. A field whose key is missing or empty stays zero. So does one whose number is
// out of range, or whose text does not fit or cannot be written in the system's ANSI code page, and
// a trace line says so.
//
// All fields come from one state of the file. One that is in the hands of another program, or just
// being rewritten, is waited for, a few seconds at most: also one that was just written and ends
// before or within the section, since its writer may save it in several openings. When that goes
// on, what is there is taken, and a trace line says so.
//
// No file, not after a short pause either: all zero, which is a success. A file that cannot be
// read: false, after one trace line.
bool ReadStartUpOptions(const char* functionName, const wchar_t* configurationFile,
                        CLIENT_AGENT_STARTUP_OPTIONS& options) noexcept;
