#include "tools/vorldiag/trace/runs.h"

#include <map>
#include <string_view>

namespace {

constexpr char kProgram[] = "vorlsrvc.exe";
constexpr int kErrorLevel = 1;

bool StartsWith(const std::string& text, std::string_view beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

bool IsLine(const TraceLine& line, std::string_view function, std::string_view text) {
  return line.module == kProgram && line.function == function && line.text == text;
}

}  // namespace

const TraceLine* ProcessRun::Find(const char* function, const char* text) const {
  for (const TraceLine* line : lines) {
    if (IsLine(*line, function, text)) {
      return line;
    }
  }
  return nullptr;
}

std::vector<ProcessRun> RunsOf(const std::vector<TraceLine>& lines) {
  std::vector<ProcessRun> runs;
  std::map<unsigned long, std::size_t> current;
  for (const TraceLine& line : lines) {
    const bool begins = IsLine(line, "main", "Entry");
    if (begins) {
      current[line.processId] = runs.size();
      runs.emplace_back();
      runs.back().processId = line.processId;
    }
    const auto found = current.find(line.processId);
    if (found == current.end()) {
      continue;
    }
    ProcessRun& run = runs[found->second];
    run.lines.push_back(&line);
    if (line.module == kProgram && line.function == "CNTService::ParseStandardArgs") {
      run.isService = run.isService || line.text == "No Arguments hence returning";
      if (run.word.empty() && StartsWith(line.text, "-")) {
        run.word = line.text;
      }
    }
  }
  return runs;
}

const std::vector<StartStep>& StartSteps() {
  static const std::vector<StartStep> steps = {
      {"Entry", "main", "The program never ran, or could not write."},
      {"After Calling SetClientAgentLogOptions", "main",
       "A crash in vorlmisc.dll: install it again."},
      {"Entry", "IsClientUUIDPresent",
       "vorlinfo.dll gave no service name: install vorlinfo.dll again."},
      {"Before Creating CAcAsSvc Object", "main",
       "The identifier is being made and WMI does not answer: repair WMI, or restart the service "
       "Winmgmt."},
      {"Before calling StartServiceCtrlDispatcher", "CNTService::StartService",
       "A crash: look into the Application log, event 1000."},
      {"Entry", "CNTService::ServiceMain",
       "Windows did not start this process: it was started by hand."},
      {"Exit", "CNTService::Initialize",
       "The initialisation failed: see the error line of CreateSecurityAttributeForEveryone."},
      {"Before calling GetClientAgentStartUpOptions", "CAcAsSvc::Run",
       "Windows is out of resources (_beginthreadex Failed): restart it."},
      {"Calling for pending update...", "CAcAsSvc::Run",
       "There are no start-up options: the error line of vorlmisc.dll says why."},
      {"After calling GetClientAgentStartUpOptions", "CAcAsSvc::Run",
       "The update module is at work, hangs or has crashed: see the lines of vorlupd.dll."},
      {"Exit.", "LoadVorlcoreDll",
       "The core cannot be loaded: install vorlcore.dll again; the error line has the number."},
      {"Before calling ClientAgentCoreStartUp", "CAcAsSvc::Run",
       "vorlcore.dll is another library, it lacks ClientAgentCoreStartUp: install it again."},
      {"After calling ClientAgentCoreStartUp", "CAcAsSvc::Run",
       "The core refused to start, is still at work, hangs or has crashed: see the lines of "
       "vorlcore.dll."},
      {"Before Calling WaitForSingleObject", "CAcAsSvc::Run", "The process broke off."}};
  return steps;
}

StartFacts StartOf(const ProcessRun& run) {
  StartFacts facts;
  facts.begin = run.lines.front();
  facts.end = facts.begin;
  for (const StartStep& step : StartSteps()) {
    const TraceLine* const line = run.Find(step.function, step.text);
    if (line == nullptr) {
      break;
    }
    facts.end = line;
    ++facts.reached;
  }
  return facts;
}

StopFacts StopOf(const ProcessRun& run) {
  StopFacts facts;
  for (const TraceLine* line : run.lines) {
    if (line->module != kProgram) {
      continue;
    }
    if (line->function == "CNTService::Handler" && line->text == "Got user stop notification") {
      facts.reason = "manual stop";
    } else if (line->function == "CAcAsSvc::OnStop" && facts.begin == nullptr) {
      facts.begin = line;
      facts.reason = facts.reason.empty() ? "stop control" : facts.reason;
    } else if (line->function == "WaitForServiceClosure" && facts.begin == nullptr &&
               (line->text == "Exit Event Signalled" || line->text == "Close Event Signalled")) {
      facts.begin = line;
      facts.reason = line->text == "Exit Event Signalled" ? "exit event, from another program"
                                                          : "close event, from another program";
    } else if (line->function == "CAcAsSvc::Run" && line->level == kErrorLevel &&
               facts.begin == nullptr) {
      // The service ends itself then; at some failures it signals its own close event.
      facts.begin = line;
      facts.reason = "its start failed";
    } else if (line->function == "main" && line->text == "Exit") {
      facts.end = line;
    }
  }
  if (facts.begin == nullptr && facts.end != nullptr) {
    facts.begin = facts.end;
    facts.reason = "it ended by itself";
  }
  return facts;
}

bool IsNormalError(const TraceLine& line) {
  if (line.module != kProgram) {
    return false;
  }
  return line.text == "asServiceObj.ParseStandardArgs Failed" ||
         line.text == "Client UUID is not present in INI .Creating new ..." ||
         StartsWith(line.text, "Client Unique ID: ") ||
         StartsWith(line.text, "ConfigureServiceRecoveryOptions ") ||
         StartsWith(line.text, "File not exist (") || line.text == "GetPrimaryHDDSrNo failed.";
}

std::vector<const TraceLine*> ErrorsOf(const ProcessRun& run) {
  std::vector<const TraceLine*> errors;
  for (const TraceLine* line : run.lines) {
    if (line->level == kErrorLevel && !IsNormalError(*line)) {
      errors.push_back(line);
    }
  }
  return errors;
}
