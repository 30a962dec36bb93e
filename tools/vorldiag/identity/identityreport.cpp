#include "tools/vorldiag/identity/identityreport.h"

#include "identity/ztuuid.h"
#include "tools/vorldiag/identity/placeholders.h"

namespace {

constexpr char kSharedAdvice[] =
    "Other computers may make the same identifier: compare them, and ask the maker for a value of "
    "its own where two are equal.";

constexpr char kFailedAdvice[] =
    "WMI could not answer, so that nobody knows what the computer's is: repair WMI (winmgmt "
    "/verifyrepository) or restart the service Winmgmt, and look again.";

void AddRaw(Section& section, const std::string& id, const std::string& title,
            const RawParameter& parameter, const std::string& reason) {
  if (parameter.value.empty()) {
    const std::string none =
        "(none) " + parameter.origin + (parameter.error.empty() ? "" : ", WMI: " + parameter.error);
    if (parameter.hasFailed) {
      section.Warn(id, title, none, kFailedAdvice);
    } else {
      section.Ok(id, title, none);
    }
    return;
  }
  const std::string value = parameter.value + "  (" + parameter.origin + ")";
  if (reason.empty()) {
    section.Ok(id, title, value);
  } else {
    section.Warn(id, title, value + ": " + reason, kSharedAdvice);
  }
}

bool IsIdentifier(const std::string& text) {
  return text.size() == kIdentifierSize - 1 &&
         text.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
}

Section Collected(const Hardware& hardware) {
  Section section{"collected", "What this computer says", {}};
  AddRaw(section, "bios-uuid", "BIOS UUID", hardware.biosUuid,
         PlaceholderUuid(hardware.biosUuid.value));
  AddRaw(section, "disk-serial", "Disk serial", hardware.diskSerial,
         PlaceholderSerial(hardware.diskSerial.value));
  int number = 0;
  for (const RawParameter& address : hardware.addresses) {
    const std::string digit = std::to_string(++number);
    AddRaw(section, "network-address-" + digit, "Network address " + digit, address,
           PlaceholderAddress(address.value));
  }
  if (hardware.addresses.empty()) {
    RawParameter addresses;
    addresses.origin = "Win32_NetworkAdapter.MACAddress";
    addresses.error = hardware.addressError;
    addresses.hasFailed = hardware.haveAddressesFailed;
    AddRaw(section, "network-address-1", "Network addresses", addresses, "");
  }
  return section;
}

std::string OrNone(const std::string& text) { return text.empty() ? "(empty)" : text; }

Section Normalised(const Hardware& hardware) {
  Section section{"normalised", "What becomes of it", {}};
  section.Ok("part-1", "1 UUID", OrNone(hardware.processedBiosId));
  section.Ok("part-2", "2 serial's last 8", OrNone(hardware.optimumSerial));
  section.Ok("part-3", "3 smaller address", OrNone(hardware.address1));
  section.Ok("part-4", "4 larger address", OrNone(hardware.address2));
  section.Ok("hashed-text", "Hashed text", OrNone(hardware.combined));
  return section;
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += (text.empty() ? "" : " | ") + line;
  }
  return text;
}

}  // namespace

void CompareIdentifiers(const Hardware& hardware, const IdentifierOnDisk& stored,
                        Section& section) {
  if (!stored.problem.empty()) {
    section.Fail("stored", "Stored identifier", "(unknown) " + stored.problem,
                 "Find out who holds or has damaged vorlconf.ini: the service cannot read its "
                 "identifier there either.");
  } else if (stored.value.empty()) {
    section.Warn("stored", "Stored identifier", "(none)",
                 "The next run of vorlsrvc.exe makes and stores it; when it stays away, look for "
                 "error lines with: vorldiag trace --level error");
  } else if (!IsIdentifier(stored.value)) {
    section.Warn(
        "stored", "Stored identifier",
        stored.value + " is no identifier, which has 32 hexadecimal digits",
        "Somebody has written it by hand, and the service keeps it. To have the computer's "
        "own made, delete the key clientuniqueid and start the service.");
  } else if (hardware.identifier.empty()) {
    section.Warn("stored", "Stored identifier", stored.value + ", not compared",
                 "The hardware gives no identifier now, so nothing can be said; the stored one "
                 "stays in force.");
  } else if (!hardware.FailedParts().empty() && stored.value != hardware.identifier) {
    section.Warn(
        "stored", "Stored identifier",
        stored.value + ", not compared: WMI could not answer for " + hardware.FailedParts(),
        "Repair WMI (winmgmt /verifyrepository) or restart the service Winmgmt, and look "
        "again; the stored one stays in force.");
  } else if (stored.value != hardware.identifier) {
    section.Warn("stored", "Stored identifier",
                 stored.value + " differs from the hardware's " + hardware.identifier,
                 "If this computer was cloned from another one or its vorlconf.ini was copied, "
                 "delete the key clientuniqueid and start the service; if its hardware was "
                 "changed, nothing is to be done.");
  } else {
    section.Ok("stored", "Stored identifier", stored.value + ", equal to the hardware's");
  }
}

Report IdentityReport(const Hardware& hardware, const IdentifierOnDisk& stored,
                      const std::vector<Collection>& collections) {
  Report report{"identity", {}};
  Section identifier{"identifier", "Identifier", {}};
  if (!hardware.problem.empty()) {
    identifier.Fail("identifier", "Identifier", "(unknown) " + hardware.problem,
                    "Repair WMI (winmgmt /verifyrepository) or restart the service Winmgmt.");
  } else {
    report.sections.push_back(Collected(hardware));
    report.sections.push_back(Normalised(hardware));
    if (hardware.identifier.empty()) {
      identifier.Fail("identifier", "Identifier", "(none)",
                      "No part of it could be had: repair WMI (winmgmt /verifyrepository).");
    } else if (!hardware.FailedParts().empty()) {
      identifier.Warn("identifier", "Identifier",
                      hardware.identifier + " without " + hardware.FailedParts(), kFailedAdvice);
    } else {
      identifier.Ok("identifier", "Identifier", hardware.identifier);
    }
  }
  CompareIdentifiers(hardware, stored, identifier);
  report.sections.push_back(std::move(identifier));

  if (!collections.empty()) {
    Section section{"collections", "The program's two collections", {}};
    int number = 0;
    for (const Collection& collection : collections) {
      const std::string id = "collection-" + std::to_string(++number);
      const std::string value = collection.identifier.empty() ? "(failed)" : collection.identifier;
      if (collection.identifier == hardware.identifier) {
        section.Ok(id, collection.name, value);
      } else {
        section.Warn(id, collection.name, value + ": " + Joined(collection.lines),
                     "It gave another result than the collection above: WMI answers differently "
                     "from one moment to the next, or its first lines say why.");
      }
    }
    report.sections.push_back(std::move(section));
  }
  return report;
}
