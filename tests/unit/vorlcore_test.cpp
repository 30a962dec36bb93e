// The staged sample core module, loaded and called as the service does. Its trace lines go to the
// recording trace library.
#include "modules/vorlcore/vorlcore.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/fakes/vlevtlog_fake.h"
#include "tests/support/installation.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

constexpr DWORD kNever = INFINITE;

class CoreModule : public ::testing::Test {
 protected:
  CoreModule() {
    FakeTraceClear();
    FakeTraceSetCallback(&OnLine, this);
  }
  ~CoreModule() override { FakeTraceSetCallback(nullptr, nullptr); }

  void Load() {
    m_library.emplace(m_installation / "vorlcore.dll");
    m_startUp = m_library->Name<decltype(ClientAgentCoreStartUp)>("ClientAgentCoreStartUp");
    m_cleanUp = m_library->Name<decltype(ClientAgentCoreCleanUp)>("ClientAgentCoreCleanUp");
    ASSERT_NE(m_startUp, nullptr);
    ASSERT_NE(m_cleanUp, nullptr);
  }

  bool StartUp(DWORD interval, const char* text1 = "one") const {
    return m_startUp(text1, "two", "three", "four", 1, 2, 3, 65535, interval, 12, 13, 14, 15, 255,
                     4294967295) != FALSE;
  }
  bool CleanUp(BYTE notify = 1) const {
    return m_cleanUp("one", "two", "three", "four", 1, 11, 12, 13, 4294967295, notify) != FALSE;
  }

  // "<level> <text>" of the lines of one function.
  static std::vector<std::string> LinesOf(const std::string& function) {
    std::vector<std::string> lines;
    for (unsigned i = 0; i < FakeTraceCount(); ++i) {
      FakeTraceLine line{};
      FakeTraceGet(i, &line);
      EXPECT_STREQ(line.moduleName, "vorlcore.dll");
      if (function == line.functionName) {
        lines.push_back(std::to_string(line.level) + " " + line.text);
      }
    }
    return lines;
  }

  // Signalled at the second heartbeat.
  const KernelHandle m_beat{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  DWORD m_beatThread = 0;

  const Installation m_installation{{"vorlcore.dll"}};
  std::optional<Library> m_library;
  decltype(ClientAgentCoreStartUp)* m_startUp = nullptr;
  decltype(ClientAgentCoreCleanUp)* m_cleanUp = nullptr;

 private:
  static void OnLine(const FakeTraceLine* line, void* context) {
    auto* const self = static_cast<CoreModule*>(context);
    if (std::string(line->text) == "Heartbeat 2") {
      self->m_beatThread = line->threadId;
      SetEvent(self->m_beat.Get());
    }
  }
};

TEST_F(CoreModule, ExportsItsTwoFunctionsByName) {
  Load();
  EXPECT_THAT(m_library->ExportedNames(),
              UnorderedElementsAre("ClientAgentCoreStartUp", "ClientAgentCoreCleanUp"));
}

TEST_F(CoreModule, ReportsEveryOptionThatItWasStartedWith) {
  Load();
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp());
  EXPECT_THAT(
      LinesOf("ClientAgentCoreStartUp"),
      ElementsAre("2 Entry", "2 Text1: one", "2 Text2: two", "2 Text3: three", "2 Text4: four",
                  "2 Word1: 1", "2 Word2: 2", "2 Word3: 3", "2 Word4: 65535",
                  "2 Dword1: 4294967295", "2 Dword2: 12", "2 Dword3: 13", "2 Dword4: 14",
                  "2 Dword5: 15", "2 Dword6: 4294967295", "2 Byte1: 255", "2 Exit"));
}

TEST_F(CoreModule, ReportsATextThatFillsItsField) {
  Load();
  const std::string longest(519, 'x');
  EXPECT_TRUE(StartUp(kNever, longest.c_str()));
  EXPECT_TRUE(CleanUp());
  EXPECT_EQ(LinesOf("ClientAgentCoreStartUp")[1], "2 Text1: " + longest);
}

