// The configuration file as the service reads it.
#pragma once

#include <string>

#include "companions/common/ini_file.h"

// Reads vorlconf.ini as the service does, waiting a moment for one who is writing it. Why it is not
// known; empty when it is, or when there is none.
std::string ReadConfiguration(const std::wstring& path, IniFile& file);
