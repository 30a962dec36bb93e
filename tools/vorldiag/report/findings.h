// What a command has found out. Plain data, which is printed, written as JSON or drawn afterwards.
#pragma once

#include <string>
#include <vector>

enum class Verdict { kOk, kWarning, kError };

// One thing that was looked at. All texts are UTF-8.
struct Finding {
  std::string id;  // stable name for programs: lower-case words with hyphens
  std::string title;
  Verdict verdict = Verdict::kOk;
  std::string value;
  std::string advice;  // one sentence on what to do; empty when there is nothing to do
};

struct Section {
  std::string id;
  std::string title;
  std::vector<Finding> findings;

  void Ok(std::string findingId, std::string findingTitle, std::string value);
  void Warn(std::string findingId, std::string findingTitle, std::string value, std::string advice);
  void Fail(std::string findingId, std::string findingTitle, std::string value, std::string advice);
};

struct Report {
  std::string command;
  std::vector<Section> sections;

  // The worst of all findings.
  Verdict Worst() const;
  // One sentence: how many errors and warnings, or that there are none.
  std::string Sum() const;
};

// "ok", "warning" or "error".
const char* VerdictWord(Verdict verdict);

// "1 error", "2 errors".
std::string Counted(std::size_t number, const std::string& noun);
