// Cuts the half line that an ended writer has left.
#pragma once

// Brings the end of a file of the trace to the end of a line. A process that was ended while it
// wrote, or a disk that was full, can leave the beginning of a line, and a power cut a row of
// zeros; nobody was told that such a line is written. What is longer than any line is not a line of
// this library and only gets its end.
void CutTornEnd(const wchar_t* path) noexcept;
