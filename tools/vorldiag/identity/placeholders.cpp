#include "tools/vorldiag/identity/placeholders.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace {

// Left in by makers of firmware.
constexpr std::array<std::string_view, 7> kUuids = {
    "03000200040005000006000700080009", "00020003000400050006000700080009",
    "030201000504070608090A0B0C0D0E0F", "10000000000080000040000000000000",
    "0123456789ABCDEF0123456789ABCDEF", "12345678123456781234567812345678",
    // A computer that was never given its service number.
    "4C4C454400002010802080C04F202020"};

constexpr std::array<std::string_view, 6> kSerials = {
    "TOBEFILLEDBYOEM", "DEFAULTSTRING", "NONE", "123456789", "1234567890", "0123456789"};

// Given to software or to every adapter of a kind.
constexpr std::array<std::string_view, 8> kAddresses = {
    "001122334455", "00059A3C7A00", "005056C00001", "005056C00008",
    "0A0027000000", "00155D000000", "204153594EFF", "505054503030"};

std::string Plain(const std::string& text) {
  std::string plain;
  for (const char character : text) {
    if (std::isalnum(static_cast<unsigned char>(character)) != 0) {
      plain += static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    }
  }
  return plain;
}

template <std::size_t Size>
std::string Judge(const std::string& text, const std::array<std::string_view, Size>& known) {
  const std::string plain = Plain(text);
  if (!plain.empty() && plain.find_first_not_of(plain[0]) == std::string::npos) {
    return std::string("it is the same digit throughout");
  }
  return std::find(known.begin(), known.end(), plain) != known.end()
             ? "it is a placeholder that many computers have"
             : "";
}

}  // namespace

std::string PlaceholderUuid(const std::string& uuid) { return Judge(uuid, kUuids); }
std::string PlaceholderSerial(const std::string& serial) { return Judge(serial, kSerials); }
std::string PlaceholderAddress(const std::string& address) { return Judge(address, kAddresses); }
