// Starts and stops services by turns and measures them from outside. Prints one line for each
// sample: figure, service, value; times in microseconds, memory in KiB.
//
//   service_bench cycles ROUNDS SERVICE...   starts, stops and, while idle, what each one holds
//   service_bench idle SECONDS SERVICE...    all at once: processor time and wake-ups
//   service_bench run ROUNDS LABEL=COMMAND...   programs from their start to their end; 0 rounds:
//                                            once, without a first time that is not counted
//   service_bench add NAME COMMAND           registers a service, to be started by hand
//   service_bench remove NAME
//
// SERVICE is LABEL=PROGRAM=NAME, where PROGRAM is the path of its process as it was started. What
// Windows' own counters do not say under Wine is read from the files of the system below it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/service/probe.h"
#include "support/handle.h"
#include "support/procaddress.h"

// After windows.h.
#include <tlhelp32.h>
#include <winternl.h>

namespace {

constexpr DWORD kPatienceMilliseconds = 60'000;

struct Subject {
  std::string label;
  std::string program;
  std::string name;
};

// Splits "LABEL=PROGRAM=NAME".
Subject ParseSubject(const std::string& text) {
  const auto first = text.find('=');
  const auto second = text.find('=', first + 1);
  if (second == std::string::npos) {
    throw std::runtime_error("not a service: " + text);
  }
  return {text.substr(0, first), text.substr(first + 1, second - first - 1),
          text.substr(second + 1)};
}

double Microseconds(LONGLONG ticks) {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return static_cast<double>(ticks) * 1e6 / static_cast<double>(frequency.QuadPart);
}

void Print(const char* figure, const std::string& label, double value) {
  std::printf("%s %s %.1f\n", figure, label.c_str(), value);
  std::fflush(stdout);
}

ServiceHandle Manager() {
  return ServiceHandle(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
}

ServiceHandle Open(const std::string& name) {
  ServiceHandle service(OpenServiceA(Manager().Get(), name.c_str(), SERVICE_ALL_ACCESS));
  if (!service) {
    throw std::runtime_error("no service " + name);
  }
  return service;
}

// The moment at which the service manager says that a service has got to a state.
class StateWatch {
 public:
  StateWatch(const ServiceHandle& service, DWORD states) {
    m_notify.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
    m_notify.pfnNotifyCallback = &OnState;
    m_notify.pContext = this;
    if (NotifyServiceStatusChangeW(service.Get(), states, &m_notify) != ERROR_SUCCESS) {
      throw std::runtime_error("the service manager does not notify");
    }
  }
  StateWatch(const StateWatch&) = delete;
  StateWatch& operator=(const StateWatch&) = delete;

  LONGLONG Wait() const {
    while (m_moment == 0) {
      if (SleepEx(kPatienceMilliseconds, TRUE) != WAIT_IO_COMPLETION) {
        throw std::runtime_error("a service does not change its state");
      }
    }
    return m_moment;
  }

 private:
  static void CALLBACK OnState(void* parameter) {
    auto* const notify = static_cast<SERVICE_NOTIFYW*>(parameter);
    static_cast<StateWatch*>(notify->pContext)->m_moment = Ticks();
  }

  SERVICE_NOTIFYW m_notify{};
  volatile LONGLONG m_moment = 0;
};

// What the core module tells.
class Probe {
 public:
  Probe()
      : m_event(CreateEventA(nullptr, TRUE, FALSE, kProbeEvent)),
        m_mapping(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kProbeSize,
                                     kProbeMapping)),
        m_moment(static_cast<volatile LONGLONG*>(
            MapViewOfFile(m_mapping.Get(), FILE_MAP_READ, 0, 0, kProbeSize))) {}

  void Reset() const { ResetEvent(m_event.Get()); }
  LONGLONG Wait() const {
    if (WaitForSingleObject(m_event.Get(), kPatienceMilliseconds) != WAIT_OBJECT_0) {
      throw std::runtime_error("a service does not reach its core module");
    }
    return *m_moment;
  }

 private:
  KernelHandle m_event;
  KernelHandle m_mapping;
  volatile LONGLONG* m_moment;
};

std::string ReadAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The numbers of the folders in `folder` that are numbers.
std::vector<std::string> NumberedFolders(const std::string& folder) {
  std::vector<std::string> names;
  WIN32_FIND_DATAA found;
  const HANDLE search = FindFirstFileA((folder + "\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return names;
  }
  do {
    if (std::strspn(found.cFileName, "0123456789") == std::strlen(found.cFileName)) {
      names.emplace_back(found.cFileName);
    }
  } while (FindNextFileA(search, &found));
  FindClose(search);
  return names;
}

// The folders that the system below Wine has for the processes of a program.
std::vector<std::string> ProcessFolders(const std::string& program) {
  std::vector<std::string> folders;
  for (const std::string& number : NumberedFolders("Z:\\proc")) {
    const std::string folder = "Z:\\proc\\" + number;
    const std::string command = ReadAll(folder + "\\cmdline");
    if (std::string(command.c_str()).find(program) != std::string::npos) {
      folders.push_back(folder);
    }
  }
  return folders;
}

// The sum of the numbers in the lines that begin with `key`, such as "Key:   123 kB".
double SumOf(const std::string& path, const std::string& key) {
  std::istringstream lines(ReadAll(path));
  double sum = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(key)) {
      sum += std::strtod(line.c_str() + line.find(':') + 1, nullptr);
    }
  }
  return sum;
}

