// Several processes with several threads write numbered lines through the staged trace library;
// afterwards every line is looked for in the files. In the long form 46 processes are
// terminated meanwhile, else fewer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/windows_api.h"

// Reads the types of windows.h.
#include <shellapi.h>

#include "support/handle.h"
#include "support/vlevtlog.h"
#include "tests/stress/stress_lines.h"
#include "tests/support/installation.h"
#include "tests/support/long_run.h"
#include "tests/support/start_process.h"
#include "tests/support/test_run.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kProcesses = 6;
constexpr unsigned kMostWriters = 4096;
constexpr unsigned kEverydayLines = 2000;
constexpr unsigned kFullLines = 30000;
constexpr unsigned kLinesUntilBegun = 10;
constexpr unsigned kEndless = 0xFFFFFFFF;
constexpr unsigned kEverydayTerminations = 10;
constexpr unsigned kFullTerminations = 46;
// Some hundred lines.
constexpr unsigned kSmallFileKb = 64;
constexpr DWORD kTerminationInterval = 100;
constexpr DWORD kHoldInterval = 30;
constexpr DWORD kCollectInterval = 20;

// Filled by the writers, read by the test when they are gone.
struct Progress {
  // The number of the last line whose call returned.
  std::array<std::array<std::atomic<std::uint32_t>, kThreads>, kMostWriters> returned;
  std::atomic<std::uint64_t> longestCall;  // microseconds
};

std::uint64_t Microseconds() {
  LARGE_INTEGER frequency;
  LARGE_INTEGER now;
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&now);
  const auto perSecond = static_cast<std::uint64_t>(frequency.QuadPart);
  return static_cast<std::uint64_t>(now.QuadPart) * 1000 / perSecond * 1000 +
         static_cast<std::uint64_t>(now.QuadPart) * 1000 % perSecond * 1000 / perSecond;
}

void Raise(std::atomic<std::uint64_t>& longest, std::uint64_t value) {
  std::uint64_t known = longest.load();
  while (known < value && !longest.compare_exchange_weak(known, value)) {
  }
}

struct ViewTraits {
  using Type = Progress*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type view) noexcept { UnmapViewOfFile(view); }
};
using ProgressView = UniqueHandle<ViewTraits>;

ProgressView Map(HANDLE section) {
  return ProgressView(
      static_cast<Progress*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, sizeof(Progress))));
}

// Set by a writer that has written some lines.
std::wstring BegunEventName(const std::wstring& sectionName, unsigned writer) {
  return sectionName + L"_" + std::to_wstring(writer);
}

fs::path OwnProgram() {
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  return program;
}

// What a writing process does. `hasModule`: it loads the module that writes, too, and ends while
// its threads write.
int WriteLines(const wchar_t* libraryFile, const wchar_t* sectionName, unsigned writer,
               unsigned lines, bool hasModule) {
  const Library library{fs::path(libraryFile)};
  if (hasModule) {
    SetEnvironmentVariableA(kWriterVariable, std::to_string(writer).c_str());
    LoadLibraryW((OwnProgram().parent_path() / "stress_module.dll").c_str());
  }
  const KernelHandle section(OpenFileMappingW(FILE_MAP_WRITE, FALSE, sectionName));
  const ProgressView progress = Map(section.Get());
  auto* const logTrace = library.Ordinal<decltype(LogTrace)>(2);
  if (!progress || logTrace == nullptr) {
    return EXIT_FAILURE;
  }
  const KernelHandle hasBegun(OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE,
                                         BegunEventName(sectionName, writer).c_str()));
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([=, &progress, &hasBegun] {
      for (unsigned number = 1; number <= lines; ++number) {
        if (number == kLinesUntilBegun) {
          SetEvent(hasBegun.Get());
        }
        const std::uint64_t start = Microseconds();
        WriteLine(logTrace, writer, thread, number);
        Raise(progress.Get()->longestCall, Microseconds() - start);
        progress.Get()->returned[writer][thread].store(number, std::memory_order_release);
      }
    });
  }
  if (hasModule) {
    WaitForSingleObject(hasBegun.Get(), INFINITE);
    ExitProcess(EXIT_SUCCESS);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return EXIT_SUCCESS;
}

