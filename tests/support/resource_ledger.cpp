#include "tests/support/resource_ledger.h"

#include <cstring>

// VARIANT is left out of the lean windows.h.
#include <oleauto.h>

namespace {

// The BSTR in a VARIANT; 0 when there is none.
std::uintptr_t TextIn(std::uintptr_t variant) {
  const auto* const value = reinterpret_cast<const VARIANT*>(variant);
  return value->vt == VT_BSTR ? reinterpret_cast<std::uintptr_t>(value->bstrVal) : 0;
}

bool HasSucceeded(const CallFacts& facts, std::uintptr_t result) {
  const auto number = static_cast<std::int32_t>(result);
  switch (facts.answer) {
    case Answer::kStatus:
    case Answer::kErrno:
      return number == 0;
    case Answer::kHresult:
      return number >= 0;
    case Answer::kAllOnes:
    case Answer::kAllOnesErrno:
      return number != -1;
    default:
      return facts.givenAt == kResult ? result != 0 : number != 0;
  }
}

// Whether the value is the same each time and counts how often it was given.
bool IsCounted(Resource resource) {
  return resource == Resource::kModule || resource == Resource::kReference ||
         resource == Resource::kApartment;
}

}  // namespace

std::string ResourceLedger::Take(const HookedCall& call) {
  Entry entry{call.facts.takes, 0};
  switch (entry.first) {
    case Resource::kNone:
      return "";
    case Resource::kApartment:
      break;
    case Resource::kVariant:
      entry = {Resource::kText, TextIn(call.Argument(call.facts.takenAt))};
      break;
    case Resource::kDescriptor:
      entry.second = static_cast<std::uint32_t>(call.Argument(call.facts.takenAt));
      break;
    default:
      entry.second = call.Argument(call.facts.takenAt);
  }
  const auto found = m_held.find(entry);
  if (found == m_held.end()) {
    // What was given before the books were opened, or where nobody listened, is nobody's business
    // here; the heap itself ends a process that frees a block twice.
    return m_returned.contains(entry) && !IsCounted(entry.first) &&
                   entry.first != Resource::kHeapBlock
               ? std::string(call.name) + ": this " + NameOf(entry.first) + " was given back before"
               : "";
  }
  found->second.pop_back();
  if (found->second.empty()) {
    m_held.erase(found);
    m_returned.insert(entry);
  }
  return "";
}

void ResourceLedger::Give(const HookedCall& call, std::uintptr_t result) {
  if (call.facts.gives == Resource::kNone || !HasSucceeded(call.facts, result)) {
    return;
  }
  Entry entry{call.facts.gives, 0};
  if (entry.first == Resource::kApartment) {
    // Counted, whatever the calls answer.
  } else if (entry.first == Resource::kVariant) {
    entry = {Resource::kText, TextIn(call.Argument(call.facts.givenAt))};
  } else if (call.facts.givenAt == kItself) {
    entry.second = call.Argument(1);
  } else if (call.facts.givenAt == kResult) {
    entry.second = result;
  } else {
    const auto place = call.Argument(call.facts.givenAt);
    const std::size_t size =
        entry.first == Resource::kDescriptor ? sizeof(int) : sizeof(entry.second);
    if (place != 0) {
      std::memcpy(&entry.second, reinterpret_cast<const void*>(place), size);
    }
  }
  if (entry.first == Resource::kDescriptor) {
    entry.second = static_cast<std::uint32_t>(entry.second);
  } else if (entry.second == 0 && entry.first != Resource::kApartment) {
    return;
  }
  m_held[entry].emplace_back(call.name);
  m_returned.erase(entry);
}

std::vector<std::string> ResourceLedger::Held() const {
  std::map<std::string, unsigned> counts;
  for (const auto& [entry, functions] : m_held) {
    for (const std::string& function : functions) {
      ++counts[std::string(NameOf(entry.first)) + " from " + function];
    }
  }
  std::vector<std::string> held;
  for (const auto& [what, count] : counts) {
    held.push_back(std::to_string(count) + " " + what);
  }
  return held;
}

std::vector<std::uintptr_t> ResourceLedger::TakeOver(const std::string& function) {
  std::vector<std::uintptr_t> values;
  for (auto entry = m_held.begin(); entry != m_held.end();) {
    auto& functions = entry->second;
    for (auto name = functions.begin(); name != functions.end();) {
      if (*name == function) {
        values.push_back(entry->first.second);
        name = functions.erase(name);
      } else {
        ++name;
      }
    }
    entry = functions.empty() ? m_held.erase(entry) : std::next(entry);
  }
  return values;
}
