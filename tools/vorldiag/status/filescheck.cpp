#include "tools/vorldiag/status/filescheck.h"

#include <algorithm>

#include "support/folder.h"
#include "tools/vorldiag/machine/binaryfile.h"
#include "tools/vorldiag/status/shippedfiles.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

enum class Without { kNoStart, kNoEffect, kNothing };

// A binary of an installation.
struct Part {
  const wchar_t* name;
  bool isInRoot;  // else beside the program
  Without without;
  const char* consequence;  // of its being missing
  std::vector<WORD> ordinals;
  std::vector<const char*> functions;
};

const std::vector<Part>& Parts() {
  static const std::vector<Part> parts = {
      {L"vorlsrvc.exe", false, Without::kNoStart, "There is no service without it.", {}, {}},
      {L"vlevtlog.dll",
       false,
       Without::kNoStart,
       "The service does not start without it (error 1053).",
       {2, 3},
       {}},
      {L"vorlmisc.dll",
       false,
       Without::kNoStart,
       "The service does not start without it (error 1053).",
       {1, 2, 5, 6},
       {}},
      {L"vorlinfo.dll",
       false,
       Without::kNoStart,
       "The service does not start without it (error 1053).",
       {1, 9},
       {}},
      {L"vorlcore.dll",
       true,
       Without::kNoEffect,
       "The service starts and stops at once without it.",
       {},
       {"ClientAgentCoreStartUp", "ClientAgentCoreCleanUp"}},
      {L"vorlupd.dll",
       true,
       Without::kNothing,
       "Without it no pending update is applied.",
       {},
       {"UpdateBeforeClientService"}},
      {L"vorlhelper.exe",
       false,
       Without::kNothing,
       "Without it nobody hears of stops and of the removal.",
       {},
       {}},
      {L"vorldiag.exe", false, Without::kNothing, "", {}, {}}};
  return parts;
}

std::string MissingEntries(const Part& part, const BinaryFile& file) {
  std::string missing;
  for (const WORD ordinal : part.ordinals) {
    if (std::find(file.ordinals.begin(), file.ordinals.end(), ordinal) == file.ordinals.end()) {
      missing += (missing.empty() ? "" : ", ") + std::to_string(ordinal);
    }
  }
  for (const char* function : part.functions) {
    if (std::find(file.functions.begin(), file.functions.end(), function) == file.functions.end()) {
      missing += (missing.empty() ? "" : ", ") + std::string(function);
    }
  }
  return missing;
}

std::string ShippedText(const std::string& name, const BinaryFile& file, bool& isOther) {
  const std::string shipped = ShippedSha256(name);
  const auto& before = file.unsignedSha256;
  isOther = false;
  if (shipped.empty()) {
    return "";
  }
  if (shipped == file.sha256) {
    return ", as shipped";
  }
  if (std::find(before.begin(), before.end(), shipped) != before.end()) {
    return ", as shipped but for its signature";
  }
  isOther = true;
  return ", not the one shipped with this tool";
}

void AddMissing(const Part& part, const std::string& id, const std::string& name,
                const std::string& value, Section& section) {
  const std::string advice = std::string(part.consequence) + " Install " + name + " again.";
  if (part.without == Without::kNothing) {
    section.Warn(id, name, value, advice);
  } else {
    section.Fail(id, name, value, advice);
  }
}

void CheckPart(const Part& part, const std::wstring& folder, Section& section) {
  const std::string name = Utf8(part.name);
  const std::string id = name.substr(0, name.find('.'));
  if (folder.empty()) {
    section.Warn(id, name, "not looked for",
                 "Mend the installation folder below first: nobody knows where it is.");
    return;
  }
  const BinaryFile file = ReadBinaryFile(folder + L"\\" + part.name);
  if (file.error == ERROR_FILE_NOT_FOUND || file.error == ERROR_PATH_NOT_FOUND) {
    AddMissing(part, id, name, "missing in " + Utf8(folder), section);
    return;
  }
  if (file.error != ERROR_SUCCESS) {
    section.Fail(id, name, "cannot be read: " + ErrorText(file.error),
                 "Another program keeps it for itself, or its rights are wrong: LocalSystem must "
                 "be able to read it.");
    return;
  }
  bool isOther = false;
  const std::string value = (file.version.empty() ? "no version" : file.version) + ", " +
                            std::to_string(file.size) + " bytes, SHA-256 " + file.sha256 +
                            ShippedText(name, file, isOther);
  const std::string missing = MissingEntries(part, file);
  if (!file.damage.empty()) {
    AddMissing(part, id, name, file.damage + ": " + value, section);
  } else if (!missing.empty()) {
    AddMissing(part, id, name, "lacks the entries " + missing + ": " + value, section);
  } else if (isOther) {
    section.Warn(id, name, value,
                 "An update or somebody has replaced it: when nobody knows of that, install it "
                 "again.");
  } else {
    section.Ok(id, name, value);
  }
}

