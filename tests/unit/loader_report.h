// How the processes of loader_test.cpp tell the test what happened in them.
#pragma once

#include <atomic>
#include <string>

#include "support/handle.h"
#include "support/windows_api.h"

// A limit that only a defect reaches.
constexpr DWORD kLoaderTestLimit = 30'000;

// Name of the section that holds the report, from which the events' names follow.
constexpr char kReportVariable[] = "VORL_LOADER_REPORT";

// Shared by the test, the process and the module that is loaded into it.
struct LoaderReport {
  std::atomic<int> writesWhenLoaded;  // set by the test: lines that the module writes
  std::atomic<int> writesWhenUnloaded;
  std::atomic<int> staysUntilFirstLine;  // the module's DllMain returns only then
  std::atomic<int> missedEvents;         // waits that ended by the limit
  std::atomic<int> isEnding;             // the process has asked for its end
  std::atomic<int> sleepsWhileEnding;    // of the trace library
};

struct LoaderReportTraits {
  using Type = LoaderReport*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type view) noexcept { UnmapViewOfFile(view); }
};
using LoaderReportView = UniqueHandle<LoaderReportTraits>;

inline LoaderReportView MapReport(HANDLE section) {
  return LoaderReportView(static_cast<LoaderReport*>(
      MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, sizeof(LoaderReport))));
}

inline LoaderReportView OpenReport() {
  char name[100] = {};
  GetEnvironmentVariableA(kReportVariable, name, sizeof name);
  const KernelHandle section(OpenFileMappingA(FILE_MAP_WRITE, FALSE, name));
  return MapReport(section.Get());
}

// Something that happens once in the process. The test has all of them from the beginning, for what
// is signalled would be forgotten with the last handle.
class LoaderEvent {
 public:
  explicit LoaderEvent(const char* what) {
    char name[100] = {};
    GetEnvironmentVariableA(kReportVariable, name, sizeof name);
    m_event.Reset(CreateEventA(nullptr, TRUE, FALSE, (std::string(name) + what).c_str()));
  }
  void Reset() const { ResetEvent(m_event.Get()); }
  void Set() const { SetEvent(m_event.Get()); }
  void Await(LoaderReport& report) const {
    if (WaitForSingleObject(m_event.Get(), kLoaderTestLimit) != WAIT_OBJECT_0) {
      ++report.missedEvents;
    }
  }

 private:
  KernelHandle m_event;
};

constexpr char kFirstLineIsUnderWay[] = "_under_way";
constexpr char kFirstLineIsWritten[] = "_first";
constexpr char kModuleIsLoading[] = "_loading";
constexpr char kModuleHasWritten[] = "_module";
