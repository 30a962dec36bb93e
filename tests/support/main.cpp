// The main of most test programs.
#include "tests/support/test_run.h"

int main(int argc, char** argv) { return RunTests(argc, argv); }
