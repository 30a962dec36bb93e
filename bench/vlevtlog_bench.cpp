// The trace library against spdlog's rotating file, flushed at every line, and against the floor: a
// bare append of the same bytes. All take turns in one run; medians of the rounds are compared.
//
//   vlevtlog_bench VLEVTLOG.DLL [LINES [ROUNDS]]
//
// VLEVTLOG.DLL: a copy of the library in a folder of its own, into which it writes.
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/handle.h"
#include "support/vlevtlog.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kThreads = 4;
constexpr unsigned kProcesses = 4;
constexpr std::size_t kFileSize = 5120 * 1024;
constexpr std::size_t kFiles = 10;
constexpr char kModule[] = "vorlsrvc.exe";
constexpr char kFunction[] = "CNTService::StartService";
constexpr char kSource[] = "service/ntservc.cpp";
constexpr int kSourceLine = 123;

// Something that writes lines, from several threads at once.
class Contestant {
 public:
  virtual ~Contestant() = default;
  virtual void Write(unsigned lines) = 0;
};

class TraceLibrary : public Contestant {
 public:
  explicit TraceLibrary(const fs::path& file)
      : m_module(LoadLibraryW(file.c_str())),
        m_logTrace(reinterpret_cast<decltype(&LogTrace)>(
            reinterpret_cast<void*>(GetProcAddress(m_module.Get(), MAKEINTRESOURCEA(2))))) {}
  void Write(unsigned lines) override { Write(kTraceLevelInfo, lines); }
  void Write(int level, unsigned lines) {
    for (unsigned i = 0; i < lines; ++i) {
      m_logTrace(level, kModule, kFunction, kSource, kSourceLine,
                 "service reports state %u with code %u", i, 5U);
    }
  }

 private:
  Module m_module;
  decltype(&LogTrace) m_logTrace;
};

class Spdlog : public Contestant {
 public:
  explicit Spdlog(const fs::path& folder)
      : m_logger(kModule, std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
                              (folder / "spdlog.log").string(), kFileSize, kFiles - 1)) {
    m_logger.set_pattern("%Y-%m-%d %H:%M:%S.%e %z %l %P %t %n %! %@ %v");
    m_logger.flush_on(spdlog::level::trace);
  }
  void Write(unsigned lines) override {
    for (unsigned i = 0; i < lines; ++i) {
      m_logger.log(spdlog::source_loc{kSource, kSourceLine, kFunction}, spdlog::level::info,
                   "service reports state {} with code {}", i, 5U);
    }
  }

 private:
  spdlog::logger m_logger;
};

// Nothing but the system call, in one file that grows. A lock keeps its threads' lines whole.
class BareAppend : public Contestant {
 public:
  explicit BareAppend(const fs::path& folder)
      : m_file(CreateFileW((folder / "append.log").c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
  void Write(unsigned lines) override {
    static constexpr std::string_view kLine =
        "2026-11-21 04:16:40.612 +00:00 INFO 484 496 vorlsrvc.exe CNTService::StartService "
        "service/ntservc.cpp:123 service reports state 12345 with code 5\r\n";
    for (unsigned i = 0; i < lines; ++i) {
      DWORD written = 0;
      AcquireSRWLockExclusive(&m_lock);
      WriteFile(m_file.Get(), kLine.data(), static_cast<DWORD>(kLine.size()), &written, nullptr);
      ReleaseSRWLockExclusive(&m_lock);
    }
  }

 private:
  FileHandle m_file;
  SRWLOCK m_lock = SRWLOCK_INIT;
};

using Clock = std::chrono::steady_clock;

double NanosecondsSince(Clock::time_point start, unsigned lines) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / lines;
}

double MeasureThreads(Contestant& contestant, unsigned threads, unsigned lines) {
  const Clock::time_point start = Clock::now();
  std::vector<std::thread> running;
  for (unsigned i = 0; i < threads; ++i) {
    running.emplace_back([&] { contestant.Write(lines / threads); });
  }
  for (std::thread& thread : running) {
    thread.join();
  }
  return NanosecondsSince(start, lines);
}

// The whole of it: processes that have everything loaded and wait for the gate to open.
double MeasureProcesses(const std::string& contestant, const fs::path& folder, unsigned lines) {
  const std::wstring gateName = L"vorlbench_" + std::to_wstring(GetCurrentProcessId());
  const KernelHandle gate(CreateEventW(nullptr, TRUE, FALSE, gateName.c_str()));
  const KernelHandle ready(
      CreateSemaphoreW(nullptr, 0, kProcesses, (gateName + L"_ready").c_str()));
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  std::vector<KernelHandle> processes;
  for (unsigned i = 0; i < kProcesses; ++i) {
    const fs::path own = folder / ("process" + std::to_string(i));
    fs::create_directories(own);
    const fs::path& where = contestant == "trace" ? folder : own;
    std::wstring command = L"\"" + std::wstring(program) + L"\" --child " +
                           fs::path(contestant).wstring() + L" \"" + where.wstring() + L"\" " +
                           std::to_wstring(lines / kProcesses) + L" " + gateName;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &process)) {
      std::abort();
    }
    CloseHandle(process.hThread);
    processes.emplace_back(process.hProcess);
  }
  for (unsigned i = 0; i < kProcesses; ++i) {
    WaitForSingleObject(ready.Get(), INFINITE);
  }
  const Clock::time_point start = Clock::now();
  SetEvent(gate.Get());
  for (const KernelHandle& process : processes) {
    WaitForSingleObject(process.Get(), INFINITE);
  }
  return NanosecondsSince(start, lines);
}