class TraceUnderStress : public testing::Test {
 protected:
  TraceUnderStress()
      : m_sectionName(L"vorlstress_" + std::to_wstring(GetCurrentProcessId())),
        m_section(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                     sizeof(Progress), m_sectionName.c_str())),
        m_progress(Map(m_section.Get())) {
    fs::create_directories(Kept());
    Configure(kSmallFileKb);
  }

  struct Writer {
    KernelHandle process;
    KernelHandle hasBegun;
  };

  fs::path Kept() const { return m_installation / "kept"; }

  // Moves the full files out of the trace's reach, where none of them is deleted however many there
  // are; except the youngest, whose number is what the next one is counted from.
  void Collect() const {
    std::vector<fs::path> full;
    std::error_code ignored;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(m_installation / "logs", ignored)) {
      const std::string name = entry.path().filename().string();
      if (name.find_first_of("0123456789") != std::string::npos) {
        full.push_back(entry.path());
      }
    }
    std::sort(full.begin(), full.end());
    for (std::size_t i = 0; i + 1 < full.size(); ++i) {
      fs::rename(full[i], Kept() / full[i].filename(), ignored);
    }
  }

  // Waits for the writers, and collects meanwhile.
  void CollectUntil(const std::vector<Writer>& writers) const {
    for (const Writer& writer : writers) {
      while (WaitForSingleObject(writer.process.Get(), kCollectInterval) == WAIT_TIMEOUT) {
        Collect();
      }
    }
  }

  void Configure(unsigned fileSizeKb) const {
    WriteText(m_installation / "conf" / "vorlconf.ini",
              "[TRACE]\r\nFileSizeKB=" + std::to_string(fileSizeKb) + "\r\nFiles=1000\r\n");
    LetRest(m_installation / "conf" / "vorlconf.ini");
  }

  Writer StartWriter(unsigned lines, const wchar_t* mode = L"--write") {
    const unsigned writer = m_writers++;
    EXPECT_LT(writer, kMostWriters);
    KernelHandle hasBegun(
        CreateEventW(nullptr, TRUE, FALSE, BegunEventName(m_sectionName, writer).c_str()));
    const std::wstring command = L"\"" + OwnProgram().wstring() + L"\" " + mode + L" \"" +
                                 (m_installation / "vlevtlog.dll").wstring() + L"\" " +
                                 m_sectionName + L" " + std::to_wstring(writer) + L" " +
                                 std::to_wstring(lines);
    return {StartProcess(command).process, std::move(hasBegun)};
  }

  // Waits for writers that nobody ends.
  static void Finish(const std::vector<Writer>& writers) {
    for (const Writer& writer : writers) {
      WaitForSingleObject(writer.process.Get(), INFINITE);
      DWORD exitCode = EXIT_FAILURE;
      GetExitCodeProcess(writer.process.Get(), &exitCode);
      EXPECT_EQ(exitCode, static_cast<DWORD>(EXIT_SUCCESS));
    }
  }

  static void Terminate(const Writer& writer) {
    TerminateProcess(writer.process.Get(), EXIT_FAILURE);
    WaitForSingleObject(writer.process.Get(), INFINITE);
  }

  // By writer and thread.
  using LastNumbers = std::map<std::pair<unsigned, unsigned>, std::uint32_t>;

  // Every line whose call returned is there once, whole, and in order; besides these only lines
  // whose call was about to return. Lines that a process had to keep in a file of its own, as the
  // trace says itself, are in order there.
  void CheckFiles(std::size_t fewestFiles) {
    std::vector<fs::path> files;
    for (const fs::path& folder : {m_installation / "logs", Kept()}) {
      for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (entry.path().extension() == ".log") {
          files.push_back(entry.path());
        }
      }
    }
    // The numbers have leading zeros, and digits come before letters.
    std::sort(files.begin(), files.end(), [](const fs::path& one, const fs::path& other) {
      return one.filename() < other.filename();
    });
    EXPECT_GE(files.size(), fewestFiles);
    EXPECT_EQ(files.back().filename(), "vorltrace.log");
    std::set<std::string> ownFiles;
    for (const fs::path& file : files) {
      FindOwnFiles(file, ownFiles);
    }
    LastNumbers last;
    for (const fs::path& file : files) {
      LastNumbers lastOfFile;
      CheckFile(file, ownFiles.contains(file.filename().string()) ? lastOfFile : last);
    }
    std::uint64_t total = 0;
    for (unsigned writer = 0; writer < m_writers; ++writer) {
      for (unsigned thread = 0; thread < kThreads; ++thread) {
        const std::uint32_t returned = m_progress.Get()->returned[writer][thread];
        std::vector<std::uint32_t>& found = m_found[{writer, thread}];
        std::sort(found.begin(), found.end());
        for (std::uint32_t i = 0; i < found.size(); ++i) {
          ASSERT_EQ(found[i], i + 1) << "writer " << writer << " thread " << thread;
        }
        EXPECT_GE(found.size(), returned) << "writer " << writer << " thread " << thread;
        EXPECT_LE(found.size(), returned + 1) << "writer " << writer << " thread " << thread;
        total += found.size();
      }
    }
    printf(
        "%u processes of %u threads, %llu lines, %u files (%u of one process), longest call "
        "%.3f ms\n",
        m_writers, kThreads, total, static_cast<unsigned>(files.size()),
        static_cast<unsigned>(ownFiles.size()),
        static_cast<double>(m_progress.Get()->longestCall) / 1000);
  }

  const unsigned m_lines = IsLongRun() ? kFullLines : kEverydayLines;
  const Installation m_installation{{"vlevtlog.dll"}};
  const std::wstring m_sectionName;
  const KernelHandle m_section;
  const ProgressView m_progress;
  unsigned m_writers = 0;
  // The numbers of each writer's thread, as they stand in the files.
  std::map<std::pair<unsigned, unsigned>, std::vector<std::uint32_t>> m_found;

 private:
  static constexpr std::string_view kElsewhere = " lines are in ";

  // The trace says of which files one process alone wrote them.
  static void FindOwnFiles(const fs::path& file, std::set<std::string>& names) {
    std::ifstream in(file, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
      const std::size_t elsewhere = line.find(kElsewhere);
      if (elsewhere != std::string::npos) {
        const std::string name = line.substr(elsewhere + kElsewhere.size());
        names.insert(name.substr(0, name.find(": ")));
      }
    }
  }

  void CheckFile(const fs::path& file, LastNumbers& last) {
    std::ifstream in(file, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
      ASSERT_FALSE(in.eof()) << file << " ends in the middle of a line: " << line;
      CheckLine(line, last);
      ASSERT_FALSE(HasFatalFailure()) << file;
    }
  }

  void CheckLine(std::string_view line, LastNumbers& lastNumbers) {
    static constexpr std::string_view kMark = " stress.exe Writer stress.cpp:";
    // What the trace says of itself.
    if (line.substr(30, 7) == " ERROR " && line.find(" vlevtlog.dll ") != std::string_view::npos) {
      return;
    }
    const std::size_t mark = line.find(kMark);
    ASSERT_NE(mark, std::string_view::npos) << line;
    // 2026-03-09 07:05:02.041 +01:00 INFO process thread
    ASSERT_EQ(line.substr(30, 6), " INFO ") << line;
    ASSERT_EQ(line.find_first_not_of("0123456789 ", 36), mark + 1) << line;
    std::string_view rest = line.substr(mark + kMark.size());
    const unsigned place = TakeNumber(rest, "");
    const unsigned writer = TakeNumber(rest, " w=");
    const unsigned thread = TakeNumber(rest, " t=");
    const unsigned number = TakeNumber(rest, " n=");
    ASSERT_EQ(rest, " [" + FillerOf(number) + "]\r") << line;
    ASSERT_EQ(place, thread) << line;
    ASSERT_LT(writer, m_writers) << line;
    std::uint32_t& last = lastNumbers[{writer, thread}];
    ASSERT_GT(number, last) << line;
    last = number;
    m_found[{writer, thread}].push_back(number);
  }

  static unsigned TakeNumber(std::string_view& text, std::string_view name) {
    unsigned number = kEndless;
    if (text.starts_with(name)) {
      text.remove_prefix(name.size());
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
      text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    }
    return number;
  }
};

