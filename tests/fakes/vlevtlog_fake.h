// A trace library that keeps every line in memory.
#pragma once

// One recorded line. `isWide`: the line came through LogTraceW; `format` and `text` are then UTF-8.
struct FakeTraceLine {
  int level;
  const char* moduleName;
  const char* functionName;
  const char* sourceFile;
  int line;
  bool isWide;
  const char* format;
  const char* text;
  unsigned long threadId;
};

extern "C" {

// Forgets all lines.
void FakeTraceClear();

// The number of lines recorded so far.
unsigned FakeTraceCount();

// Line `index`, in the order of the calls; its texts live until FakeTraceClear.
void FakeTraceGet(unsigned index, FakeTraceLine* line);

// Called at the end of every LogTrace/LogTraceW call, on the calling thread; null for none. The
// last error that the callback leaves is the one that the caller of LogTrace finds.
void FakeTraceSetCallback(void (*callback)(const FakeTraceLine* line, void* context),
                          void* context);
}
