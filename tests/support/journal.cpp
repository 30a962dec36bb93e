#include "tests/support/journal.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "support/lasterror.h"
#include "support/windows_api.h"
#include "tests/support/text.h"

Journal::Journal(Formats formats) : m_formats(formats) {
  FakeTraceClear();
  FakeTraceSetCallback(&Journal::OnTrace, this);
}

Journal::~Journal() { FakeTraceSetCallback(nullptr, nullptr); }

void Journal::Call(const std::string& text) {
  const LastErrorKeeper keeper;
  Add(/*isTrace=*/false, text);
}

std::vector<std::string> Journal::Entries() const { return Select(Kind::kAll); }

std::vector<std::string> Journal::Traces() const { return Select(Kind::kTraces); }

std::vector<std::string> Journal::Calls() const { return Select(Kind::kCalls); }

void Journal::Clear() {
  const std::lock_guard guard(m_mutex);
  m_entries.clear();
}

std::vector<std::string> Journal::TakeTraces() {
  std::vector<std::string> traces = Traces();
  Clear();
  return traces;
}

void Journal::Watch(std::function<std::string()> observe) {
  const std::lock_guard guard(m_mutex);
  Observe();
  m_observe = std::move(observe);
}

void Journal::Add(bool isTrace, const std::string& text) {
  const std::lock_guard guard(m_mutex);
  Observe();
  m_entries.push_back({isTrace, text});
}

void Journal::Observe() {
  const std::string text = m_observe ? m_observe() : std::string();
  if (!text.empty()) {
    m_entries.push_back({false, text});
  }
}

void Journal::OnTrace(const FakeTraceLine* line, void* context) {
  auto* const journal = static_cast<Journal*>(context);
  journal->Add(/*isTrace=*/true, JournalText(*line, journal->m_formats));
  SetLastError(kRubbishError);
}

std::vector<std::string> Journal::Select(Kind kind) const {
  const std::lock_guard guard(m_mutex);
  std::vector<std::string> texts;
  for (const Entry& entry : m_entries) {
    if (kind == Kind::kAll || (kind == Kind::kTraces) == entry.isTrace) {
      texts.push_back(entry.text);
    }
  }
  return texts;
}

std::string Traced(int level, const std::string& function, const std::string& source,
                   const std::string& text) {
  return "level " + std::to_string(level) + " " + function + " (" + source + "): " + text;
}

std::string JournalText(const FakeTraceLine& line, Journal::Formats formats) {
  std::string text = Traced(line.level, line.functionName, line.sourceFile, line.text);
  if (formats == Journal::Formats::kShown && (line.isWide || std::strcmp(line.format, "%s") != 0)) {
    text += AsFormat(line.format);
  }
  if (std::strcmp(line.moduleName, "vorlsrvc.exe") != 0) {
    text += OfModule(line.moduleName);
  }
  if (line.line <= 0) {
    text += " [without a line number]";
  }
  return text;
}

std::string AsFormat(const std::string& format) { return " [as format " + format + "]"; }

std::string OfModule(const std::string& module) { return " [of module " + module + "]"; }

std::string Printed(const std::string& text) { return "printed " + Quoted(text.c_str()); }

std::string Hex(unsigned long long value) {
  char text[32];
  std::snprintf(text, sizeof(text), "0x%llX", value);
  return text;
}

std::string Quoted(const char* text) {
  return text == nullptr ? "null" : std::string("\"") + text + "\"";
}

std::string Quoted(const wchar_t* text) {
  return text == nullptr ? "null" : "\"" + Utf8(text) + "\"";
}
