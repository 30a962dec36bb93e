#include "tools/vorldiag/status/rightscheck.h"

#include "tools/vorldiag/machine/rights.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

constexpr wchar_t kServicesKey[] = L"SYSTEM\\CurrentControlSet\\Services\\";

// What another account can do with the right, and how it is taken away.
constexpr char kFolderAdvice[] =
    "Whoever may do this decides what runs as LocalSystem. Leave it to administrators and the "
    "system: icacls \"%s\" /reset, then icacls \"%s\" /inheritance:r /grant:r "
    "*S-1-5-18:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F";
constexpr char kFileAdvice[] =
    "Whoever may do this decides what runs as LocalSystem. Take the right away: icacls \"%s\" "
    "/reset, after its folder is right";
constexpr char kKeyAdvice[] =
    "Whoever may do this decides what runs as LocalSystem: in regedit leave writing %s to "
    "administrators and the system.";

std::string Filled(const char* advice, const std::wstring& object) {
  std::string text(advice);
  const std::string name = Utf8(object);
  for (std::size_t place = text.find("%s"); place != std::string::npos;
       place = text.find("%s", place + name.size())) {
    text.replace(place, 2, name);
  }
  return text;
}

void AddAccess(const std::string& id, const std::string& title, const Access& access,
               const std::string& object, const std::string& advice, Section& section) {
  if (access.error == ERROR_FILE_NOT_FOUND || access.error == ERROR_PATH_NOT_FOUND) {
    section.Ok(id, title, object + " does not exist");
    return;
  }
  if (access.error != ERROR_SUCCESS) {
    section.Warn(id, title, object + ": rights cannot be read, " + ErrorText(access.error),
                 "Run vorldiag from an elevated prompt.");
    return;
  }
  const std::string foreign = ForeignText(access);
  if (foreign.empty()) {
    section.Ok(id, title, object + ": administrators and the system only");
  } else {
    section.Fail(id, title, object + ": " + foreign, advice);
  }
}

// Whether others than those who may write should be able to read.
enum class Readers { kNone, kUsers };

void CheckFolderRights(const char* id, const char* title, const std::wstring& path, Readers readers,
                       Section& section) {
  if (!path.empty()) {
    AddAccess(id, title, FileAccess(path, FolderKind()), Utf8(path),
              Filled(kFolderAdvice, path) +
                  (readers == Readers::kUsers ? " *S-1-5-32-545:(OI)(CI)RX" : ""),
              section);
  }
}

// The files of a folder that the service runs or reads: one line for all that are right.
void CheckFileRights(const Situation& situation, Section& section) {
  int right = 0;
  std::vector<std::wstring> paths;
  for (const wchar_t* name : {L"vorlsrvc.exe", L"vlevtlog.dll", L"vorlmisc.dll", L"vorlinfo.dll",
                              L"vorlhelper.exe", L"vorldiag.exe"}) {
    paths.push_back(situation.programFolder + L"\\" + name);
  }
  if (!situation.root.path.empty()) {
    paths.push_back(situation.root.path + L"\\vorlcore.dll");
    paths.push_back(situation.root.path + L"\\vorlupd.dll");
  }
  if (!situation.configuration.path.empty()) {
    paths.push_back(situation.ConfigurationFile());
  }
  for (const std::wstring& path : paths) {
    const Access access = FileAccess(path, FileKind());
    const std::wstring name = path.substr(path.find_last_of(L'\\') + 1);
    if (access.error == ERROR_SUCCESS && ForeignText(access).empty()) {
      ++right;
    } else if (Exists(path)) {
      AddAccess("rights-" + Utf8(name.substr(0, name.find(L'.'))), Utf8(name), access, Utf8(path),
                Filled(kFileAdvice, path), section);
    }
  }
  section.Ok("rights-files", "Files",
             std::to_string(right) + " files: administrators and the system only");
}

void CheckServiceRights(const Situation& situation, Section& section) {
  const std::string& name = situation.names.service;
  AddAccess("rights-service", "Service", ServiceAccess(situation.service.Handle(), ServiceKind()),
            name,
            "Whoever may do this decides what runs as LocalSystem: give the service its rights "
            "back with sc sdset, or register it anew.",
            section);

  const Access controls = ServiceAccess(situation.service.Handle(), ServiceControlKind());
  if (controls.error != ERROR_SUCCESS) {
    section.Warn("rights-controls", "Controls 128 and 140",
                 "rights cannot be read, " + ErrorText(controls.error),
                 "Run vorldiag from an elevated prompt.");
    return;
  }
  std::string foreign;
  for (const std::string& right : controls.foreignRights) {
    foreign += (foreign.empty() ? "" : "; ") + right;
  }
  if (controls.hasNoList) {
    foreign = "everyone may send them";
  }
  if (foreign.empty()) {
    section.Ok("rights-controls", "Controls 128 and 140", "administrators and the system only");
  } else {
    section.Warn("rights-controls", "Controls 128 and 140", foreign,
                 "They can stop the agent with control 140; Windows gives this right to everybody "
                 "who is logged on at the computer. To take it away, remove CR from their entries "
                 "with sc sdset.");
  }
}

}  // namespace

Section CheckRights(const Situation& situation) {
  Section section{"rights", "Rights", {}};
  CheckFolderRights("rights-program", "Program folder", situation.programFolder, Readers::kUsers,
                    section);
  if (!EqualsIgnoringCase(situation.root.path, situation.programFolder)) {
    CheckFolderRights("rights-root", "Installation folder", situation.root.path, Readers::kUsers,
                      section);
  }
  CheckFolderRights("rights-config", "conf", situation.configuration.path, Readers::kNone, section);
  CheckFolderRights("rights-logs", "logs", situation.Logs(), Readers::kNone, section);
  if (!situation.root.path.empty()) {
    CheckFolderRights("rights-pending", "pending", situation.root.path + L"\\pending",
                      Readers::kNone, section);
  }
  CheckFileRights(situation, section);
  AddAccess("rights-installation-key", "Installation key",
            MachineKeyAccess(kInstallationKeyPath, KeyKind()),
            "HKLM\\" + Utf8(kInstallationKeyPath), Filled(kKeyAdvice, kInstallationKeyPath),
            section);
  if (situation.openError == ERROR_SUCCESS) {
    const std::wstring key = kServicesKey + Wide(situation.names.service);
    AddAccess("rights-service-key", "Service's key", MachineKeyAccess(key, KeyKind()),
              "HKLM\\" + Utf8(key), Filled(kKeyAdvice, key), section);
    CheckServiceRights(situation, section);
  }
  return section;
}