TEST_F(CoreModule, BeatsOnAThreadOfItsOwnUntilCleanUp) {
  Load();
  EXPECT_TRUE(StartUp(1));
  EXPECT_EQ(WaitForSingleObject(m_beat.Get(), 60'000), WAIT_OBJECT_0);
  EXPECT_TRUE(CleanUp());
  EXPECT_NE(m_beatThread, GetCurrentThreadId());
  const std::vector<std::string> lines = LinesOf("Heartbeat::Beat");
  ASSERT_GE(lines.size(), 4U);
  EXPECT_EQ(lines[0], "2 Entry");
  EXPECT_EQ(lines[1], "2 Heartbeat 1");
  EXPECT_EQ(lines[2], "2 Heartbeat 2");
  EXPECT_EQ(lines.back(), "2 Exit");
}

TEST_F(CoreModule, CleanUpDoesNotWaitForTheNextBeat) {
  Load();
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp());
  EXPECT_THAT(LinesOf("Heartbeat::Beat"), ElementsAre("2 Entry", "2 Exit"));
}

TEST_F(CoreModule, CleanUpReportsTheNotifyValue) {
  Load();
  const char* const function = "ClientAgentCoreCleanUp";
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp(1));
  EXPECT_THAT(
      LinesOf(function),
      ElementsAre("2 Entry", "2 Notify value 1: ordinary stop, the server is not told", "2 Exit"));
  FakeTraceClear();
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp(2));
  EXPECT_THAT(
      LinesOf(function),
      ElementsAre("2 Entry", "2 Notify value 2: stopped by the administrator, the server is told",
                  "2 Exit"));
  FakeTraceClear();
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp(7));
  EXPECT_THAT(LinesOf(function), ElementsAre("2 Entry", "1 Notify value 7 is unknown", "2 Exit"));
}

TEST_F(CoreModule, SecondStartIsRefusedAndTheFirstGoesOn) {
  Load();
  EXPECT_TRUE(StartUp(kNever));
  FakeTraceClear();
  EXPECT_FALSE(StartUp(kNever));
  EXPECT_THAT(LinesOf("ClientAgentCoreStartUp"),
              ElementsAre("2 Entry", "1 Core is already started"));
  EXPECT_TRUE(CleanUp());
}

TEST_F(CoreModule, CleanUpWithoutAStartIsRefused) {
  Load();
  EXPECT_FALSE(CleanUp());
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp());
  FakeTraceClear();
  EXPECT_FALSE(CleanUp());
  EXPECT_THAT(LinesOf("ClientAgentCoreCleanUp"), ElementsAre("2 Entry", "1 Core is not started"));
}

TEST_F(CoreModule, MissingTextIsRefused) {
  Load();
  for (int missing = 0; missing < 4; ++missing) {
    FakeTraceClear();
    const char* texts[] = {"one", "two", "three", "four"};
    texts[missing] = nullptr;
    EXPECT_FALSE(
        m_startUp(texts[0], texts[1], texts[2], texts[3], 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
    EXPECT_THAT(LinesOf("ClientAgentCoreStartUp"),
                ElementsAre("2 Entry", "1 NULL Parameter received"));
  }
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp());
}

TEST_F(CoreModule, TextsAreNoFormats) {
  Load();
  EXPECT_TRUE(StartUp(kNever, "100%s %n"));
  EXPECT_TRUE(CleanUp());
  EXPECT_EQ(LinesOf("ClientAgentCoreStartUp")[1], "2 Text1: 100%s %n");
}

TEST_F(CoreModule, CleanUpNeedsNoTexts) {
  Load();
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(m_cleanUp(nullptr, nullptr, nullptr, nullptr, 0, 0, 0, 0, 0, 1));
}

// What the module's calls of Windows meet.
struct Imports {
  static inline decltype(CreateEventW)* createEvent;
  static inline decltype(CloseHandle)* closeHandle;
  static inline decltype(WaitForSingleObject)* wait;
  static inline std::uintptr_t(__cdecl* beginThread)(void*, unsigned, unsigned(__stdcall*)(void*),
                                                     void*, unsigned, unsigned*);
  static inline bool hasEvents;
  static inline bool hasThreads;
  static inline HANDLE event;
  static inline bool isEventClosed;
  static inline DWORD interval;

  static HANDLE WINAPI CreateOne(SECURITY_ATTRIBUTES* security, BOOL isManual, BOOL isSet,
                                 const wchar_t* name) {
    event = hasEvents ? createEvent(security, isManual, isSet, name) : nullptr;
    isEventClosed = false;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return event;
  }
  static BOOL WINAPI CloseOne(HANDLE handle) {
    isEventClosed = isEventClosed || handle == event;
    return closeHandle(handle);
  }
  static std::uintptr_t __cdecl BeginOne(void* security, unsigned stack,
                                         unsigned(__stdcall* function)(void*), void* argument,
                                         unsigned flags, unsigned* id) {
    if (hasThreads) {
      return beginThread(security, stack, function, argument, flags, id);
    }
    SetLastError(ERROR_COMMITMENT_LIMIT);
    return 0;
  }
  // A wait with a limit is told, and lasts until what is waited for happens.
  static DWORD WINAPI WaitForOne(HANDLE handle, DWORD milliseconds) {
    if (milliseconds != INFINITE) {
      interval = milliseconds;
    }
    return wait(handle, INFINITE);
  }
};

TEST_F(CoreModule, StartFailsWithoutAnEventAndCanBeTriedAgain) {
  Load();
  Imports::createEvent = m_library->ReplaceImport("CreateEventW", &Imports::CreateOne);
  Imports::hasEvents = false;
  EXPECT_FALSE(StartUp(kNever));
  EXPECT_THAT(LinesOf("Heartbeat::Start"), ElementsAre("1 CreateEvent Failed 8"));
  EXPECT_EQ(LinesOf("ClientAgentCoreStartUp").back(), "1 Heartbeat cannot be started");
  EXPECT_FALSE(CleanUp());
  Imports::hasEvents = true;
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp());
}

