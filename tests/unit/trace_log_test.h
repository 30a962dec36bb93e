// What the tests of the trace of one process share.
#pragma once

#include "companions/vlevtlog/trace_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Reads the types of windows.h.
#include <sddl.h>

#include <cstdarg>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"

namespace fs = std::filesystem;

inline constexpr ULONGLONG kSecond = 1000;

MATCHER_P(MatchesRegex, pattern, "") { return std::regex_match(arg, std::regex(pattern)); }

// What stands behind the stamp, which must be a whole one: what is left of another line in front of
// it makes none.
inline std::string MessageOf(const std::string& line) {
  static const std::regex stamp(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [-+]\d\d:\d\d [A-Z]+\d* \d+ \d+ )"
      R"((module Function source\.cpp:1|vlevtlog\.dll \S+ \S+:\d+) )");
  std::smatch match;
  if (!std::regex_search(line, match, stamp, std::regex_constants::match_continuous)) {
    ADD_FAILURE() << "no stamp: " << line;
    return "";
  }
  return match.suffix();
}

class TraceLogTest : public testing::Test {
 protected:
  TraceLogTest()
      : m_tickPatch("KERNEL32.dll", "GetTickCount64", [this] { return m_tick += m_tickStep; }),
        m_clockPatch("KERNEL32.dll", "GetSystemTimeAsFileTime", [this](FILETIME* now) {
          m_clockPatch.CallOriginal(now);
          if (m_now != 0) {
            *now = {static_cast<DWORD>(m_now), static_cast<DWORD>(m_now >> 32)};
          }
        }) {
    EXPECT_TRUE(m_log.SetFolder(m_folder.Path().c_str()));
  }
  ~TraceLogTest() override { m_log.Close(); }

  void Log(int level, const char* format, ...) {
    if (m_log.IsOn(level)) {
      va_list arguments;
      va_start(arguments, format);
      m_log.Write(level, "module", "Function", "source.cpp", 1, format, arguments);
      va_end(arguments);
    }
  }

  static void LogTo(TraceLog& log, int level, const char* format, ...) {
    if (log.IsOn(level)) {
      va_list arguments;
      va_start(arguments, format);
      log.Write(level, "module", "Function", "source.cpp", 1, format, arguments);
      va_end(arguments);
    }
  }

  static DWORD WINAPI LogLastLine(void* log) {
    LogTo(*static_cast<TraceLog*>(log), 2, "last");
    return 0;
  }

  // Writes a line in a thread of its own that a patched call ends before the line is done.
  static void LogUntilTheEnd(TraceLog& log) {
    const HANDLE thread = CreateThread(nullptr, 0, &LogLastLine, &log, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
  }

  fs::path Logs() const { return m_folder.Path() / "logs"; }
  fs::path First() const { return Logs() / "vorltrace.log"; }

  std::string Content(const std::string& name) const {
    std::ifstream in(Logs() / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  // The messages of a file, of which every line must be whole.
  std::vector<std::string> Messages(const std::string& name = "vorltrace.log") const {
    const std::string content = Content(name);
    std::vector<std::string> messages;
    std::size_t at = 0;
    while (at < content.size()) {
      const std::size_t end = content.find("\r\n", at);
      if (end == std::string::npos) {
        ADD_FAILURE() << "not a whole line: " << content.substr(at);
        break;
      }
      messages.push_back(MessageOf(content.substr(at, end - at)));
      at = end + 2;
    }
    return messages;
  }

  // The messages of the only file with lines of this process alone.
  std::vector<std::string> SpilledMessages() const {
    for (const std::string& name : Files()) {
      if (name.starts_with("vorltrace.process")) {
        return Messages(name);
      }
    }
    return {};
  }

  // Names in the logs folder, sorted; without the file that the processes share.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(Logs())) {
      if (entry.path().filename() != "vorltrace.lock") {
        names.push_back(entry.path().filename().string());
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path Configuration() const { return m_folder.Path() / "conf" / "vorlconf.ini"; }

  // Some time ago; each configuration is younger than the one before.
  void Configure(const std::string& section) {
    fs::create_directories(m_folder.Path() / "conf");
    std::ofstream(Configuration(), std::ios::trunc) << "[TRACE]\n" << section;
    SetWriteTime(Configuration(), m_written += kTicksPerSecond);
  }

  // At this moment; time stands still from now on.
  void ConfigureNow(const std::string& section) {
    Configure(section);
    m_now = m_written;
  }

  // Lets time pass for the process and the system.
  void Pass(ULONGLONG milliseconds) {
    m_tick += milliseconds;
    m_now += milliseconds * (kTicksPerSecond / kSecond);
  }

  void WriteFirst(const std::string& content) {
    fs::create_directories(Logs());
    std::ofstream(First(), std::ios::binary) << content;
  }

  HANDLE Hold(const fs::path& file, DWORD shareMode) {
    const HANDLE held = CreateFileW(file.c_str(), GENERIC_READ, shareMode, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(held, INVALID_HANDLE_VALUE);
    return held;
  }

  static void OpenToEverybody(const fs::path& path) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
        L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;WD)", SDDL_REVISION_1, &descriptor, nullptr));
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
    LocalFree(descriptor);
  }

  ULONGLONG m_tick = 1'000'000;
  ULONGLONG m_tickStep = 0;
  TempFolder m_folder;
  TraceLog m_log;

 private:
  static constexpr ULONGLONG kTicksPerSecond = 10'000'000;
  static constexpr ULONGLONG kDay = 86400 * kTicksPerSecond;

  ULONGLONG m_written = SystemTime() - kDay;
  ULONGLONG m_now = 0;  // what the system's clock says; 0: what it is
  CallPatch<struct TickTag, ULONGLONG WINAPI()> m_tickPatch;
  CallPatch<struct ClockTag, void WINAPI(FILETIME*)> m_clockPatch;
};
