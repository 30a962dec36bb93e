// What death_test and its victims agree about.
#pragma once

#include "tests/support/call_facts.h"

// How many lines a victim writes; for each that is written a byte in this file of the installation.
constexpr unsigned kDeathLines = 5;
constexpr char kDeathProgress[] = "progress";

// Whether a victim may end at a call: at every one but those for memory, which change nothing that
// outlives the process, or, when `isIn`, in the middle of every one that transfers something.
inline bool IsDeathPoint(const CallFacts& facts, bool isIn) {
  if (isIn) {
    return facts.isFile && facts.lengthAt != 0;
  }
  return facts.gives != Resource::kHeapBlock && facts.takes != Resource::kHeapBlock;
}
