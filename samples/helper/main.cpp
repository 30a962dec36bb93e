// A helper process: serves the pipe on which the service's commands tell what is about to happen
// to the service, and prints each notification on one line.
//
//   vorlhelper [--count N] [--pipe NAME]
//
// --count N    ends after N notifications; without it only Ctrl+C ends the program
// --pipe NAME  serves another pipe than the installation's
//
// Exit codes: 0 ended as told, 1 the pipe cannot be served, 2 wrong arguments.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "samples/helper/consolestop.h"
#include "samples/helper/pipeserver.h"

namespace {

constexpr int kExitPipe = 1;
constexpr int kExitUsage = 2;

struct Arguments {
  unsigned long count = 0;  // 0: no end
  const char* pipeName = kHelperPipeName;
};

// Writes a line at once, so that whoever reads along sees it: as wide text on a console, in UTF-8
// anywhere else.
void WriteLine(DWORD stream, const std::wstring& text) {
  const HANDLE output = GetStdHandle(stream);
  const std::wstring line = text + L"\r\n";
  DWORD written = 0;
  DWORD mode = 0;
  if (GetConsoleMode(output, &mode)) {
    WriteConsoleW(output, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    return;
  }
  const int length = static_cast<int>(line.size());
  std::string bytes(line.size() * 3, '\0');
  const int size = WideCharToMultiByte(CP_UTF8, 0, line.data(), length, bytes.data(),
                                       static_cast<int>(bytes.size()), /*lpDefaultChar=*/nullptr,
                                       /*lpUsedDefaultChar=*/nullptr);
  WriteFile(output, bytes.data(), static_cast<DWORD>(size), &written, nullptr);
}

bool Parse(int argc, char** argv, Arguments& arguments) {
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 == argc) {
      return false;
    }
    const char* const value = argv[i + 1];
    if (std::strcmp(argv[i], "--count") == 0) {
      char* end = nullptr;
      arguments.count = std::strtoul(value, &end, 10);
      if (*value < '1' || *value > '9' || *end != '\0') {
        return false;
      }
    } else if (std::strcmp(argv[i], "--pipe") == 0) {
      arguments.pipeName = value;
    } else {
      return false;
    }
  }
  return true;
}

int Serve(PipeServer& server, HANDLE stop, const Arguments& arguments) {
  for (unsigned long notified = 0; arguments.count == 0 || notified < arguments.count;) {
    const PipeServer::Result result = server.ServeClient(stop);
    switch (result.outcome) {
      case PipeServer::Outcome::kNotified:
        WriteLine(STD_OUTPUT_HANDLE, Describe(result.notification));
        ++notified;
        break;
      case PipeServer::Outcome::kRefused:
        WriteLine(STD_ERROR_HANDLE, std::wstring(L"refused: ") + result.refusal);
        break;
      case PipeServer::Outcome::kStopped:
        return EXIT_SUCCESS;
      case PipeServer::Outcome::kFailed:
        WriteLine(STD_ERROR_HANDLE, L"the pipe failed: error " + std::to_wstring(GetLastError()));
        return kExitPipe;
    }
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  if (!Parse(argc, argv, arguments)) {
    WriteLine(STD_ERROR_HANDLE, L"usage: vorlhelper [--count N] [--pipe NAME]");
    return kExitUsage;
  }
  const ConsoleStop stop;
  PipeServer server;
  if (stop.Event() == nullptr || !server.Open(arguments.pipeName)) {
    WriteLine(STD_ERROR_HANDLE,
              L"the pipe cannot be served: error " + std::to_wstring(GetLastError()));
    return kExitPipe;
  }
  WriteLine(STD_OUTPUT_HANDLE, L"waiting for notifications");
  return Serve(server, stop.Event(), arguments);
}
