// Runs the update module of an installation and dies in front of its operation of a given number:
//
//   vorlupd_victim FOLDER NUMBER
//
// Exit codes: 77 died, 0 the update succeeded before that, 1 it failed.
#include <cstdlib>

#include "modules/vorlupd/vorlupd.h"
#include "tests/fakes/vlevtlog_fake.h"
#include "tests/unit/vorlupd_operations.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  // Also brings the recording trace library into the process.
  FakeTraceClear();
  const Library module(std::filesystem::path(argv[1]) / "vorlupd.dll");
  const unsigned last = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
  operations::Watch(module, [last](unsigned number) -> DWORD {
    if (number == last) {
      TerminateProcess(GetCurrentProcess(), 77);
    }
    return ERROR_SUCCESS;
  });
  auto* const update =
      module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService");
  return update() != FALSE ? 0 : 1;
}
