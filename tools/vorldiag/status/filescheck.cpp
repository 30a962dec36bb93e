#include "tools/vorldiag/status/filescheck.h"

#include <algorithm>

#include "support/folder.h"
#include "support/handle.h"
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
  // Modules may come from other makers under other names; the service's program cannot.
  const bool isService = part.without == Without::kNoStart && part.ordinals.empty();
  if (file.damage.empty() && isOther && isService &&
      !EqualsIgnoringCase(file.originalName, part.name)) {
    AddMissing(part, id, name,
               "it is another program" +
                   (file.originalName.empty() ? "" : " (" + Utf8(file.originalName) + ")") + ": " +
                   value,
               section);
  } else if (!file.damage.empty()) {
    AddMissing(part, id, name, file.damage + ": " + value, section);
  } else if (!missing.empty()) {
    AddMissing(part, id, name, "lacks the entries " + missing + ": " + value, section);
  } else if (isOther) {
    constexpr char ownVersion[] = VORL_VERSION ".0";
    section.Warn(id, name, value,
                 file.version == ownVersion || file.version.empty()
                     ? "An update or somebody has replaced it: when nobody knows of that, install "
                       "it again."
                     : std::string("It is of another version than this tool (") + ownVersion +
                           "). After an update of this file alone that is so; otherwise install "
                           "the package again, so that all files fit each other.");
  } else {
    section.Ok(id, name, value);
  }
}

std::string InstallationKeyText() { return "HKLM\\" + Utf8(kInstallationKeyPath); }

void CheckFolder(const char* id, const char* title, const FolderFact& folder,
                 const std::string& advice, Section& section) {
  if (!folder.problem.empty()) {
    section.Fail(id, title, folder.problem + " (" + folder.origin + ")", advice);
  } else {
    section.Ok(id, title, Utf8(folder.path) + " (" + folder.origin + ")");
  }
}

void CheckConfigurationFolder(const Situation& situation, Section& section) {
  const FolderFact& configuration = situation.configuration;
  std::string advice = "Correct the registry value ConfigDir below " + InstallationKeyText() +
                       ", or delete it to use conf below the installation folder";
  if (!configuration.problem.empty() && configuration.problem == situation.root.problem) {
    advice = "Mend the installation folder above first";
  } else if (!configuration.isRegistered) {
    advice =
        "Remove what is in the place of the folder, or register another one as ConfigDir "
        "below " +
        InstallationKeyText();
  }
  advice += ": without it there is no identifier, and the service stops at once.";
  const bool isMissing = configuration.problem.empty() && !Exists(configuration.path);
  if (isMissing) {
    section.Warn("config-folder", "Configuration",
                 Utf8(configuration.path) + " does not exist (" + configuration.origin + ")",
                 "The next run of vorlsrvc.exe makes it, with a new identifier: when there was "
                 "one, put it back before, or correct ConfigDir.");
    return;
  }
  CheckFolder("config-folder", "Configuration", configuration, advice, section);
  if (!configuration.problem.empty()) {
    return;
  }
  const std::string file = Utf8(situation.ConfigurationFile());
  if (IsFolder(situation.ConfigurationFile().c_str())) {
    section.Fail("config-file", "Configuration file", file + " is a folder",
                 "Remove it, and put the file back when there was one: the service has no settings "
                 "and stops at once.");
  } else if (Exists(situation.ConfigurationFile())) {
    section.Ok("config-file", "Configuration file", file);
  } else {
    section.Warn("config-file", "Configuration file", file + " is missing",
                 "All settings are defaults and the identifier will be made anew: when there "
                 "was a file, put it back before the next start.");
  }
}

void CheckLogs(const Situation& situation, Section& section) {
  const std::string folder = Utf8(situation.Logs());
  if (IsFolder(situation.Logs().c_str())) {
    section.Ok("logs-folder", "Trace", folder + " (beside vlevtlog.dll)");
  } else if (IsNoFolder(situation.Logs())) {
    section.Fail("logs-folder", "Trace", folder + " is no folder",
                 "Remove what is there: no trace can be written.");
  } else if (Exists(situation.Logs())) {
    section.Warn("logs-folder", "Trace", folder + " cannot be looked at",
                 "Run vorldiag from an elevated prompt.");
  } else {
    section.Warn("logs-folder", "Trace", folder + " does not exist",
                 "Nothing has been written yet; when the service has run, it is not allowed to "
                 "make the folder.");
  }
}

