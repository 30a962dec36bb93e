// What an error line means and what to do, as the tables of the documents say it.
#pragma once

#include <string>
#include <vector>

#include "tools/vorldiag/trace/traceline.h"

struct Explanation {
  std::string meaning;
  std::string advice;  // empty where there is nothing to do
};

// Both in one, as sentences.
std::string TextOf(const Explanation& explanation);

class Explanations {
 public:
  // From all tables of a document (Markdown) whose first column is "Text", "Trace line of ..." or
  // "Line of ...".
  void Add(const std::string& document);

  // Null when no table has the line. Of several that fit, the most exact.
  const Explanation* Find(const TraceLine& line) const;

 private:
  struct Row {
    std::string pattern;                 // '\1' stands for anything
    std::vector<std::string> functions;  // any, when there are none
    Explanation explanation;
  };
  std::vector<Row> m_rows;
};

// Those of all documents that the program carries.
const Explanations& AllExplanations();
