// Knows values that manufacturers left where a unique one should be.
#pragma once

#include <string>

// Why many computers have this value, "" when nothing speaks for it. Separators and letter case do
// not count.
std::string PlaceholderUuid(const std::string& uuid);
std::string PlaceholderSerial(const std::string& serial);
std::string PlaceholderAddress(const std::string& address);