// The time that the threads of a process have had a processor for. Does not grow with what else the
// machine does.
double ProcessorMicroseconds(const std::string& processFolder) {
  double nanoseconds = 0;
  for (const std::string& thread : NumberedFolders(processFolder + "\\task")) {
    const std::string times = ReadAll(processFolder + "\\task\\" + thread + "\\schedstat");
    nanoseconds += std::strtod(times.c_str(), nullptr);
  }
  return nanoseconds / 1000;
}

struct HandleEntry {
  void* object;
  ULONG_PTR processId;
  ULONG_PTR handle;
  ULONG access;
  USHORT trace;
  USHORT type;
  ULONG attributes;
  ULONG reserved;
};

int CountHandles(DWORD processId) {
  constexpr ULONG kExtendedHandles = 64;
  static const auto query = ProcAddress<NTSTATUS NTAPI(ULONG, void*, ULONG, ULONG*)>(
      GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation");
  std::vector<BYTE> buffer(1 << 20);
  ULONG size = 0;
  if (query(kExtendedHandles, buffer.data(), static_cast<ULONG>(buffer.size()), &size) != 0) {
    return -1;
  }
  const ULONG_PTR count = *reinterpret_cast<ULONG_PTR*>(buffer.data());
  const auto* const entries =
      reinterpret_cast<const HandleEntry*>(buffer.data() + 2 * sizeof(ULONG_PTR));
  int found = 0;
  for (ULONG_PTR i = 0; i < count; ++i) {
    found += entries[i].processId == processId ? 1 : 0;
  }
  return found;
}

int CountModules(DWORD processId) {
  const KernelHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, processId));
  MODULEENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  int count = 0;
  for (BOOL more = Module32First(snapshot.Get(), &entry); more;
       more = Module32Next(snapshot.Get(), &entry)) {
    ++count;
  }
  return count;
}

void PrintHoldings(const Subject& subject, DWORD processId) {
  double privateKib = 0;
  double threads = 0;
  double processor = 0;
  for (const std::string& folder : ProcessFolders(subject.program)) {
    privateKib += SumOf(folder + "\\smaps_rollup", "Private_");
    threads += SumOf(folder + "\\status", "Threads:");
    processor += ProcessorMicroseconds(folder);
  }
  Print("private-kib", subject.label, privateKib);
  Print("threads", subject.label, threads);
  Print("start-processor", subject.label, processor);
  Print("handles", subject.label, CountHandles(processId));
  Print("dlls", subject.label, CountModules(processId));
}

SERVICE_STATUS_PROCESS Status(const ServiceHandle& service) {
  SERVICE_STATUS_PROCESS status{};
  DWORD size = 0;
  QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                       sizeof(status), &size);
  return status;
}

void StopAndWait(const ServiceHandle& service, const char* figure, const std::string& label) {
  const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, Status(service).dwProcessId));
  const StateWatch stopped(service, SERVICE_NOTIFY_STOPPED);
  SERVICE_STATUS status;
  const LONGLONG start = Ticks();
  if (!ControlService(service.Get(), SERVICE_CONTROL_STOP, &status)) {
    throw std::runtime_error("cannot stop " + label);
  }
  const LONGLONG end = stopped.Wait();
  if (figure != nullptr) {
    Print(figure, label, Microseconds(end - start));
  }
  if (WaitForSingleObject(process.Get(), kPatienceMilliseconds) != WAIT_OBJECT_0) {
    throw std::runtime_error("the process of " + label + " does not end");
  }
}

void Start(const ServiceHandle& service, const std::string& label) {
  if (!StartServiceA(service.Get(), 0, nullptr)) {
    throw std::runtime_error("cannot start " + label + ": " + std::to_string(GetLastError()));
  }
}

