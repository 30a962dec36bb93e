// A module of another maker that writes into the trace from within its DllMain.
#include "support/vlevtlog.h"
#include "support/windows_api.h"
#include "tests/unit/loader_report.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved);

namespace {

void WriteLines(const char* when, int count) {
  for (int i = 1; i <= count; ++i) {
    LogTrace(kTraceLevelInfo, "module", "DllMain", "module.cpp", i, "%s", when);
  }
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  const LoaderReportView report = OpenReport();
  if (reason == DLL_PROCESS_ATTACH) {
    LoaderEvent(kModuleIsLoading).Set();
    WriteLines("loaded", report.Get()->writesWhenLoaded);
    LoaderEvent(kModuleHasWritten).Set();
    if (report.Get()->staysUntilFirstLine != 0) {
      LoaderEvent(kFirstLineIsWritten).Await(*report.Get());
    }
  } else if (reason == DLL_PROCESS_DETACH) {
    WriteLines("unloaded", report.Get()->writesWhenUnloaded);
  }
  return TRUE;
}
