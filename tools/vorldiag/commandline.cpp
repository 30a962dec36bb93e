#include "tools/vorldiag/commandline.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <exception>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tools/vorldiag/bundle/bundle.h"
#include "tools/vorldiag/bundle/secrets.h"
#include "tools/vorldiag/identity/cachereport.h"
#include "tools/vorldiag/identity/hardware.h"
#include "tools/vorldiag/identity/identityreport.h"
#include "tools/vorldiag/machine/outputfile.h"
#include "tools/vorldiag/report/json.h"
#include "tools/vorldiag/report/page.h"
#include "tools/vorldiag/report/printed.h"
#include "tools/vorldiag/report/snapshot.h"
#include "tools/vorldiag/status/situation.h"
#include "tools/vorldiag/status/statusreport.h"
#include "tools/vorldiag/text/output.h"
#include "tools/vorldiag/text/utf8.h"
#include "tools/vorldiag/trace/perfetto.h"
#include "tools/vorldiag/trace/tracecommand.h"
#include "tools/vorldiag/trace/tracefiles.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitWarning = 1;
constexpr int kExitError = 2;
constexpr int kExitNotDone = 3;

// A computer whose WMI is well answers within seconds.
constexpr unsigned kDefaultWmiSeconds = 60;

int ExitCodeOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk:
      return kExitOk;
    case Verdict::kWarning:
      return kExitWarning;
    case Verdict::kError:
      break;
  }
  return kExitError;
}

struct Options {
  bool isJson = false;
  unsigned wmiSeconds = kDefaultWmiSeconds;
  bool isBoth = false;
  std::string cacheAction;
  std::string folder;  // of the cache file; empty: the configuration folder
  std::string level;
  TraceFilter filter;
  bool isStart = false;
  bool isStop = false;
  bool isFollowed = false;
  std::string perfettoFile;
  std::string file;  // of a report or bundle
  bool isMasked = false;
};

int Show(const Report& report, const Options& options, Output& output) {
  const bool isWritten =
      options.isJson ? output.Write(JsonText(ToJson(report))) : PrintReport(report, output);
  return isWritten ? ExitCodeOf(report.Worst()) : kExitNotDone;
}

int RunStatus(const Options& options, Output& output) {
  const Situation situation = FindSituation();
  const Hardware hardware = CollectHardware(options.wmiSeconds);
  return Show(StatusReport(situation, hardware, ReadLatestTrace(situation.Logs())), options,
              output);
}

int RunIdentity(const Options& options, Output& output) {
  // First: the program's own collection wants COM untouched.
  std::vector<Collection> collections;
  if (options.isBoth) {
    collections = RunBothCollections(options.wmiSeconds);
  }
  const Hardware hardware = CollectHardware(options.wmiSeconds);
  const FolderFact configuration = FindSituation().configuration;
  const IdentifierOnDisk stored =
      configuration.path.empty() ? IdentifierOnDisk{"", configuration.problem}
                                 : ReadStoredIdentifier(configuration.path + L"\\vorlconf.ini");
  return Show(IdentityReport(hardware, stored, collections), options, output);
}

int RunCache(const Options& options, Output& output) {
  const std::wstring folder =
      options.folder.empty() ? FindSituation().configuration.path : Wide(options.folder);
  const Hardware hardware = CollectHardware(options.wmiSeconds);
  return Show(options.cacheAction == "write" ? WriteCacheReport(hardware, folder)
                                             : CheckCacheReport(hardware, folder),
              options, output);
}

// What a command says that has written a file.
int ShowWritten(const char* command, const std::string& path, std::uint64_t size,
                const Options& options, Output& output) {
  bool isWritten = true;
  if (options.isJson) {
    nlohmann::ordered_json json = JsonHead(command);
    json["file"] = path;
    json["bytes"] = size;
    isWritten = output.Write(JsonText(json));
  } else {
    isWritten = output.Write(path + " is written, " + std::to_string(size) + " bytes.\n");
  }
  return isWritten ? kExitOk : kExitNotDone;
}

int WriteText(const char* command, const std::string& path, const std::string& text,
              const Options& options, Output& output) {
  OutputFile file(path);
  file.Write(text);
  file.Finish();
  return ShowWritten(command, path, text.size(), options, output);
}

int RunReport(const Options& options, Output& output) {
  const Situation situation = FindSituation();
  const Snapshot snapshot = TakeSnapshot(situation, CollectHardware(options.wmiSeconds));
  return WriteText("report", options.file, ReportPage(snapshot), options, output);
}

