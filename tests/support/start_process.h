// Programs that a test starts.
#pragma once

#include <string>

#include "support/handle.h"

struct StartedProcess {
  KernelHandle process;  // none when it could not be started
  DWORD id = 0;
};

// What a program is started with besides its command line.
struct StartOptions {
  DWORD flags = 0;  // of CreateProcess
  // Inheritable handles; null: those of the test program.
  HANDLE output = nullptr;
  HANDLE errors = nullptr;
  // false: it has no standard handles at all.
  bool hasOutput = true;
};

// Starts a program. When that fails, so does the test, with the command line and the error.
StartedProcess StartProcess(const std::wstring& commandLine, const StartOptions& options = {});