TEST_F(TraceUnderStress, KeepsEveryLineOfSeveralProcesses) {
  std::vector<Writer> writers;
  for (unsigned i = 0; i < kProcesses; ++i) {
    writers.push_back(StartWriter(m_lines));
  }
  CollectUntil(writers);
  Finish(writers);
  CheckFiles(3);
}

TEST_F(TraceUnderStress, KeepsEveryLineWhileProcessesAreTerminated) {
  std::vector<Writer> writers;
  for (unsigned i = 0; i < kProcesses; ++i) {
    writers.push_back(StartWriter(m_lines));
  }
  const auto areOthersWriting = [&] {
    return std::any_of(writers.begin(), writers.end(), [](const Writer& writer) {
      return WaitForSingleObject(writer.process.Get(), 0) == WAIT_TIMEOUT;
    });
  };
  const unsigned wanted = IsLongRun() ? kFullTerminations : kEverydayTerminations;
  unsigned terminations = 0;
  Writer victim = StartWriter(kEndless);
  Writer nextVictim = StartWriter(kEndless);
  while (terminations < wanted || areOthersWriting()) {
    Collect();
    // Ends by time-out: a victim never ends of itself.
    ASSERT_EQ(WaitForSingleObject(victim.process.Get(), kTerminationInterval),
              static_cast<DWORD>(WAIT_TIMEOUT));
    const HANDLE begunOrEnded[] = {victim.hasBegun.Get(), victim.process.Get()};
    ASSERT_EQ(WaitForMultipleObjects(2, begunOrEnded, FALSE, INFINITE), WAIT_OBJECT_0);
    Terminate(victim);
    ++terminations;
    victim = std::exchange(nextVictim, StartWriter(kEndless));
  }
  Terminate(victim);
  Terminate(nextVictim);
  // The last of them may have been ended between two files, after which somebody goes on.
  writers.push_back(StartWriter(1));
  Finish(writers);
  CheckFiles(3);
  printf("%u processes were terminated while they wrote\n", terminations);
}

