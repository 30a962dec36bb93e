// What an operation leaves behind.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/call_hooks.h"

// What hooked calls have given and not yet taken back. Not safe from several threads.
class ResourceLedger {
 public:
  // Ahead of a call that is made: what it takes is gone. Says what is wrong about it, or nothing.
  std::string Take(const HookedCall& call);
  // After a call that was made: what it has given.
  void Give(const HookedCall& call, std::uintptr_t result);

  // What is held, as "2 handle(s) from CreateEventA".
  std::vector<std::string> Held() const;

  // Takes what a function has given out of the books: somebody else answers for it.
  std::vector<std::uintptr_t> TakeOver(const std::string& function);

 private:
  using Entry = std::pair<Resource, std::uintptr_t>;
  // With the names of the functions, once for each time that the same value was given.
  std::map<Entry, std::vector<std::string>> m_held;
  std::set<Entry> m_returned;
};