void CheckFolder(const char* id, const char* title, const FolderFact& folder, const char* advice,
                 Section& section) {
  if (!folder.problem.empty()) {
    section.Fail(id, title, folder.problem + " (" + folder.origin + ")", advice);
  } else {
    section.Ok(id, title, Utf8(folder.path) + " (" + folder.origin + ")");
  }
}

std::wstring ParentOf(const std::wstring& path) { return path.substr(0, path.find_last_of(L'\\')); }

}  // namespace

Section CheckPrograms(const Situation& situation) {
  Section section{"programs", "Programs", {}};
  for (const Part& part : Parts()) {
    CheckPart(part, part.isInRoot ? situation.root.path : situation.programFolder, section);
  }
  return section;
}

Section CheckFolders(const Situation& situation) {
  constexpr char correctRoot[] =
      "Correct the registry value RootDir, or delete it to use the folder of vorlmisc.dll: "
      "without it neither update nor core module is loaded.";
  constexpr char correctConfiguration[] =
      "Correct the registry value ConfigDir, or delete it to use conf below the installation "
      "folder: without it there is no identifier, and the service stops at once.";
  Section section{"folders", "Folders", {}};
  section.Ok("program-folder", "Program",
             Utf8(situation.programFolder) +
                 (situation.registration ? " (registered command)" : " (of this tool)"));
  CheckFolder("root-folder", "Installation", situation.root, correctRoot, section);

  const FolderFact& configuration = situation.configuration;
  if (!configuration.problem.empty()) {
    CheckFolder("config-folder", "Configuration", configuration, correctConfiguration, section);
  } else if (IsFolder(configuration.path.c_str())) {
    CheckFolder("config-folder", "Configuration", configuration, "", section);
    if (Exists(situation.ConfigurationFile())) {
      section.Ok("config-file", "Configuration file", Utf8(situation.ConfigurationFile()));
    } else {
      section.Warn("config-file", "Configuration file",
                   Utf8(situation.ConfigurationFile()) + " is missing",
                   "All settings are defaults and the identifier will be made anew: when there "
                   "was a file, put it back before the next start.");
    }
  } else if (Exists(configuration.path)) {
    section.Fail("config-folder", "Configuration",
                 Utf8(configuration.path) + " is no folder (" + configuration.origin + ")",
                 correctConfiguration);
  } else if (!IsFolder(ParentOf(configuration.path).c_str())) {
    section.Fail("config-folder", "Configuration",
                 Utf8(configuration.path) + " does not exist, nor does the folder above it (" +
                     configuration.origin + ")",
                 correctConfiguration);
  } else {
    section.Warn("config-folder", "Configuration",
                 Utf8(configuration.path) + " does not exist (" + configuration.origin + ")",
                 "The next run of vorlsrvc.exe makes it, with a new identifier: when there was "
                 "one, put it back before, or correct ConfigDir.");
  }

  if (IsFolder(situation.Logs().c_str())) {
    section.Ok("logs-folder", "Trace", Utf8(situation.Logs()) + " (beside vlevtlog.dll)");
  } else if (Exists(situation.Logs())) {
    section.Fail("logs-folder", "Trace", Utf8(situation.Logs()) + " is no folder",
                 "Remove what is there: no trace can be written.");
  } else {
    section.Warn("logs-folder", "Trace", Utf8(situation.Logs()) + " does not exist",
                 "Nothing has been written yet; when the service has run, it is not allowed to "
                 "make the folder.");
  }
  return section;
}
