#include "tests/e2e/installation.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <stdexcept>

#include "support/handle.h"
#include "support/procaddress.h"
#include "support/vorlinfo.h"
#include "tests/e2e/wait_until.h"
#include "tests/support/start_process.h"

namespace fs = std::filesystem;

namespace {

fs::path TestFolder() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return fs::path(path).parent_path();
}

// What the build has staged: build/<preset>/bin, seen from build/<preset>/tests/e2e.
fs::path StagedFolder() { return TestFolder().parent_path().parent_path() / "bin"; }

// What the function `ordinal` of the vorlinfo.dll in `folder` makes of `baseName`.
std::string VersionedName(const fs::path& folder, WORD ordinal, const char* baseName) {
  static_assert(std::is_same_v<decltype(GetServiceNameByVersion), decltype(GetEventNameByVersion)>);
  const Module library(LoadLibraryW((folder / "vorlinfo.dll").c_str()));
  auto* const getName =
      ProcAddress<decltype(GetServiceNameByVersion)>(library.Get(), MAKEINTRESOURCEA(ordinal));
  char name[500] = {};
  if (getName == nullptr || getName(baseName, name, sizeof(name)) == 0) {
    throw std::runtime_error("vorlinfo.dll gives no name");
  }
  return name;
}

int LevelOf(const std::string& word) {
  static const std::map<std::string, int> levels = {{"ERROR", 1}, {"INFO", 2}, {"VERBOSE", 8}};
  const auto found = levels.find(word);
  return found != levels.end() ? found->second : 0;
}

}  // namespace

Installation::Installation(const std::string& name) : m_folder(TestFolder() / "stage" / name) {
  fs::remove_all(m_folder);
  fs::create_directories(m_folder);
  for (const auto& file : fs::directory_iterator(StagedFolder())) {
    if (file.is_regular_file()) {
      fs::copy_file(file.path(), m_folder / file.path().filename());
    }
  }
}

void Installation::Replace(const std::string& source, const std::string& target) const {
  fs::remove(m_folder / target);
  fs::copy_file(TestFolder() / source, m_folder / target);
}

void Installation::WriteConfiguration(const std::string& text) const {
  fs::create_directories(ConfigurationFile().parent_path());
  // Who reads the file whole keeps writers out meanwhile.
  const bool isWritten = WaitUntil([&] {
    std::ofstream file(ConfigurationFile(), std::ios::binary);
    file << text;
    file.close();
    return file.good();
  });
  if (!isWritten) {
    throw std::runtime_error("vorlconf.ini cannot be written");
  }
}

CommandResult Installation::Run(const std::string& arguments) const {
  return BackgroundProgram(Program(), arguments).Finish();
}

std::vector<TraceEntry> Installation::Trace() const {
  static const std::regex pattern(
      R"(^\S+ \S+ (?:\S+ )?(ERROR|INFO|VERBOSE) (\d+) (\d+) (\S+) (\S+) (\S+):\d+ (.*?)\r?$)");
  std::ifstream file(m_folder / "logs" / "vorltrace.log", std::ios::binary);
  std::vector<TraceEntry> entries;
  for (std::string line; std::getline(file, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, pattern)) {
      throw std::runtime_error("not a trace line: " + line);
    }
    entries.push_back({std::stoul(match[2]), std::stoul(match[3]), LevelOf(match[1]), match[4],
                       match[5], match[6], match[7]});
  }
  return entries;
}

std::vector<std::string> Installation::TextsOf(const std::string& function) const {
  std::vector<std::string> texts;
  for (const TraceEntry& entry : Trace()) {
    if (entry.function == function) {
      texts.push_back(entry.text);
    }
  }
  return texts;
}

bool Installation::WaitForText(const std::string& function, const std::string& text) const {
  return WaitUntil([&] {
    const std::vector<std::string> texts = TextsOf(function);
    return std::find(texts.begin(), texts.end(), text) != texts.end();
  });
}

std::vector<std::vector<std::string>> Installation::TraceByThread(const std::string& module) const {
  std::vector<std::vector<std::string>> threads;
  std::map<std::pair<unsigned long, unsigned long>, std::size_t> index;
  for (const TraceEntry& entry : Trace()) {
    if (entry.module != module) {
      continue;
    }
    const auto [place, isNew] =
        index.try_emplace({entry.processId, entry.threadId}, threads.size());
    if (isNew) {
      threads.emplace_back();
    }
    threads[place->second].push_back(std::to_string(entry.level) + " " + entry.function + ": " +
                                     entry.text);
  }
  return threads;
}

std::string Installation::EventName(const char* baseName) const {
  constexpr WORD kGetEventNameByVersionOrdinal = 1;
  return VersionedName(m_folder, kGetEventNameByVersionOrdinal, baseName);
}

std::string StagedServiceName() {
  constexpr WORD kGetServiceNameByVersionOrdinal = 9;
  return VersionedName(StagedFolder(), kGetServiceNameByVersionOrdinal, "Client Agent");
}

BackgroundProgram::BackgroundProgram(const fs::path& program, const std::string& arguments) {
  SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
  FileHandle write;
  if (!CreatePipe(&m_output, write.Receive(), &inheritable, 0)) {
    throw std::runtime_error("no pipe");
  }
  SetHandleInformation(m_output, HANDLE_FLAG_INHERIT, 0);

  StartOptions options;
  options.flags = CREATE_NEW_PROCESS_GROUP;
  options.output = write.Get();
  options.errors = write.Get();
  StartedProcess started = StartProcess(
      L"\"" + program.wstring() + L"\" " + std::wstring(arguments.begin(), arguments.end()),
      options);
  if (!started.process) {
    CloseHandle(m_output);
    throw std::runtime_error("cannot start " + program.string());
  }
  m_process = started.process.Release();
  m_processId = started.id;
}

BackgroundProgram::~BackgroundProgram() {
  if (m_process != nullptr) {
    if (WaitForSingleObject(m_process, 0) == WAIT_TIMEOUT) {
      TerminateProcess(m_process, 1);
      WaitForSingleObject(m_process, INFINITE);
    }
    CloseHandle(m_process);
  }
  CloseHandle(m_output);
}

// Does not wait for the end of the pipe: programs that Wine starts in the background, such as its
// desktop, may hold the other end longer than the program itself.
bool BackgroundProgram::ReadMore() {
  constexpr DWORD kPollMilliseconds = 5;
  for (;;) {
    const bool hasEnded = WaitForSingleObject(m_process, 0) == WAIT_OBJECT_0;
    DWORD available = 0;
    if (PeekNamedPipe(m_output, nullptr, 0, nullptr, &available, nullptr) && available != 0) {
      std::string text(available, '\0');
      DWORD read = 0;
      ReadFile(m_output, text.data(), available, &read, nullptr);
      m_text.append(text, 0, read);
      return true;
    }
    if (hasEnded) {
      return false;
    }
    WaitForSingleObject(m_process, kPollMilliseconds);
  }
}

bool BackgroundProgram::WaitForOutput(const std::string& text) {
  for (;;) {
    const std::size_t found = m_text.find(text);
    if (found != std::string::npos && m_text.find('\n', found) != std::string::npos) {
      return true;
    }
    if (!ReadMore()) {
      return false;
    }
  }
}

CommandResult BackgroundProgram::Finish() {
  while (ReadMore()) {
  }
  WaitForSingleObject(m_process, INFINITE);
  DWORD exitCode = 0;
  GetExitCodeProcess(m_process, &exitCode);
  return {exitCode, m_text};
}
