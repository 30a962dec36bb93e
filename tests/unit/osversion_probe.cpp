// Writes what osversion.h answers in this process into the file that its argument names: one line
// for each question, and first the product type from a function that osversion.h does not ask when
// all is well. The system tells a program about its version by the program's name, so tests
// run copies of this one.

#include <cstdio>
#include <fstream>

#include "identity/oscode.h"
#include "identity/osversion.h"

namespace {

// "1", "0" or "failed".
const char* Text(bool asked, bool answer) { return asked ? (answer ? "1" : "0") : "failed"; }

void WriteComparisons(std::ostream& out) {
  for (int index = 1; index <= 8; ++index) {
    bool isEqual = false;
    bool isOrGreater = false;
    bool isLess = false;
    const bool equalAsked = IsVersionEqual(index, isEqual);
    const bool orGreaterAsked = IsVersionOrGreater(index, isOrGreater);
    const bool lessAsked = IsVersionLess(index, 0, 0, isLess);
    out << "index " << index << " equal " << Text(equalAsked, isEqual) << " or greater "
        << Text(orGreaterAsked, isOrGreater) << " less " << Text(lessAsked, isLess) << '\n';
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: osversion_probe FILE\n", stderr);
    return 2;
  }
  std::ofstream out(argv[1]);
  OSVERSIONINFOEXW record{};
  int versionIndex = 0;
  bool isServer = false;
  bool isNt = false;
  if (!GetOSVersionInfo(record) || !GetVersionIndex(versionIndex) || !IsServer(isServer) ||
      !IsWinNT(isNt)) {
    return 1;
  }
  OSVERSIONINFOEXW asked{};
  asked.dwOSVersionInfoSize = sizeof(asked);
  if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&asked))) {
    return 1;
  }
  out << "type " << static_cast<int>(asked.wProductType) << '\n';
  out << "version " << record.dwMajorVersion << '.' << record.dwMinorVersion << '\n';
  out << "index " << versionIndex << " server " << isServer << " nt " << isNt << '\n';
  out << "code " << GetOSCode() << '\n';
  WriteComparisons(out);
  return out.good() ? 0 : 1;
}
