#include "modules/vorlcore/vorlcore.h"

#include <atomic>

#include "modules/vorlcore/heartbeat.h"
#include "support/trace.h"

namespace {

constexpr DWORD kDefaultIntervalMilliseconds = 60'000;

enum class State { kStopped, kChanging, kStarted };

std::atomic<State> g_state{State::kStopped};
Heartbeat g_heartbeat;

// Set while the module is loaded, before anything can write a line.
[[maybe_unused]] const bool g_isNamed = []() noexcept {
  g_pszModuleName = "vorlcore.dll";
  return true;
}();

// Of several callers at the same time only one gets true.
bool Leave(State from) noexcept { return g_state.compare_exchange_strong(from, State::kChanging); }

}  // namespace

BOOLEAN ClientAgentCoreStartUp(const char* text1, const char* text2, const char* text3,
                               const char* text4, WORD word1, WORD word2, WORD word3, WORD word4,
                               DWORD dword1, DWORD dword2, DWORD dword3, DWORD dword4, DWORD dword5,
                               BYTE byte1, DWORD dword6) {
  constexpr Trace trace{"ClientAgentCoreStartUp"};
  trace.Info("Entry");
  if (text1 == nullptr || text2 == nullptr || text3 == nullptr || text4 == nullptr) {
    trace.Error("NULL Parameter received");
    return FALSE;
  }
  if (!Leave(State::kStopped)) {
    trace.Error("Core is already started");
    return FALSE;
  }
  trace.InfoDirect("Text1: %s", text1);
  trace.InfoDirect("Text2: %s", text2);
  trace.InfoDirect("Text3: %s", text3);
  trace.InfoDirect("Text4: %s", text4);
  trace.Info("Word1: %u", DWORD{word1});
  trace.Info("Word2: %u", DWORD{word2});
  trace.Info("Word3: %u", DWORD{word3});
  trace.Info("Word4: %u", DWORD{word4});
  trace.Info("Dword1: %u", dword1);
  trace.Info("Dword2: %u", dword2);
  trace.Info("Dword3: %u", dword3);
  trace.Info("Dword4: %u", dword4);
  trace.Info("Dword5: %u", dword5);
  trace.Info("Dword6: %u", dword6);
  trace.Info("Byte1: %u", DWORD{byte1});

  if (!g_heartbeat.Start(dword1 != 0 ? dword1 : kDefaultIntervalMilliseconds)) {
    trace.Error("Heartbeat cannot be started");
    g_state = State::kStopped;
    return FALSE;
  }
  g_state = State::kStarted;
  trace.Info("Exit");
  return TRUE;
}

BOOLEAN ClientAgentCoreCleanUp(const char* /*text1*/, const char* /*text2*/, const char* /*text3*/,
                               const char* /*text4*/, WORD /*word1*/, DWORD /*dword1*/,
                               DWORD /*dword2*/, DWORD /*dword3*/, DWORD /*dword6*/, BYTE notify) {
  constexpr Trace trace{"ClientAgentCoreCleanUp"};
  trace.Info("Entry");
  if (!Leave(State::kStarted)) {
    trace.Error("Core is not started");
    return FALSE;
  }
  switch (notify) {
    case kNotifyNone:
      trace.Info("Notify value 1: ordinary stop, the server is not told");
      break;
    case kNotifyServer:
      trace.Info("Notify value 2: stopped by the administrator, the server is told");
      break;
    default:
      trace.Error("Notify value %u is unknown", DWORD{notify});
      break;
  }
  g_heartbeat.Stop();
  g_state = State::kStopped;
  trace.Info("Exit");
  return TRUE;
}