// Of the folders that are written into, the one with the least.
void CheckSpace(const Situation& situation, Section& section) {
  constexpr ULONGLONG kMegabyte = 1024ULL * 1024;
  constexpr ULONGLONG kNeeded = 100 * kMegabyte;  // what an installation is said to need
  ULONGLONG least = ~ULONGLONG{0};
  std::wstring where;
  for (const std::wstring& folder : {situation.Logs(), situation.programFolder, situation.root.path,
                                     situation.configuration.path}) {
    ULARGE_INTEGER available{};
    if (!folder.empty() && GetDiskFreeSpaceExW(folder.c_str(), &available, nullptr, nullptr) &&
        available.QuadPart < least) {
      least = available.QuadPart;
      where = folder;
    }
  }
  if (where.empty()) {
    section.Warn("free-space", "Free space", "unknown", "Run vorldiag from an elevated prompt.");
    return;
  }
  const std::string value = std::to_string(least / kMegabyte) + " MB for " + Utf8(where);
  if (least < kMegabyte) {
    section.Fail("free-space", "Free space", value,
                 "The disk is full: trace lines are lost, and neither an identifier nor an update "
                 "can be kept. Make room.");
  } else if (least < kNeeded) {
    section.Warn("free-space", "Free space", value,
                 "The trace and an update need up to 100 MB: make room before lines are lost.");
  } else {
    section.Ok("free-space", "Free space", value);
  }
}

// Whether a folder has anything in it. `error`: why that cannot be told, else ERROR_SUCCESS.
bool HasEntries(const std::wstring& folder, DWORD& error) {
  WIN32_FIND_DATAW found{};
  const FindHandle search(FindFirstFileW((folder + L"\\*").c_str(), &found));
  error = search ? ERROR_SUCCESS : GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
    error = ERROR_SUCCESS;
  }
  while (search) {
    const std::wstring_view name = found.cFileName;
    if (name != L"." && name != L"..") {
      return true;
    }
    if (!FindNextFileW(search.Get(), &found)) {
      break;
    }
  }
  return false;
}

void CheckUpdate(const Situation& situation, Section& section) {
  if (situation.root.path.empty()) {
    return;
  }
  const std::wstring work = situation.root.path + L"\\update.work";
  const std::wstring pending = situation.root.path + L"\\pending";
  DWORD error = ERROR_SUCCESS;
  if (Exists(work + L"\\journal")) {
    section.Warn(
        "update", "Update", "not complete: " + Utf8(work) + "\\journal is there",
        "Leave update.work alone and start the service: it completes the update, or gives "
        "the former files back. Only when the trace then says \"Journal cannot be read\" "
        "compare update.work\\backup with the installation by hand and delete update.work.");
  } else if (HasEntries(pending, error)) {
    section.Warn("update", "Update", "files wait in " + Utf8(pending),
                 "The next start of the service puts them in place. When they are still there "
                 "afterwards, its error lines say why: vorldiag trace --level error");
  } else if (error != ERROR_SUCCESS) {
    section.Warn("update", "Update", Utf8(pending) + ": " + ErrorText(error),
                 "Run vorldiag from an elevated prompt.");
  } else {
    section.Ok("update", "Update", "none waits");
  }
}

}  // namespace

Section CheckPrograms(const Situation& situation) {
  Section section{"programs", "Programs", {}};
  for (const Part& part : Parts()) {
    CheckPart(part, part.isInRoot ? situation.root.path : situation.programFolder, section);
  }
  return section;
}

Section CheckFolders(const Situation& situation) {
  Section section{"folders", "Folders", {}};
  section.Ok("program-folder", "Program",
             Utf8(situation.programFolder) +
                 (situation.registration ? " (registered command)" : " (of this tool)"));
  CheckFolder("root-folder", "Installation", situation.root,
              "Correct the registry value RootDir below " + InstallationKeyText() +
                  ", or delete it to use the folder of vorlmisc.dll: without it neither update nor "
                  "core module is loaded.",
              section);
  CheckConfigurationFolder(situation, section);
  CheckLogs(situation, section);
  CheckSpace(situation, section);
  CheckUpdate(situation, section);
  return section;
}
