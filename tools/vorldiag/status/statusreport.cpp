#include "tools/vorldiag/status/statusreport.h"

#include "tools/vorldiag/identity/identityreport.h"
#include "tools/vorldiag/status/filescheck.h"
#include "tools/vorldiag/status/objectscheck.h"
#include "tools/vorldiag/status/rightscheck.h"
#include "tools/vorldiag/status/servicecheck.h"
#include "tools/vorldiag/status/tracecheck.h"

namespace {

Section CheckIdentity(const Situation& situation, const Hardware& hardware) {
  Section section{"identity", "Identifier", {}};
  if (!hardware.problem.empty()) {
    section.Warn("hardware", "Hardware", hardware.problem,
                 "Repair WMI (winmgmt /verifyrepository) or restart the service Winmgmt.");
  }
  if (situation.configuration.path.empty()) {
    section.Warn("stored", "Stored identifier", "not looked for",
                 "Mend the configuration folder above first.");
  } else {
    CompareIdentifiers(hardware, ReadStoredIdentifier(situation.ConfigurationFile()), section);
  }
  return section;
}

}  // namespace

Report StatusReport(const Situation& situation, const Hardware& hardware,
                    const TraceContent& trace) {
  Report report{"status", {}};
  report.sections.push_back(CheckService(situation));
  report.sections.push_back(CheckPrograms(situation));
  report.sections.push_back(CheckFolders(situation));
  report.sections.push_back(CheckRights(situation));
  report.sections.push_back(CheckObjects(situation));
  report.sections.push_back(CheckIdentity(situation, hardware));
  report.sections.push_back(CheckTrace(situation, trace));
  return report;
}
