// A staged copy of the installation, and what its trace says.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "support/windows_api.h"

// One line of the trace file. `level` is the number after the word.
struct TraceEntry {
  unsigned long processId;
  unsigned long threadId;
  int level;
  std::string module;
  std::string function;
  std::string source;  // without the line number
  std::string text;
};

struct CommandResult {
  DWORD exitCode;
  std::string output;  // standard output and error, line ends as written
};

// A folder of its own with everything that is staged beside the tests. The folder stays behind for
// the engineer who looks for the reason of a failure; the next run of the test removes it.
class Installation {
 public:
  // `name`: of the folder; may contain blanks.
  explicit Installation(const std::string& name);

  const std::filesystem::path& Folder() const { return m_folder; }
  std::filesystem::path Program() const { return m_folder / "vorlsrvc.exe"; }
  std::filesystem::path ConfigurationFile() const { return m_folder / "conf" / "vorlconf.ini"; }

  // Puts the file `source`, from beside the tests, into the installation as `target`.
  void Replace(const std::string& source, const std::string& target) const;

  // Writes vorlconf.ini anew, as soon as nobody reads it.
  void WriteConfiguration(const std::string& text) const;

  // Runs the program with `arguments` to its end.
  CommandResult Run(const std::string& arguments) const;

  // All lines of the trace so far, oldest first.
  std::vector<TraceEntry> Trace() const;

  // The texts of `function`, oldest first.
  std::vector<std::string> TextsOf(const std::string& function) const;

  // Waits until `function` has written `text`; false when it has not within a minute.
  bool WaitForText(const std::string& function, const std::string& text) const;

  // "level function: text" for every line that `module` wrote on each thread, the threads in the
  // order of their first line.
  std::vector<std::vector<std::string>> TraceByThread(const std::string& module) const;

  // The name of the event `baseName` of this installation's version.
  std::string EventName(const char* baseName) const;

 private:
  std::filesystem::path m_folder;
};

// The name under which the staged program registers its service.
std::string StagedServiceName();

// A program that runs beside the test, with its standard output in a pipe. It is ended with the
// object when it still runs.
class BackgroundProgram {
 public:
  BackgroundProgram(const std::filesystem::path& program, const std::string& arguments);
  ~BackgroundProgram();
  BackgroundProgram(const BackgroundProgram&) = delete;
  BackgroundProgram& operator=(const BackgroundProgram&) = delete;

  // Waits until the program has written a whole line that contains `text`; false when it ends
  // first.
  bool WaitForOutput(const std::string& text);

  // Waits for the program's end.
  CommandResult Finish();

  // What it has written until the wait above ended.
  const std::string& Output() const { return m_text; }

  DWORD ProcessId() const { return m_processId; }

 private:
  bool ReadMore();

  HANDLE m_process = nullptr;
  HANDLE m_output = nullptr;
  DWORD m_processId = 0;
  std::string m_text;
};
