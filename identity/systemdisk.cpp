#include "identity/systemdisk.h"

#include <mbstring.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <string_view>

#include "identity/wmi.h"

namespace {

// Room for "C:" and its terminator, and a little more. A longer value does not fit and counts as
// a failure.
constexpr std::size_t kSystemDriveSize = 5;

// What a media tag has in front of the disk's own name.
constexpr std::wstring_view kDevicePrefix = L"\\\\.\\";

// Every ANSI code page has the characters below this one in the same place.
constexpr wchar_t kAsciiEnd = 0x80;

Bstr PartitionsQuery(const Bstr& mediaTag) {
  std::wstring_view diskName = mediaTag.View();
  diskName.remove_prefix(std::min(kDevicePrefix.size(), diskName.size()));
  std::wstring query = L"Associators of {Win32_DiskDrive.DeviceID='";
  query += kDevicePrefix;
  query += diskName;
  query += L"'} where AssocClass=Win32_DiskDriveToDiskPartition";
  return Bstr(query);
}

Bstr LogicalDisksQuery(const Bstr& partitionId) {
  std::wstring query = L"Associators of {Win32_DiskPartition.DeviceID='";
  query += partitionId.View();
  query += L"'} where AssocClass=Win32_LogicalDiskToPartition";
  return Bstr(query);
}

bool IsSameDrive(const char* drive, const char* systemDrive) {
  return _mbsnbicmp(reinterpret_cast<const unsigned char*>(drive),
                    reinterpret_cast<const unsigned char*>(systemDrive), 2) == 0;
}

// Character by character, as the C library's locale says; '?' for what it cannot express. ASCII,
// which is all that a serial number has, does not go through the C library: its wctob expresses
// nothing at all on a machine whose ANSI code page is UTF-8.
std::string NarrowByLocale(std::wstring_view text) {
  std::string narrow;
  for (const wchar_t character : text) {
    const int byte = character < kAsciiEnd ? static_cast<int>(character) : std::wctob(character);
    narrow += byte == EOF ? '?' : static_cast<char>(byte);
  }
  return narrow;
}

// Without leading and trailing spaces; other white space stays.
std::string Trimmed(const std::string& text, FingerprintStatus& lastError) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) {
    lastError.RecordFailure(0, kStageException);
    return {};
  }
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Stores the serial number of a media object; a blank one and one that is too long are not.
bool StoreSerial(WmiConnection& wmi, const WmiObject& media, char (&serial)[kPrimaryHddSerialSize],
                 FingerprintStatus& lastError) {
  const Bstr value = wmi.Read(media, L"SerialNumber");
  if (!value) {
    return false;
  }
  const std::string text = Trimmed(NarrowByLocale(value.View()), lastError);
  return !text.empty() &&
         lastError.Check(StringCchCopyA(serial, kPrimaryHddSerialSize, text.c_str()), kStageOther);
}

// Goes from a media object over the partitions of its disk to their logical disks; where one of
// these is the system drive, the media's serial number is stored.
bool StoreSerialOfSystemDisk(WmiConnection& wmi, const WmiObject& media, const char* systemDrive,
                             char (&serial)[kPrimaryHddSerialSize], FingerprintStatus& lastError) {
  const Bstr tag = wmi.Read(media, L"Tag");
  if (!tag) {
    return false;
  }
  const WmiResult partitions = wmi.Query(PartitionsQuery(tag));
  if (!partitions) {
    return false;
  }
  while (const WmiObject partition = wmi.Next(partitions)) {
    const Bstr partitionId = wmi.Read(partition, L"DeviceID");
    if (!partitionId) {
      continue;
    }
    const WmiResult logicalDisks = wmi.Query(LogicalDisksQuery(partitionId));
    if (!logicalDisks) {
      continue;
    }
    while (const WmiObject logicalDisk = wmi.Next(logicalDisks)) {
      Bstr drive = wmi.Read(logicalDisk, L"DeviceID");
      if (drive && IsSameDrive(drive.Narrow(), systemDrive) &&
          StoreSerial(wmi, media, serial, lastError)) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

bool ReadSystemDiskSerial(char (&serial)[kPrimaryHddSerialSize], FingerprintStatus& lastError) {
  WmiConnection wmi(lastError);
  if (!wmi.Open(kCimV2)) {
    return false;
  }
  const WmiResult allMedia = wmi.Query(Bstr("SELECT * FROM Win32_PhysicalMedia"));
  if (!allMedia) {
    return false;
  }

  char systemDrive[kSystemDriveSize] = {};
  std::size_t size = 0;
  if (getenv_s(&size, systemDrive, kSystemDriveSize, "SystemDrive") != 0 ||
      systemDrive[0] == '\0') {
    return false;
  }

  while (const WmiObject media = wmi.Next(allMedia)) {
    if (StoreSerialOfSystemDisk(wmi, media, systemDrive, serial, lastError)) {
      return true;
    }
  }
  return false;
}
