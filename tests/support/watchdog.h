// A thread beside the tests. When a test takes longer than its limit, the watchdog prints the
// test's name and where every thread stands, and ends the program with everything that the program
// has started, so that nothing is left that could be in the next program's way. What the program
// has started ends with it in any case.
//
// It calls nothing through the import table, which tests change.
#pragma once

// Every test's limit, unless VORL_TEST_LIMIT_SECONDS or SetTestLimit say otherwise. Far longer than
// any test takes on a slow machine: no test passes or fails by it.
constexpr unsigned kTestLimitSeconds = 600;

// The exit code of a program that the watchdog has ended.
constexpr unsigned kWatchdogExitCode = 99;

// Begins to watch; once, before the first test.
void StartWatchdog();

// From now on the watchdog waits for `test` (at most 255 characters), as long as the limit says.
void WatchTest(const char* test);

// Gives the running test, and all after it, another limit, which begins now.
void SetTestLimit(unsigned milliseconds);
