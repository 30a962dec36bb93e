// Cuts off the half line that a writer left when it was ended.
#pragma once

// Brings the end of a file of the trace to the end of a line. A process that was ended while it
// wrote, or a full disk, can leave the beginning of a line, and a power cut a row of zeros. Nobody
// was told that such a line was written, so it is cut off. What is longer than any line is not a
// line of this library and only gets its end.
void CutTornEnd(const wchar_t* path) noexcept;