std::unique_ptr<Contestant> Make(const std::string& name, const fs::path& folder) {
  if (name == "trace") {
    return std::make_unique<TraceLibrary>(folder / "vlevtlog.dll");
  }
  if (name == "spdlog") {
    return std::make_unique<Spdlog>(folder);
  }
  return std::make_unique<BareAppend>(folder);
}

int RunChild(const std::string& name, const fs::path& folder, unsigned lines,
             const std::string& gateName) {
  const std::unique_ptr<Contestant> contestant = Make(name, folder);
  contestant->Write(1);
  const KernelHandle gate(OpenEventA(SYNCHRONIZE, FALSE, gateName.c_str()));
  const KernelHandle ready(
      OpenSemaphoreA(SEMAPHORE_MODIFY_STATE, FALSE, (gateName + "_ready").c_str()));
  ReleaseSemaphore(ready.Get(), 1, nullptr);
  WaitForSingleObject(gate.Get(), INFINITE);
  contestant->Write(lines);
  return EXIT_SUCCESS;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

constexpr const char* kNames[] = {"trace", "spdlog", "append"};

void Report(const char* title, std::map<std::string, std::vector<double>>& times) {
  const double trace = Median(times["trace"]);
  printf("%s\n", title);
  for (const char* const name : kNames) {
    const double median = Median(times[name]);
    const auto [low, high] = std::minmax_element(times[name].begin(), times[name].end());
    printf("  %-7s %7.0f ns a line (%.0f to %.0f), %9.0f lines/s, %.2f times the trace's time\n",
           name, median, *low, *high, 1e9 / median, median / trace);
  }
}

void Run(const fs::path& folder, unsigned lines, unsigned rounds) {
  std::map<std::string, std::vector<double>> one;
  std::map<std::string, std::vector<double>> several;
  std::map<std::string, std::vector<double>> processes;
  for (unsigned round = 0; round < rounds; ++round) {
    for (const char* const name : kNames) {
      const std::unique_ptr<Contestant> contestant = Make(name, folder);
      contestant->Write(1);
      one[name].push_back(MeasureThreads(*contestant, 1, lines));
      several[name].push_back(MeasureThreads(*contestant, kThreads, lines));
    }
    for (const char* const name : kNames) {
      processes[name].push_back(MeasureProcesses(name, folder, lines));
    }
  }
  Report("One thread", one);
  Report("Four threads", several);
  Report("Four processes (the trace: one file; the others: a file for each process)", processes);

  fs::create_directories(folder / "conf");
  if (FILE* const configuration = fopen((folder / "conf" / "vorlconf.ini").string().c_str(), "w")) {
    fputs("[TRACE]\nLevels=ERROR,INFO\n", configuration);
    fclose(configuration);
  }
  TraceLibrary trace(folder / "vlevtlog.dll");
  trace.Write(1);
  const unsigned calls = 10 * lines;
  const Clock::time_point start = Clock::now();
  trace.Write(kTraceLevelVerbose, calls);
  printf("A line of a level that is off\n  trace   %7.1f ns\n", NanosecondsSince(start, calls));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::string_view(argv[1]) == "--child") {
    return RunChild(argv[2], argv[3], static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)),
                    argv[5]);
  }
  if (argc < 2) {
    fprintf(stderr, "usage: vlevtlog_bench VLEVTLOG.DLL [LINES [ROUNDS]]\n");
    return EXIT_FAILURE;
  }
  const fs::path library = fs::absolute(argv[1]);
  if (!fs::exists(library)) {
    fprintf(stderr, "%s is not there\n", argv[1]);
    return EXIT_FAILURE;
  }
  Run(library.parent_path(),
      argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 100000,
      argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)) : 7);
  return EXIT_SUCCESS;
}