int RunBundle(const Options& options, Output& output) {
  const Situation situation = FindSituation();
  const Hardware hardware = CollectHardware(options.wmiSeconds);
  const Snapshot snapshot = TakeSnapshot(situation, hardware);
  Mask mask;
  AddSecrets(hardware, mask);
  const BundleFacts facts =
      WriteBundle(options.file, situation, snapshot, options.isMasked ? &mask : nullptr);
  if (!options.isJson) {
    for (const std::string& name : facts.leftOut) {
      output.Write("Left out: " + name + "\n");
    }
    return ShowWritten("bundle", options.file, facts.size, options, output);
  }
  nlohmann::ordered_json json = JsonHead("bundle");
  json["file"] = options.file;
  json["bytes"] = facts.size;
  json["masked"] = options.isMasked;
  json["entries"] = nlohmann::ordered_json::array();
  for (const ZipWriter::Entry& entry : facts.entries) {
    json["entries"].push_back({{"name", entry.name}, {"bytes", entry.size}});
  }
  json["leftOut"] = facts.leftOut;
  return output.Write(JsonText(json)) ? kExitOk : kExitNotDone;
}

int WritePerfetto(const std::vector<TraceLine>& lines, const Options& options, Output& output) {
  std::vector<TraceLine> wanted;
  for (const TraceLine& line : lines) {
    if (options.filter.Takes(line)) {
      wanted.push_back(line);
    }
  }
  return WriteText("trace", options.perfettoFile, PerfettoText(wanted), options, output);
}

int RunTrace(const Options& options, Output& output) {
  if (options.isFollowed) {
    return FollowTrace(FindSituation().Logs(), options.filter, options.isJson, output)
               ? kExitOk
               : kExitNotDone;
  }
  const TraceContent trace = ReadWholeTrace(FindSituation().Logs());
  if (!trace.problem.empty()) {
    Output(STD_ERROR_HANDLE)
        .Write("Lines are missing: " + trace.problem + "\n" + trace.advice + "\n");
  }
  if (!options.perfettoFile.empty()) {
    return WritePerfetto(trace.lines, options, output);
  }
  bool isWritten = true;
  if (options.isStart || options.isStop) {
    const std::vector<ProcessRun> runs = RunsOf(trace.lines);
    const Episode episode = options.isStart ? LastStart(runs) : LastStop(runs);
    isWritten = options.isJson ? output.Write(JsonText(EpisodeToJson(episode)))
                               : PrintEpisode(episode, output);
  } else if (options.isJson) {
    isWritten = output.Write(JsonText(LinesToJson(trace.lines, options.filter)));
  } else {
    for (const TraceLine& line : trace.lines) {
      isWritten = isWritten && (!options.filter.Takes(line) || PrintLine(line, output));
    }
  }
  return isWritten ? kExitOk : kExitNotDone;
}