// Whatever the threads were doing when the end of their process ended them. One process after the
// other, and one file: Wine does not survive the end of a thread that opens a file.
TEST_F(TraceUnderStress, TakesLinesFromWithinDllMainOfProcessesThatBeginAndEnd) {
  Configure(1048576);
  for (unsigned writer = 0; writer < kEverydayTerminations; ++writer) {
    std::vector<Writer> writers;
    writers.push_back(StartWriter(kEndless, L"--end"));
    Finish(writers);
  }
  CheckFiles(1);
  for (unsigned writer = 0; writer < kEverydayTerminations; ++writer) {
    const std::size_t moduleLines = m_found[std::pair(writer, kModuleThread)].size();
    EXPECT_EQ(moduleLines, kModuleLines) << writer;
  }
}

TEST_F(TraceUnderStress, KeepsEveryLineWhileAReaderHoldsTheFiles) {
  // Nobody collects, so that the reader meets the file that is about to be set aside.
  Configure(IsLongRun() ? 4096 : 512);
  const KernelHandle stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::atomic<unsigned> holds{0};
  std::thread reader([&] {
    bool goesOn = true;
    while (goesOn) {
      std::error_code noFolderYet;
      std::vector<fs::path> files;
      for (const fs::directory_entry& entry :
           fs::directory_iterator(m_installation / "logs", noFolderYet)) {
        files.push_back(entry.path());
      }
      // The youngest is the one that is about to be set aside.
      std::sort(files.rbegin(), files.rend());
      files.resize(std::min<std::size_t>(files.size(), 3));
      for (const fs::path& file : files) {
        const FileHandle held(CreateFileW(file.c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        holds += held ? 1U : 0U;
        goesOn = goesOn && WaitForSingleObject(stop.Get(), kHoldInterval) == WAIT_TIMEOUT;
      }
      goesOn = goesOn && WaitForSingleObject(stop.Get(), 1) == WAIT_TIMEOUT;
    }
  });
  std::vector<Writer> writers;
  for (unsigned i = 0; i < kProcesses; ++i) {
    writers.push_back(StartWriter(m_lines));
  }
  Finish(writers);
  SetEvent(stop.Get());
  reader.join();
  // However often the reader was in the way.
  CheckFiles(1);
  EXPECT_GT(holds, 0U);
  printf("files were held %u times\n", holds.load());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "--write" || mode == "--end") {
    int count = 0;
    wchar_t** const arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    return WriteLines(
        arguments[2], arguments[3], static_cast<unsigned>(std::wcstoul(arguments[4], nullptr, 10)),
        static_cast<unsigned>(std::wcstoul(arguments[5], nullptr, 10)), mode == "--end");
  }
  return RunTests(argc, argv);
}
