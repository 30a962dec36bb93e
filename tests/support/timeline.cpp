#include "tests/support/timeline.h"

#include <utility>

#include "support/lasterror.h"
#include "tests/fakes/vlevtlog_fake.h"

Timeline::Timeline(std::set<std::string> leftOut) : m_leftOut(std::move(leftOut)) {
  FakeTraceSetCallback(&Timeline::OnTraceLine, this);
}

Timeline::~Timeline() { FakeTraceSetCallback(nullptr, nullptr); }

void Timeline::Note(std::string entry) { Add({true, std::move(entry)}); }

void Timeline::Clear() {
  const std::lock_guard guard(m_mutex);
  m_entries.clear();
}

std::vector<std::string> Timeline::Entries() const {
  const std::lock_guard guard(m_mutex);
  std::vector<std::string> texts;
  for (const Entry& entry : m_entries) {
    texts.push_back(entry.text);
  }
  return texts;
}

std::vector<std::string> Timeline::Calls() const {
  const std::lock_guard guard(m_mutex);
  std::vector<std::string> texts;
  for (const Entry& entry : m_entries) {
    if (entry.isCall) {
      texts.push_back(entry.text);
    }
  }
  return texts;
}

void Timeline::OnTraceLine(const FakeTraceLine* line, void* context) {
  auto& timeline = *static_cast<Timeline*>(context);
  if (!timeline.m_leftOut.contains(line->functionName)) {
    timeline.Add({false, std::string(line->functionName) + ": " + line->text});
  }
}

void Timeline::Add(Entry entry) {
  const LastErrorKeeper keeper;
  const std::lock_guard guard(m_mutex);
  m_entries.push_back(std::move(entry));
}