int Run(std::vector<std::string> arguments, Output& output, Output& errors) {
  CLI::App app{
      "Says what the agent on this computer does. Changes nothing but the file that a command is\n"
      "told to write.\n"
      "Run it from an elevated prompt, in the installation folder. Begin with: vorldiag status\n",
      "vorldiag"};
  app.set_version_flag("--version", VORL_VERSION);
  app.require_subcommand(1);
  app.footer(
      "\nExit codes: 0 everything is as it should be, 1 there is a warning, 2 there is an error,\n"
      "3 the command itself could not be carried out. trace, report and bundle end with 0 when "
      "they\n"
      "were carried out, whatever they show.\n"
      "vorldiag COMMAND --help says more about a command. Output is UTF-8.");

  Options options;
  std::function<int()> command;
  const auto addCommand = [&](const char* name, const char* description,
                              int (*run)(const Options&, Output&)) {
    CLI::App* const sub = app.add_subcommand(name, description);
    sub->add_flag("--json", options.isJson,
                  "Write JSON, as docs/vorldiag.schema.json describes it");
    sub->callback([&, run] { command = [&, run] { return run(options, output); }; });
    return sub;
  };
  const auto addWmiSeconds = [&](CLI::App* sub) {
    sub->add_option("--wmi-seconds", options.wmiSeconds, "How long WMI may take to answer")
        ->capture_default_str()
        ->check(CLI::Range(1U, 3600U));
  };

  addWmiSeconds(addCommand(
      "status",
      "Is it installed as it should be, does it run, who may tamper with it, and what took how\n"
      "long at the last start? Each line is ok, warning or error, with what to do.",
      &RunStatus));
  CLI::App* const identity = addCommand(
      "identity",
      "What the computer's identifier is made of, and whether the stored one is equal to it",
      &RunIdentity);
  addWmiSeconds(identity);
  identity->add_flag("--both", options.isBoth,
                     "Also run both of the program's own collections and show their results");

  CLI::App* const cache = addCommand(
      "cache", "Keep the hardware's parameters in hwcdata.dat, and say later which of them differs",
      &RunCache);
  cache->add_option("action", options.cacheAction, "write or check")
      ->required()
      ->check(CLI::IsMember({"write", "check"}));
  cache->add_option("--folder", options.folder,
                    "Where the file lies; otherwise the configuration folder");
  addWmiSeconds(cache);

  CLI::App* const trace = addCommand("trace",
                                     "Show lines of the trace, follow it while it is written, or "
                                     "show the last start or stop as a\n"
                                     "tree of calls",
                                     &RunTrace);
  trace->add_option("--level", options.level,
                    "error, info or verbose: lines of this level and more important ones");
  trace->add_option("--function", options.filter.function, "Part of a function's name");
  trace->add_option("--process", options.filter.process, "Number of a process");
  trace->add_option("--since", options.filter.since, "Local time, such as \"2026-03-09 07:05\"");
  trace->add_option("--until", options.filter.until, "The same");
  CLI::Option* const start =
      trace->add_flag("--start", options.isStart, "The service's last start as a tree of calls");
  CLI::Option* const stop =
      trace->add_flag("--stop", options.isStop, "Its last stop")->excludes(start);
  CLI::Option* const perfetto =
      trace->add_option("--perfetto", options.perfettoFile,
                        "Write calls and lines into this file for viewers of time lines");
  trace->add_flag("--follow", options.isFollowed, "Show the lines that come, until Ctrl+C")
      ->excludes(start)
      ->excludes(stop)
      ->excludes(perfetto);

  CLI::App* const report =
      addCommand("report",
                 "Write status, identity, the last starts and stops, error lines with their\n"
                 "explanation, and settings into one page for a browser",
                 &RunReport);
  report->add_option("file", options.file, "The page, such as report.html")->required();
  addWmiSeconds(report);

  CLI::App* const bundle = addCommand(
      "bundle",
      "Put report, status and identity, settings and the trace into an archive for a ticket",
      &RunBundle);
  bundle->add_option("file", options.file, "The archive, such as ticket.zip")->required();
  bundle->add_flag("--mask", options.isMasked,
                   "Replace identifier, UUIDs, serial number, network addresses and the names of\n"
                   "computer, domain and users; equal values have equal replacements");
  addWmiSeconds(bundle);

  // The parser wants them so.
  std::reverse(arguments.begin(), arguments.end());
  // The parser itself would only say that a subcommand is missing.
  const auto isMeant = [&](CLI::App* sub) { return sub->check_name(arguments.back()); };
  if (!arguments.empty() && arguments.back().substr(0, 1) != "-" &&
      app.get_subcommands(isMeant).empty()) {
    errors.Write("There is no command \"" + arguments.back() +
                 "\"\nRun with --help for more information.\n");
    return kExitNotDone;
  }
  try {
    app.parse(std::move(arguments));
  } catch (const CLI::ParseError& error) {
    std::ostringstream out;
    std::ostringstream problem;
    const int result = app.exit(error, out, problem);
    errors.Write(problem.str());
    return output.Write(out.str()) && result == 0 ? kExitOk : kExitNotDone;
  }
  options.filter.level = LevelOf(options.level);
  if (!options.level.empty() && options.filter.level == 0) {
    errors.Write("--level: error, info or verbose, not " + options.level +
                 "\nRun with --help for more information.\n");
    return kExitNotDone;
  }
  return command();
}

}  // namespace

int RunCommandLine(const std::vector<std::string>& arguments, Output& output, Output& errors) {
  int exitCode = kExitNotDone;
  try {
    exitCode = Run(arguments, output, errors);
  } catch (const std::exception& error) {
    errors.Write(std::string("vorldiag: ") + error.what() + "\n");
  }
  // Who has stopped reading knows it.
  if (output.Error() != ERROR_SUCCESS && !output.IsAbandoned()) {
    errors.Write("vorldiag: the output cannot be written: " + ErrorText(output.Error()) + "\n");
  }
  return exitCode;
}
