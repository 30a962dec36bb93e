#include "tools/vorldiag/report/printed.h"

#include <string>

namespace {

constexpr std::size_t kVerdictWidth = 9;
constexpr std::size_t kTitleWidth = 26;

std::string Padded(std::string text, std::size_t width) {
  // Titles are ASCII: a byte is a column.
  text.resize(std::max(text.size() + 1, width), ' ');
  return text;
}

Colour ColourOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk:
      return Colour::kGreen;
    case Verdict::kWarning:
      return Colour::kYellow;
    case Verdict::kError:
      break;
  }
  return Colour::kRed;
}

// Errors are to be found without colour as well.
std::string Word(Verdict verdict) {
  return verdict == Verdict::kError ? "ERROR" : VerdictWord(verdict);
}

}  // namespace

bool PrintReport(const Report& report, Output& output) {
  bool isWritten = true;
  for (const Section& section : report.sections) {
    isWritten = output.Write(section.title + "\n") && isWritten;
    for (const Finding& finding : section.findings) {
      isWritten =
          output.Write("  ") &&
          output.Write(Padded(Word(finding.verdict), kVerdictWidth), ColourOf(finding.verdict)) &&
          output.Write(Padded(finding.title, kTitleWidth) + finding.value + "\n") && isWritten;
      if (!finding.advice.empty()) {
        isWritten =
            output.Write(std::string(2 + kVerdictWidth, ' ') + "-> " + finding.advice + "\n") &&
            isWritten;
      }
    }
    isWritten = output.Write("\n") && isWritten;
  }
  return output.Write(report.Sum() + "\n", ColourOf(report.Worst())) && isWritten;
}
