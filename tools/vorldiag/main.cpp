// Says what the agent does, for the people who support it. Changes nothing on the machine: what it
// opens it reads, and leaves to everybody else meanwhile.
#include <cstdlib>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tools/vorldiag/commandline.h"
#include "tools/vorldiag/text/output.h"
#include "tools/vorldiag/text/utf8.h"

// Reads the types of windows.h.
#include <shellapi.h>

namespace {

std::vector<std::string> Arguments() {
  int count = 0;
  wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; wide != nullptr && i < count; ++i) {
    arguments.push_back(Utf8(wide[i]));
  }
  LocalFree(wide);
  return arguments;
}

}  // namespace

int main() {
  Output output(STD_OUTPUT_HANDLE);
  Output errors(STD_ERROR_HANDLE);
  const int exitCode = RunCommandLine(Arguments(), output, errors);
  // At once: a thread may still be waiting for WMI.
  std::_Exit(exitCode);
}
