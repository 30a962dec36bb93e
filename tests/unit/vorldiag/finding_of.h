// One finding of a section.
#pragma once

#include <algorithm>
#include <string>

#include "tools/vorldiag/report/findings.h"

// An empty one when there is none of this id.
inline Finding FindingOf(const Section& section, const std::string& id) {
  const auto found = std::find_if(section.findings.begin(), section.findings.end(),
                                  [&](const Finding& one) { return one.id == id; });
  return found == section.findings.end() ? Finding{} : *found;
}