void Cycles(int rounds, const std::vector<Subject>& subjects) {
  const Probe probe;
  // The first round warms the machine up and is not counted.
  for (int round = 0; round <= rounds; ++round) {
    for (const Subject& subject : subjects) {
      const ServiceHandle service = Open(subject.name);
      probe.Reset();
      {
        const StateWatch running(service, SERVICE_NOTIFY_RUNNING);
        const LONGLONG start = Ticks();
        Start(service, subject.label);
        const LONGLONG runningAt = running.Wait();
        const LONGLONG coreAt = probe.Wait();
        if (round > 0) {
          Print("start-to-running", subject.label, Microseconds(runningAt - start));
          Print("start-to-core", subject.label, Microseconds(coreAt - start));
        }
      }
      if (round > 0) {
        PrintHoldings(subject, Status(service).dwProcessId);
      }
      StopAndWait(service, round > 0 ? "stop-to-stopped" : nullptr, subject.label);
    }
  }
}

struct Activity {
  double ticks;
  double wakeUps;
};

Activity ActivityOf(const Subject& subject) {
  Activity activity{};
  for (const std::string& folder : ProcessFolders(subject.program)) {
    const std::string stat = ReadAll(folder + "\\stat");
    // After the name in brackets: fields 14 and 15 of the line are the processor time.
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string field;
    for (int i = 3; fields >> field && i <= 15; ++i) {
      activity.ticks += i >= 14 ? std::strtod(field.c_str(), nullptr) : 0;
    }
    for (const std::string& thread : NumberedFolders(folder + "\\task")) {
      activity.wakeUps +=
          SumOf(folder + "\\task\\" + thread + "\\status", "voluntary_ctxt_switches:");
    }
  }
  return activity;
}

void Idle(DWORD seconds, const std::vector<Subject>& subjects) {
  const Probe probe;
  for (const Subject& subject : subjects) {
    probe.Reset();
    Start(Open(subject.name), subject.label);
    probe.Wait();
  }
  // What a start leaves to be done is not idleness.
  Sleep(2000);
  std::vector<Activity> before;
  for (const Subject& subject : subjects) {
    before.push_back(ActivityOf(subject));
  }
  Sleep(seconds * 1000);
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    const Activity after = ActivityOf(subjects[i]);
    Print("idle-cpu-ticks", subjects[i].label, after.ticks - before[i].ticks);
    Print("idle-wakeups", subjects[i].label, after.wakeUps - before[i].wakeUps);
  }
  for (const Subject& subject : subjects) {
    StopAndWait(Open(subject.name), nullptr, subject.label);
  }
}

void RunToEnd(const std::string& label, std::string command, bool isCounted) {
  STARTUPINFOA startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION created{};
  const LONGLONG start = Ticks();
  if (!CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &created)) {
    throw std::runtime_error("cannot run " + command);
  }
  const KernelHandle process(created.hProcess);
  const KernelHandle thread(created.hThread);
  WaitForSingleObject(process.Get(), INFINITE);
  if (isCounted) {
    Print("run", label, Microseconds(Ticks() - start));
  }
}

void Runs(int rounds, const std::vector<std::string>& programs) {
  for (int round = 0; round <= rounds; ++round) {
    for (const std::string& program : programs) {
      const auto end = program.find('=');
      RunToEnd(program.substr(0, end), program.substr(end + 1), round > 0 || rounds == 0);
    }
  }
}

void Add(const std::string& name, const std::string& command) {
  const ServiceHandle service(
      CreateServiceA(Manager().Get(), name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                     command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  if (!service) {
    throw std::runtime_error("cannot register " + name);
  }
}

// Ended first: a service that still runs stays registered until it has ended, and would be started
// again with the machine.
void Remove(const std::string& name) {
  const ServiceHandle service = Open(name);
  const KernelHandle process(
      OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, Status(service).dwProcessId));
  if (process) {
    TerminateProcess(process.Get(), 1);
    WaitForSingleObject(process.Get(), kPatienceMilliseconds);
  }
  DeleteService(service.Get());
}

int Execute(const std::vector<std::string>& arguments) {
  const std::string what = arguments.size() > 1 ? arguments[0] : "";
  const std::vector<std::string> rest(arguments.begin() + 2, arguments.end());
  std::vector<Subject> subjects;
  if (what == "cycles" || what == "idle") {
    for (const std::string& text : rest) {
      subjects.push_back(ParseSubject(text));
    }
  }
  if (what == "cycles") {
    Cycles(std::stoi(arguments[1]), subjects);
  } else if (what == "idle") {
    Idle(std::stoul(arguments[1]), subjects);
  } else if (what == "run") {
    Runs(std::stoi(arguments[1]), rest);
  } else if (what == "add") {
    Add(arguments[1], rest.at(0));
  } else if (what == "remove") {
    Remove(arguments[1]);
  } else {
    throw std::runtime_error("cycles, idle, run, add or remove");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Execute(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "service_bench: %s\n", failure.what());
    return 1;
  }
}
