// The printf-like formats of the trace, understood here and not by the C runtime: "%S" in a narrow
// and "%s" in a wide format are wide text whatever runtime is linked, no character is lost to a
// locale, and a wrong argument costs its own text only.
#pragma once

#include <cstdarg>

class LineText;

// Appends the message. Takes the conversions d i u o x X c C s S p e E f F g G a A %% with the
// flags "-+ #0", width, precision and the sizes hh h l ll I64 I32 I z t j w. "%n" writes nothing
// anywhere. From an unknown conversion on, the rest of the format stands for itself. Text that
// cannot be read becomes "(unreadable)", a null text "(null)".
void AppendFormatted(LineText& line, const char* format, va_list arguments) noexcept;
void AppendFormatted(LineText& line, const wchar_t* format, va_list arguments) noexcept;
