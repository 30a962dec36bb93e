#include "identity/normalise.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>

#include "support/textconv.h"

// The lean windows.h leaves COM out.
#include <objbase.h>

namespace {

// An address without separators.
constexpr std::size_t kMacDigits = 12;
constexpr std::ptrdiff_t kMacSeparators = 5;

// How many addresses fit into the four fields that begin at MacAddress1.
constexpr std::size_t kMacPlaces = 4;
static_assert(offsetof(FingerprintFields, MacAddress1) + kMacPlaces * kMacAddressSize <=
              offsetof(FingerprintFields, OptimumHddSerial) + kOptimumHddSerialSize);

// How much of the disk's serial number counts.
constexpr std::size_t kSerialTail = 8;

// A UUID in braces and its terminator.
constexpr int kBracedUuidSize = 39;

// Brings one address into the form with hyphens; false when its form is unknown. Throws
// std::out_of_range for bare digits that are too few.
bool Hyphenate(std::string& address) {
  const auto hyphens = std::count(address.begin(), address.end(), '-');
  const auto colons = std::count(address.begin(), address.end(), ':');
  if (hyphens == kMacSeparators) {
    return true;
  }
  if (colons == kMacSeparators) {
    std::replace(address.begin(), address.end(), ':', '-');
    return true;
  }
  if (hyphens == 0 && colons == 0) {
    for (const std::size_t position : {10U, 8U, 6U, 4U, 2U}) {
      address.insert(position, 1, '-');
    }
    return true;
  }
  return false;
}

// Whether the first address sorts after the second; the characters count as signed.
bool IsGreater(const char* first, const char* second) {
  for (std::size_t i = 0; i < kMacDigits; ++i) {
    const auto left = static_cast<signed char>(first[i]);
    const auto right = static_cast<signed char>(second[i]);
    if (left != right) {
      return left > right;
    }
  }
  return false;
}

}  // namespace

bool HyphenateMacAddresses(std::list<std::string>& addresses, FingerprintStatus& lastError) {
  try {
    for (std::string& address : addresses) {
      std::string hyphenated = address;
      if (!Hyphenate(hyphenated)) {
        lastError.RecordFailure(0, kStageMacForm);
        return false;
      }
      address = std::move(hyphenated);
    }
  } catch (const std::exception&) {
    lastError.RecordFailure(0, kStageException);
    return false;
  }
  return true;
}

bool PlaceMacAddresses(const std::list<std::string>& addresses, FingerprintFields& fields) {
  if (addresses.empty()) {
    return true;
  }
  try {
    // Counted from the beginning of the whole record, because the third and fourth place lie in the
    // fields that follow.
    char* place = reinterpret_cast<char*>(&fields) + offsetof(FingerprintFields, MacAddress1);
    const char* const end = place + kMacPlaces * kMacAddressSize;
    for (auto entry = addresses.begin(); entry != addresses.end() && place != end;
         ++entry, place += kMacAddressSize) {
      std::string digits = *entry;
      std::erase(digits, '-');
      digits.resize(std::min(digits.size(), kMacDigits));
      if (!fields.LastError.Check(StringCchCopyA(place, kMacAddressSize, digits.c_str()),
                                  kStageOther)) {
        return false;
      }
    }
  } catch (const std::exception&) {
    fields.LastError.RecordFailure(0, kStageException);
    return false;
  }
  if (IsGreater(fields.MacAddress1, fields.MacAddress2)) {
    std::swap(fields.MacAddress1, fields.MacAddress2);
  }
  return true;
}

bool HasUuidForm(const char (&text)[kBiosUuidSize], FingerprintStatus& lastError) {
  char szUuid[kBracedUuidSize];
  if (!lastError.Check(StringCchPrintfA(szUuid, kBracedUuidSize, "{%s}", text), kStageOther)) {
    return false;
  }
  const int required = AnsiToWide(szUuid, nullptr, 0);
  wchar_t wszUuid[kBracedUuidSize];
  if (required == 0 || required > kBracedUuidSize ||
      AnsiToWide(szUuid, wszUuid, kBracedUuidSize) == 0) {
    return false;
  }
  CLSID uuid{};
  return SUCCEEDED(CLSIDFromString(wszUuid, &uuid));
}

bool TakeSerialTail(const char (&serial)[kPrimaryHddSerialSize],
                    char (&tail)[kOptimumHddSerialSize], FingerprintStatus& lastError) {
  const std::size_t length = std::strlen(serial);
  if (length < kSerialTail) {
    tail[0] = '\0';
    return true;
  }
  const HRESULT result = StringCchCopyA(tail, kSerialTail + 1, serial + length - kSerialTail);
  if (FAILED(result)) {
    tail[kSerialTail] = '\0';
    lastError.RecordFailure(STRSAFE_E_INSUFFICIENT_BUFFER, kStageOther);
    return false;
  }
  return true;
}

HRESULT RemoveHyphens(const char (&uuid)[kBiosUuidSize], char (&bare)[kProcessedBiosIdSize],
                      FingerprintStatus& lastError) {
  char szWithoutHyphens[kBiosUuidSize];
  std::remove_copy(std::begin(uuid), std::end(uuid), szWithoutHyphens, '-');
  const HRESULT result = StringCchCopyA(bare, kProcessedBiosIdSize, szWithoutHyphens);
  static_cast<void>(lastError.Check(result, kStageOther));
  return result;
}
