// The settings of vorlconf.ini, as the file that is shipped for reading lists them.
#pragma once

#include <string>
#include <vector>

struct Setting {
  std::string section;
  std::string key;
  std::string byDefault;  // may be empty
  std::string value;      // in the file; empty: none, so that the default holds
  bool IsDefault() const;
};

struct Settings {
  std::string problem;  // why the file could not be read; empty when it could, or is missing
  std::vector<Setting> settings;
};

// All settings with the values of this file.
Settings ReadSettings(const std::wstring& configurationFile);
