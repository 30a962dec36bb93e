// The trace of an installation, as its reader finds it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/installation.h"

// A file of 4 KB, which is full where FileSizeKB says so.
inline std::string FullTraceFile() {
  std::string full;
  while (full.size() < std::size_t{4} * 1024) {
    full += "2024-01-01 00:00:00.000 +00:00 INFO 1 1 module f s.cpp:1 " + std::string(100, 'x') +
            "\r\n";
  }
  return full;
}

// All lines in the trace of an installation, of whichever file; each must be a whole one.
inline std::vector<std::string> WholeTraceOf(const Installation& installation) {
  static const std::regex whole(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [-+]\d\d:\d\d [A-Z]+\d* \d+ \d+ .*)");
  std::vector<std::string> lines;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(installation / "logs", none)) {
    if (entry.path().extension() != ".log") {
      continue;
    }
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string content(std::istreambuf_iterator<char>(in), {});
    for (std::size_t at = 0; at < content.size();) {
      const std::size_t end = content.find("\r\n", at);
      if (end == std::string::npos) {
        ADD_FAILURE() << "torn: " << content.substr(at);
        break;
      }
      lines.push_back(content.substr(at, end - at));
      EXPECT_TRUE(std::regex_match(lines.back(), whole)) << lines.back();
      at = end + 2;
    }
  }
  return lines;
}

inline std::size_t CountEndingWith(const std::vector<std::string>& lines, const std::string& end) {
  return static_cast<std::size_t>(std::count_if(
      lines.begin(), lines.end(), [&](const std::string& line) { return line.ends_with(end); }));
}
