#include "tools/vorldiag/identity/cachereport.h"

#include <cerrno>
#include <cstring>
#include <iterator>

#include "identity/cachefile.h"
#include "support/windows_api.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

// Where each parameter lies in the file, and its room.
constexpr std::size_t kAddressOffsets[] = {0, 18};
constexpr std::size_t kBiosUuidOffset = 36;
constexpr std::size_t kSerialOffset = 73;

// The file's path is made of narrow text, which cannot name every folder: it is reached as the
// current one.
bool Enter(const std::wstring& folder, Section& section) {
  if (SetCurrentDirectoryW(folder.c_str())) {
    return true;
  }
  section.Fail("cache-file", "Cache file",
               Utf8(folder) + " cannot be entered: " + ErrorText(GetLastError()),
               "Name a folder that is there: --folder FOLDER");
  return false;
}

bool HasHardware(const Hardware& hardware, Section& section) {
  if (hardware.problem.empty()) {
    return true;
  }
  section.Fail("hardware", "Hardware", hardware.problem,
               "Repair WMI (winmgmt /verifyrepository) or restart the service Winmgmt.");
  return false;
}

// What an error number of the C runtime says of a file.
std::string ReasonOf(int error) {
  switch (error) {
    case 0:
      return "not all of it could be written";
    case ENOENT:
      return "it is not there";
    case EACCES:
      return "no right to it, or another program holds it";
    case ENOSPC:
      return "the disk is full";
    case EPERM:
      return "it is damaged, or no hardware cache file";
    default:
      return "errno " + std::to_string(error);
  }
}

// Puts the file in its place in the current folder when it is whole; until then, and when that
// fails, one that is there stays. Empty, or why it could not be done.
std::string WriteBeside(const Hardware& hardware) {
  constexpr wchar_t part[] = L"new.hwcdata.dat";
  FingerprintStatus failure{1, 1};
  // Not written through: whatever has that name, a link perhaps, goes.
  DeleteFileW(part);
  std::string problem;
  // A call that writes a part only leaves it as it is.
  errno = 0;
  if (!WriteCache("new.", hardware.raw, failure)) {
    problem = ReasonOf(failure.ErrorCode);
  } else if (!MoveFileExW(part, L"hwcdata.dat",
                          MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    problem = ErrorText(GetLastError());
  }
  if (!problem.empty()) {
    DeleteFileW(part);
  }
  return problem;
}

std::string FieldAt(const unsigned char* payload, std::size_t offset, std::size_t size) {
  const auto* const text = reinterpret_cast<const char*>(payload + offset);
  return Utf8FromAnsi({text, strnlen(text, size)});
}

void Compare(const std::string& id, const std::string& title, const std::string& kept,
             const std::string& now, bool hasFailed, Section& section) {
  const auto orNone = [](const std::string& text) { return text.empty() ? "(none)" : text; };
  if (hasFailed) {
    section.Warn(id, title, "unknown, was " + orNone(kept),
                 "WMI could not answer: repair it (winmgmt /verifyrepository) or restart the "
                 "service Winmgmt, and look again.");
  } else if (EqualsIgnoringCase(Wide(kept), Wide(now))) {
    section.Ok(id, title, orNone(now));
  } else {
    section.Warn(id, title, orNone(now) + ", was " + orNone(kept),
                 "The hardware has changed, or WMI answers otherwise than it did; the stored "
                 "identifier stays in force.");
  }
}

}  // namespace

Report WriteCacheReport(const Hardware& hardware, const std::wstring& folder) {
  Report report{"cache", {}};
  Section section{"cache", "Hardware cache file", {}};
  if (HasHardware(hardware, section) && Enter(folder, section)) {
    const std::string path = Utf8(folder) + "\\hwcdata.dat";
    const std::string problem = WriteBeside(hardware);
    const std::string failed = hardware.FailedParts();
    if (problem.empty() && !failed.empty()) {
      section.Warn("cache-file", "Cache file", path + " is written without " + failed,
                   "WMI could not answer. Write the file again when vorldiag identity shows it.");
    } else if (problem.empty()) {
      section.Ok("cache-file", "Cache file", path + " is written");
    } else {
      section.Fail("cache-file", "Cache file", path + " cannot be written: " + problem,
                   "What was there before is unchanged. Mend that, or name another folder: "
                   "--folder FOLDER");
    }
  }
  report.sections.push_back(std::move(section));
  return report;
}

Report CheckCacheReport(const Hardware& hardware, const std::wstring& folder) {
  Report report{"cache", {}};
  Section section{"cache", "Hardware cache file", {}};
  if (HasHardware(hardware, section) && Enter(folder, section)) {
    FingerprintStatus failure{1, 1};
    unsigned char payload[kCachePayloadSize] = {};
    const std::string path = Utf8(folder) + "\\hwcdata.dat";
    if (ReadCache("", payload, failure)) {
      section.Ok("cache-file", "Cache file", path);
      Compare("bios-uuid", "BIOS UUID", FieldAt(payload, kBiosUuidOffset, kBiosUuidSize),
              Utf8FromAnsi(hardware.raw.BiosUuid), hardware.biosUuid.hasFailed, section);
      Compare("disk-serial", "Disk serial", FieldAt(payload, kSerialOffset, kPrimaryHddSerialSize),
              Utf8FromAnsi(hardware.raw.PrimaryHddSerial), hardware.diskSerial.hasFailed, section);
      auto address = hardware.raw.MacAddressList.begin();
      for (std::size_t i = 0; i < std::size(kAddressOffsets); ++i) {
        const bool isThere = address != hardware.raw.MacAddressList.end();
        Compare("network-address-" + std::to_string(i + 1),
                "Network address " + std::to_string(i + 1),
                FieldAt(payload, kAddressOffsets[i], kMacAddressSize),
                isThere ? Utf8FromAnsi(*address) : "", hardware.haveAddressesFailed, section);
        address = isThere ? std::next(address) : address;
      }
    } else if (failure.ErrorCode == ENOENT) {
      section.Fail("cache-file", "Cache file", path + " is not there",
                   "Write it while the hardware is as it should be: vorldiag cache write");
    } else {
      section.Fail("cache-file", "Cache file",
                   path + " cannot be used: " + ReasonOf(failure.ErrorCode),
                   failure.ErrorCode == EPERM
                       ? "Write it anew: vorldiag cache write"
                       : "Run vorldiag from an elevated prompt; when that does not help, another "
                         "program keeps the file for itself.");
    }
  }
  report.sections.push_back(std::move(section));
  return report;
}
