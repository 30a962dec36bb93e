// The identifier that stands in the configuration file.
#pragma once

#include <string>

struct IdentifierOnDisk {
  std::string value;    // empty when there is none
  std::string problem;  // why it is not known; empty when it is, or when there is none
};

// Reads the identifier from the configuration file, waiting a moment for one who is writing it.
IdentifierOnDisk ReadStoredIdentifier(const std::wstring& configurationFile);
