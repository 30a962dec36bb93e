// Does something with a staged library and ends at one of its calls:
//
//   death_victim trace|update FOLDER NUMBER at|in
//
// FOLDER is an installation. The process ends in front of call NUMBER of the library, or in the
// middle of what that call was to transfer. Exit codes: kEndedAtCall, 0 when there are fewer calls.
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "modules/vorlupd/vorlupd.h"
#include "support/vlevtlog.h"
#include "tests/fakes/vlevtlog_fake.h"
#include "tests/faults/death.h"
#include "tests/support/call_hooks.h"
#include "tests/support/installation.h"

namespace {

class EndAtCall : public CallListener {
 public:
  EndAtCall(unsigned number, bool isIn) : m_number(number), m_isIn(isIn) {}

  Verdict OnCall(const HookedCall& call) override {
    Verdict verdict;
    if (IsDeathPoint(call.facts, m_isIn) && ++m_calls == m_number) {
      verdict.kind = m_isIn ? Verdict::Kind::kEndIn : Verdict::Kind::kEndAt;
    }
    return verdict;
  }
  void OnReturn(const HookedCall&, std::uintptr_t, bool) override {}
  void OnUnexpected(const char*) override {}

 private:
  const unsigned m_number;
  const bool m_isIn;
  unsigned m_calls = 0;
};

int WriteLines(const std::filesystem::path& folder, EndAtCall& end) {
  const Library library(folder / "vlevtlog.dll");
  auto* const logTrace = library.Ordinal<decltype(LogTrace)>(2);
  std::ofstream progress(folder / kDeathProgress, std::ios::binary);
  const CallHooks hooks(end, {library.Handle()});
  for (unsigned i = 1; i <= kDeathLines; ++i) {
    logTrace(kTraceLevelInfo, "module", "f", "s.cpp", 1, "line %u.", i);
    progress.put('x').flush();
  }
  return EXIT_SUCCESS;
}

int ApplyUpdate(const std::filesystem::path& folder, EndAtCall& end) {
  // Also brings the recording trace library into the process.
  FakeTraceClear();
  const Library library(folder / "vorlupd.dll");
  const CallHooks hooks(end, {library.Handle()});
  auto* const update =
      library.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService");
  return update() != FALSE ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    return EXIT_FAILURE;
  }
  EndAtCall end(static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)),
                std::string_view(argv[4]) == "in");
  return std::string_view(argv[1]) == "trace" ? WriteLines(argv[2], end)
                                              : ApplyUpdate(argv[2], end);
}