TEST_F(CoreModule, StartFailsWithoutAThreadClosesTheEventAndCanBeTriedAgain) {
  Load();
  Imports::createEvent = m_library->ReplaceImport("CreateEventW", &Imports::CreateOne);
  Imports::closeHandle = m_library->ReplaceImport("CloseHandle", &Imports::CloseOne);
  Imports::beginThread = m_library->ReplaceImport("_beginthreadex", &Imports::BeginOne);
  Imports::hasEvents = true;
  Imports::hasThreads = false;
  EXPECT_FALSE(StartUp(kNever));
  EXPECT_TRUE(Imports::isEventClosed);
  EXPECT_THAT(LinesOf("Heartbeat::Start"), ElementsAre("1 _beginthreadex Failed 1455"));
  EXPECT_EQ(LinesOf("ClientAgentCoreStartUp").back(), "1 Heartbeat cannot be started");
  EXPECT_FALSE(CleanUp());
  Imports::hasThreads = true;
  EXPECT_TRUE(StartUp(kNever));
  EXPECT_TRUE(CleanUp());
}

TEST_F(CoreModule, IntervalOfZeroMeansAMinute) {
  Load();
  Imports::wait = m_library->ReplaceImport("WaitForSingleObject", &Imports::WaitForOne);
  for (const auto& [given, meant] : {std::pair(DWORD{0}, DWORD{60'000}), {7, 7}}) {
    EXPECT_TRUE(StartUp(given));
    EXPECT_TRUE(CleanUp());
    EXPECT_EQ(Imports::interval, meant);
  }
}

TEST_F(CoreModule, OfTwoStartsAtOnceOneIsRefused) {
  Load();
  for (int round = 0; round < 50; ++round) {
    const KernelHandle go(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    bool isStarted[2] = {};
    std::vector<std::thread> threads;
    for (bool& result : isStarted) {
      threads.emplace_back([&] {
        WaitForSingleObject(go.Get(), INFINITE);
        result = StartUp(kNever);
      });
    }
    SetEvent(go.Get());
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_NE(isStarted[0], isStarted[1]);
    EXPECT_TRUE(CleanUp());
  }
}

TEST_F(CoreModule, CanBeUnloadedAfterEveryCleanUp) {
  for (int round = 0; round < 20; ++round) {
    Load();
    EXPECT_TRUE(StartUp(1));
    EXPECT_TRUE(CleanUp());
    m_library->Free();
    EXPECT_EQ(GetModuleHandleW((m_installation / "vorlcore.dll").c_str()), nullptr);
  }
}

}  // namespace
