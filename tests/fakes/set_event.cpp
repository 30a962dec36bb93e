// set_event NAME: signals the existing event NAME from a process of its own. Ends with 0 on
// success.
#include "support/windows_api.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  const HANDLE event = OpenEventA(EVENT_MODIFY_STATE, /*bInheritHandle=*/FALSE, argv[1]);
  return event != nullptr && SetEvent(event) ? 0 : 1;
}
