#include "tools/vorldiag/report/findings.h"

#include <algorithm>

void Section::Ok(std::string findingId, std::string findingTitle, std::string value) {
  findings.push_back(
      {std::move(findingId), std::move(findingTitle), Verdict::kOk, std::move(value), ""});
}

void Section::Warn(std::string findingId, std::string findingTitle, std::string value,
                   std::string advice) {
  findings.push_back({std::move(findingId), std::move(findingTitle), Verdict::kWarning,
                      std::move(value), std::move(advice)});
}

void Section::Fail(std::string findingId, std::string findingTitle, std::string value,
                   std::string advice) {
  findings.push_back({std::move(findingId), std::move(findingTitle), Verdict::kError,
                      std::move(value), std::move(advice)});
}

Verdict Report::Worst() const {
  Verdict worst = Verdict::kOk;
  for (const Section& section : sections) {
    for (const Finding& finding : section.findings) {
      worst = std::max(worst, finding.verdict);
    }
  }
  return worst;
}

std::string Report::Sum() const {
  std::size_t errors = 0;
  std::size_t warnings = 0;
  for (const Section& section : sections) {
    for (const Finding& finding : section.findings) {
      errors += finding.verdict == Verdict::kError ? 1U : 0U;
      warnings += finding.verdict == Verdict::kWarning ? 1U : 0U;
    }
  }
  return errors + warnings == 0
             ? "Everything is as it should be."
             : Counted(errors, "error") + ", " + Counted(warnings, "warning") + ".";
}

const char* VerdictWord(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk:
      return "ok";
    case Verdict::kWarning:
      return "warning";
    case Verdict::kError:
      break;
  }
  return "error";
}

std::string Counted(std::size_t number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}
