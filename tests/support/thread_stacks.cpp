#include "tests/support/thread_stacks.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr unsigned kMostFrames = 64;
constexpr DWORD kMostNameBytes = 1024;

struct Stack {
  DWORD64 addresses[kMostFrames];
  unsigned frames = 0;
};

// The stack of a thread that is suspended.
void Walk(const DirectCalls& calls, HANDLE thread, Stack& stack) {
  alignas(16) CONTEXT context{};
  context.ContextFlags = CONTEXT_CONTROL | CONTEXT_INTEGER;
  if (!calls.getThreadContext(thread, &context)) {
    return;
  }
  while (context.Rip != 0 && stack.frames < kMostFrames) {
    stack.addresses[stack.frames++] = context.Rip;
    DWORD64 base = 0;
    RUNTIME_FUNCTION* const function = calls.lookupFunctionEntry(context.Rip, &base, nullptr);
    if (function != nullptr) {
      void* handlerData = nullptr;
      DWORD64 frame = 0;
      calls.virtualUnwind(UNW_FLAG_NHANDLER, base, context.Rip, function, &context, &handlerData,
                          &frame, nullptr);
      continue;
    }
    // A function that keeps nothing on the stack: its caller's address is on top.
    SIZE_T read = 0;
    if (!calls.readProcessMemory(calls.getCurrentProcess(), reinterpret_cast<void*>(context.Rsp),
                                 &context.Rip, sizeof(context.Rip), &read)) {
      return;
    }
    context.Rsp += sizeof(context.Rip);
  }
}

void PrintAddress(const DirectCalls& calls, DWORD64 address, void (*print)(const char* text)) {
  MEMORY_BASIC_INFORMATION memory{};
  calls.virtualQuery(reinterpret_cast<void*>(address), &memory, sizeof(memory));
  char path[kMostNameBytes] = {};
  calls.mappedFileName(calls.getCurrentProcess(), memory.AllocationBase, path, sizeof(path) - 1);
  const char* name = path;
  for (const char* character = path; *character != '\0'; ++character) {
    if (*character == '\\' || *character == '/') {
      name = character + 1;
    }
  }
  char line[kMostNameBytes + 64];
  std::snprintf(line, sizeof(line), "    %s+0x%llx\n", *name != '\0' ? name : "?",
                address - reinterpret_cast<DWORD64>(memory.AllocationBase));
  print(line);
}

}  // namespace

void PrintThreadStacks(const DirectCalls& calls, void (*print)(const char* text)) {
  const HANDLE snapshot = calls.createSnapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL found = calls.thread32First(snapshot, &entry); found;
       found = calls.thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID != calls.getCurrentProcessId() ||
        entry.th32ThreadID == calls.getCurrentThreadId()) {
      continue;
    }
    char line[64];
    std::snprintf(line, sizeof(line), "  thread %lu\n", entry.th32ThreadID);
    print(line);
    const HANDLE thread =
        calls.openThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT, FALSE, entry.th32ThreadID);
    if (thread == nullptr) {
      continue;
    }
    // Nothing is printed while it stands still: it may hold a lock that printing needs.
    Stack stack;
    calls.suspendThread(thread);
    Walk(calls, thread, stack);
    calls.resumeThread(thread);
    calls.closeHandle(thread);
    for (unsigned i = 0; i < stack.frames; ++i) {
      PrintAddress(calls, stack.addresses[i], print);
    }
  }
  calls.closeHandle(snapshot);
}
