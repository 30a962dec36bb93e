// Names that carry the product's major version, so that two major versions can be installed and run
// side by side, and all modules of one of them agree on their names:
//
//   service "Client Agent"   ->  "Client Agent 1"
//   event   "SomethingEvent" ->  "Global\SomethingEvent_v1"
//
// Minor versions share their names: an update replaces the one before it. Events lie in the
// namespace of all sessions, since the service and the modules that it talks to run in different
// sessions and under different accounts.
//
// Refused with FALSE, the caller's buffer left as it was: null pointers, empty names, names with a
// character that the service manager or the kernel would not take, and whatever does not fit.
#include "support/vorlinfo.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char kEventPrefix[] = "Global\\";
constexpr char kEventSuffix[] = "_v" VORL_MAJOR_VERSION;
constexpr char kServiceSuffix[] = " " VORL_MAJOR_VERSION;

// The service takes a name of less than 63 characters.
constexpr DWORD kServiceNameSize = 63;

// Both kinds of name refuse the backslash; the service manager also refuses the slash.
bool IsUsable(const char* baseName, const char* forbidden) noexcept {
  return baseName != nullptr && *baseName != '\0' && std::strpbrk(baseName, forbidden) == nullptr;
}

// Writes the three texts one after the other, or gives FALSE when they do not fit.
BOOLEAN Compose(const char* prefix, const char* baseName, const char* suffix, char* name,
                DWORD capacity) noexcept {
  const std::size_t prefixLength = std::strlen(prefix);
  const std::size_t baseLength = std::strlen(baseName);
  const std::size_t suffixLength = std::strlen(suffix);
  if (prefixLength + baseLength + suffixLength >= capacity) {
    return FALSE;
  }
  // The base name first, by memmove: a caller may have it in the same buffer.
  std::memmove(name + prefixLength, baseName, baseLength + 1);
  std::copy_n(prefix, prefixLength, name);
  std::memcpy(name + prefixLength + baseLength, suffix, suffixLength + 1);
  return TRUE;
}

}  // namespace

BOOLEAN GetEventNameByVersion(const char* baseName, char* versionedName, DWORD capacity) {
  if (!IsUsable(baseName, "\\") || versionedName == nullptr) {
    return FALSE;
  }
  return Compose(kEventPrefix, baseName, kEventSuffix, versionedName, capacity);
}

BOOLEAN GetServiceNameByVersion(const char* baseName, char* versionedName, DWORD capacity) {
  if (!IsUsable(baseName, "\\/") || versionedName == nullptr) {
    return FALSE;
  }
  return Compose("", baseName, kServiceSuffix, versionedName, std::min(capacity, kServiceNameSize));
}
