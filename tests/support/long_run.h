// Whether the long forms of the tests are asked for, with all errors, lengths and rounds; `./test
// all` does so with VORL_TEST_LONG=1.
#pragma once

#include <cstdlib>
#include <string_view>

inline bool IsLongRun() {
  const char* const given = std::getenv("VORL_TEST_LONG");
  return given != nullptr && std::string_view(given) == "1";
}
