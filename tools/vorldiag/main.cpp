// For the people who support the service: says what is registered and what the machine's identifier
// is made of. Changes nothing.
//
//   vorldiag service     the service's registration, recovery actions, event source and state
//   vorldiag identity    the hardware parameters and the identifier that they give
//
// Exit codes: 0 reported, 1 the thing asked for is not there, 2 wrong arguments.
#include <cstdio>
#include <cstring>

#include "support/trace.h"
#include "tools/vorldiag/identityreport.h"
#include "tools/vorldiag/servicereport.h"

namespace {

constexpr int kExitReported = 0;
constexpr int kExitAbsent = 1;
constexpr int kExitUsage = 2;

}  // namespace

int main(int argc, char** argv) {
  g_pszModuleName = "vorldiag.exe";
  if (argc == 2 && std::strcmp(argv[1], "service") == 0) {
    return ReportService() ? kExitReported : kExitAbsent;
  }
  if (argc == 2 && std::strcmp(argv[1], "identity") == 0) {
    return ReportIdentity() ? kExitReported : kExitAbsent;
  }
  std::fputs("usage: vorldiag service | identity\n", stderr);
  return kExitUsage;
}
