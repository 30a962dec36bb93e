// Input as somebody who means harm, a torn disk or another program may leave it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/long_run.h"
#include "tests/support/watchdog.h"

constexpr unsigned kLongMutations = 1'000'000;

// Changes samples at random, the same way for the same seed, which every program of tests prints.
class Mutator {
 public:
  // `pieces`: what has a meaning in the input, and is therefore put in here and there.
  Mutator(std::vector<std::string> samples, std::vector<std::string> pieces)
      : m_random(static_cast<unsigned>(GTEST_FLAG_GET(random_seed))),
        m_samples(std::move(samples)),
        m_pieces(std::move(pieces)) {}

  unsigned Below(std::size_t limit) { return static_cast<unsigned>(m_random() % limit); }

  // A sample with up to eight changes.
  std::string Next() {
    std::string input = Sample();
    for (unsigned changes = 1 + Below(8); changes != 0; --changes) {
      Change(input);
    }
    return input;
  }

 private:
  const std::string& Sample() { return m_samples[Below(m_samples.size())]; }

  void Change(std::string& input) {
    const std::size_t at = Below(input.size() + 1);
    const std::size_t length = Below(input.size() - at + 1);
    switch (Below(8)) {
      case 0:
        if (at < input.size()) {
          input[at] = static_cast<char>(static_cast<unsigned char>(input[at]) ^ (1U << Below(8)));
        }
        break;
      case 1:
        if (at < input.size()) {
          input[at] = static_cast<char>(Below(256));
        }
        break;
      case 2:
        input.insert(at, 1, static_cast<char>(Below(256)));
        break;
      case 3:
        input.erase(at, length);
        break;
      case 4:
        input.resize(at);
        break;
      case 5:
        input.insert(at, input.substr(Below(input.size() + 1), 64));
        break;
      case 6: {
        const std::string& other = Sample();
        input = input.substr(0, at) + other.substr(Below(other.size() + 1));
        break;
      }
      default:
        input.insert(at, m_pieces[Below(m_pieces.size())]);
        break;
    }
  }

  std::mt19937 m_random;
  std::vector<std::string> m_samples;
  std::vector<std::string> m_pieces;
};

// Calls `test` with so many inputs, or with the million of the long form. A failure prints its
// input.
template <typename Test>
void ForEachMutation(const char* name, Mutator& mutator, unsigned bounded, Test test) {
  constexpr unsigned roundsOfOneWatch = 1000;
  const unsigned rounds = IsLongRun() ? kLongMutations : bounded;
  for (unsigned round = 0; round < rounds; ++round) {
    if (round % roundsOfOneWatch == 0) {
      WatchTest(name);
    }
    const std::string input = mutator.Next();
    test(input);
    if (testing::Test::HasFailure()) {
      std::string bytes;
      char digits[4];
      for (const char byte : input) {
        std::snprintf(digits, sizeof(digits), "%02X ", static_cast<unsigned char>(byte));
        bytes += digits;
      }
      FAIL() << name << ": input " << round << ": " << bytes;
    }
  }
  std::printf("%s: inputs %u\n", name, rounds);
}

// Text right in front of a page that cannot be read: whoever reads behind its end crashes.
class GuardedText {
 public:
  static constexpr std::size_t kPage = 4096;
  static constexpr std::size_t kLargest = 16 * kPage;

  GuardedText()
      : m_pages(static_cast<char*>(
            VirtualAlloc(nullptr, kLargest + kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE))) {
    DWORD before = 0;
    VirtualProtect(m_pages + kLargest, kPage, PAGE_NOACCESS, &before);
  }
  ~GuardedText() { VirtualFree(m_pages, 0, MEM_RELEASE); }
  GuardedText(const GuardedText&) = delete;
  GuardedText& operator=(const GuardedText&) = delete;

  // A copy of what fits of `text`, without a terminator.
  std::string_view Copy(std::string_view text) {
    text = text.substr(0, kLargest);
    char* const place = m_pages + kLargest - text.size();
    std::memcpy(place, text.data(), text.size());
    return {place, text.size()};
  }

 private:
  char* m_pages;
};

// A value between bytes that nobody may write.
template <typename Value>
struct Guarded {
  static constexpr unsigned char kCanary = 0xC7;

  Guarded() {
    std::memset(before, kCanary, sizeof(before));
    std::memset(behind, kCanary, sizeof(behind));
  }
  bool IsUntouched() const {
    for (std::size_t i = 0; i < sizeof(before); ++i) {
      if (before[i] != kCanary || behind[i] != kCanary) {
        return false;
      }
    }
    return true;
  }

  unsigned char before[64];
  Value value{};
  unsigned char behind[64];
};
