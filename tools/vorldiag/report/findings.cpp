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

const char* VerdictWord(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk:
      return "ok";
    case Verdict::kWarning:
      return "warning";
    case Verdict::kError:
      return "error";
  }
  return "";
}
