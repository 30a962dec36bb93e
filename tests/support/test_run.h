// The main of every test program.
#pragma once

// What every test program does: runs its tests in another order each time, under a watchdog that
// ends the program and all that it has started when a test hangs. The main of main.cpp calls it; a
// program that has a main of its own calls it there.
//
// The first line says the program and the seed; VORL_TEST_SEED=<1 to 99999> repeats its order. A
// run without a test fails, and so does a test that is skipped without standing among the excused
// in test_run.cpp. Returns the program's exit code.
int RunTests(int argc, char** argv);
