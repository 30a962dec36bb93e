#include "tools/vorldiag/documents/explanations.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <string_view>

#include "tools/vorldiag/documents/documents.h"

namespace {

// Stands for any characters in a pattern. No line has it: control characters are escaped there.
constexpr char kAnything = '\1';

bool IsLetterOrDigit(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0;
}

std::string Trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') {
    text.remove_prefix(1);
  }
  while (!text.empty() && text.back() == ' ') {
    text.remove_suffix(1);
  }
  return std::string(text);
}

// The cells of a row; none for a line that is no row.
std::vector<std::string> Cells(const std::string& line) {
  std::vector<std::string> cells;
  if (line.empty() || line.front() != '|') {
    return cells;
  }
  bool isCode = false;
  std::string cell;
  for (const char character : line.substr(1)) {
    isCode = isCode != (character == '`');
    if (character == '|' && !isCode) {
      cells.push_back(Trimmed(cell));
      cell.clear();
    } else {
      cell += character;
    }
  }
  return cells;
}

// What stands between backticks.
std::vector<std::string> Codes(const std::string& cell) {
  std::vector<std::string> codes;
  for (std::size_t begin = cell.find('`'); begin != std::string::npos;) {
    const std::size_t end = cell.find('`', begin + 1);
    if (end == std::string::npos) {
      break;
    }
    codes.push_back(cell.substr(begin + 1, end - begin - 1));
    begin = cell.find('`', end + 1);
  }
  return codes;
}

// Text that needs no Markdown: without backticks, links as their text.
std::string Plain(const std::string& cell) {
  std::string text;
  for (std::size_t i = 0; i < cell.size(); ++i) {
    const std::size_t end = cell[i] == '[' ? cell.find("](", i) : std::string::npos;
    const std::size_t close = end == std::string::npos ? end : cell.find(')', end);
    if (close != std::string::npos) {
      text += Plain(cell.substr(i + 1, end - i - 1));
      i = close;
    } else if (cell[i] != '`') {
      text += cell[i];
    }
  }
  return text;
}

// Words of the documents that stand for other words of the trace.
bool StandsForAnything(const std::string& word) {
  return word == "N" || word == "X" || word == "E" || word == "PATH" || word == "NUMBER" ||
         word == "RootDir" || word == "Word1" || word == "Text1" || word == "Text3" ||
         std::all_of(word.begin(), word.end(),
                     [](unsigned char letter) { return std::isdigit(letter) != 0; });
}

std::string PatternOf(const std::string& code) {
  constexpr std::string_view dots = "...";
  std::string pattern;
  for (std::size_t i = 0; i < code.size();) {
    if (code.compare(i, dots.size(), dots) == 0) {
      pattern += kAnything;
      i += dots.size();
      continue;
    }
    std::size_t end = i;
    while (end < code.size() && IsLetterOrDigit(code[end])) {
      ++end;
    }
    if (end == i) {
      pattern += code[i++];
      continue;
    }
    const std::string word = code.substr(i, end - i);
    pattern += StandsForAnything(word) ? std::string(1, kAnything) : word;
    i = end;
  }
  return pattern;
}

bool Matches(std::string_view pattern, std::string_view text) {
  std::size_t place = 0;
  std::size_t at = 0;
  std::size_t lastAnything = std::string_view::npos;
  std::size_t retry = 0;
  while (at < text.size()) {
    if (place < pattern.size() && pattern[place] == kAnything) {
      lastAnything = place++;
      retry = at;
    } else if (place < pattern.size() && pattern[place] == text[at]) {
      ++place;
      ++at;
    } else if (lastAnything != std::string_view::npos) {
      place = lastAnything + 1;
      at = ++retry;
    } else {
      return false;
    }
  }
  while (place < pattern.size() && pattern[place] == kAnything) {
    ++place;
  }
  return place == pattern.size();
}

// "Install" is the short form of "CNTService::Install"; "...Ex" of any function that ends so.
bool IsFunction(const std::string& function, std::string name) {
  name.erase(0, name.compare(0, 3, "...") == 0 ? 3 : 0);
  return function.size() >= name.size() &&
         function.compare(function.size() - name.size(), name.size(), name) == 0;
}

std::size_t ColumnOf(const std::vector<std::string>& header, std::string_view name) {
  return static_cast<std::size_t>(std::find(header.begin(), header.end(), name) - header.begin());
}

bool BeginsWith(const std::string& text, std::string_view beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

// Empty when there is no text. Some cells are sentences, others end without a full stop.
std::string Sentence(const char* beginning, const std::string& text) {
  if (text.empty()) {
    return "";
  }
  const bool isClosed =
      text.back() == '.' || (text.size() > 1 && text.substr(text.size() - 2) == ".)");
  return beginning + text + (isClosed ? "" : ".");
}

bool IsTableOfLines(const std::vector<std::string>& header) {
  return !header.empty() && (header[0] == "Text" || BeginsWith(header[0], "Trace line of") ||
                             BeginsWith(header[0], "Line of"));
}

}  // namespace

std::string TextOf(const Explanation& explanation) {
  const std::string meaning = Sentence("It means: ", explanation.meaning);
  const std::string advice = Sentence("To do: ", explanation.advice);
  return meaning + (meaning.empty() || advice.empty() ? "" : " ") + advice;
}

void Explanations::Add(const std::string& document) {
  std::istringstream text(document);
  std::vector<std::string> header;
  std::vector<std::string> functions;
  for (std::string line; std::getline(text, line);) {
    const std::vector<std::string> cells = Cells(line);
    if (cells.empty()) {
      header.clear();
      continue;
    }
    if (header.empty()) {
      header = cells;
      functions.clear();
      continue;
    }
    if (!IsTableOfLines(header)) {
      continue;
    }
    const auto cell = [&](std::string_view name) {
      const std::size_t column = ColumnOf(header, name);
      return column < cells.size() ? cells[column] : std::string();
    };
    if (cell("Function") != "the same") {
      functions = Codes(cell("Function"));
    }
    const std::string meaning = cell("Meaning") + cell("Reason");
    for (const std::string& code : Codes(cells[0])) {
      m_rows.push_back({PatternOf(code), functions, {Plain(meaning), Plain(cell("What to do"))}});
    }
  }
}

const Explanation* Explanations::Find(const TraceLine& line) const {
  const Row* best = nullptr;
  for (const Row& row : m_rows) {
    const bool isOfFunction =
        row.functions.empty() ||
        std::any_of(row.functions.begin(), row.functions.end(),
                    [&](const std::string& name) { return IsFunction(line.function, name); });
    if (isOfFunction && Matches(row.pattern, line.text) &&
        (best == nullptr || row.pattern.size() > best->pattern.size())) {
      best = &row;
    }
  }
  return best == nullptr ? nullptr : &best->explanation;
}

const Explanations& AllExplanations() {
  static const Explanations explanations = [] {
    Explanations all;
    for (const wchar_t* name : {L"TROUBLESHOOTING", L"CONFIGURATION", L"TRACE"}) {
      all.Add(Document(name));
    }
    return all;
  }();
  return explanations;
}
