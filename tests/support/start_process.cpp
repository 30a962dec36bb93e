#include "tests/support/start_process.h"

#include <gtest/gtest.h>

StartedProcess StartProcess(const std::wstring& commandLine, const StartOptions& options) {
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  const bool hasOwnOutput = options.output != nullptr || options.errors != nullptr;
  if (hasOwnOutput || !options.hasOutput) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = options.output;
    startup.hStdError = options.errors;
  }
  // Is changed while the process is made.
  std::wstring buffer = commandLine;
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(nullptr, buffer.data(), nullptr, nullptr, hasOwnOutput, options.flags,
                      nullptr, nullptr, &startup, &process)) {
    const DWORD error = GetLastError();
    ADD_FAILURE() << "error " << error << " at the start of "
                  << testing::PrintToString(commandLine);
    return {};
  }
  CloseHandle(process.hThread);
  return {KernelHandle(process.hProcess), process.dwProcessId};
}
