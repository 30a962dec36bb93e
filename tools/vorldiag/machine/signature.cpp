#include "tools/vorldiag/machine/signature.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "support/windows_api.h"

namespace {

// Certificates begin at a multiple of this; a file is filled up with zeros before them.
constexpr std::size_t kCertificateAlignment = 8;

void Put(std::string& bytes, std::size_t offset, std::uint32_t value) {
  std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

// As the loader computes it: the sum of all 16-bit words, carries added in, and the length. The
// field itself is 0 meanwhile.
std::uint32_t CheckSumOf(const std::string& bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    const auto low = static_cast<unsigned char>(bytes[i]);
    const auto high = static_cast<unsigned char>(i + 1 < bytes.size() ? bytes[i + 1] : 0);
    sum += low | (static_cast<std::uint32_t>(high) << 8);
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return sum + static_cast<std::uint32_t>(bytes.size());
}

}  // namespace

std::vector<std::string> UnsignedForms(const std::string& bytes) {
  IMAGE_DOS_HEADER dos;
  IMAGE_NT_HEADERS64 headers;
  if (bytes.size() < sizeof(dos)) {
    return {};
  }
  std::memcpy(&dos, bytes.data(), sizeof(dos));
  const auto headersOffset = static_cast<std::uint32_t>(dos.e_lfanew);
  if (bytes.size() < sizeof(headers) || headersOffset > bytes.size() - sizeof(headers)) {
    return {};
  }
  std::memcpy(&headers, bytes.data() + headersOffset, sizeof(headers));
  const IMAGE_DATA_DIRECTORY certificates =
      headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_SECURITY];
  // What follows the certificates was added by somebody else.
  if (certificates.Size == 0 || certificates.VirtualAddress < headersOffset + sizeof(headers) ||
      std::uint64_t{certificates.VirtualAddress} + certificates.Size != bytes.size()) {
    return {};
  }
  std::string form = bytes.substr(0, certificates.VirtualAddress);
  const std::size_t optionalHeader = headersOffset + offsetof(IMAGE_NT_HEADERS64, OptionalHeader);
  const std::size_t entry =
      optionalHeader + offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory) +
      std::size_t{IMAGE_DIRECTORY_ENTRY_SECURITY} * sizeof(IMAGE_DATA_DIRECTORY);
  const std::size_t checkSum = optionalHeader + offsetof(IMAGE_OPTIONAL_HEADER64, CheckSum);
  Put(form, entry + offsetof(IMAGE_DATA_DIRECTORY, VirtualAddress), 0);
  Put(form, entry + offsetof(IMAGE_DATA_DIRECTORY, Size), 0);

  std::vector<std::string> forms;
  for (std::size_t filled = 0; filled < kCertificateAlignment; ++filled) {
    Put(form, checkSum, 0);
    forms.push_back(form);
    Put(form, checkSum, CheckSumOf(form));
    forms.push_back(form);
    if (form.back() != '\0' || form.size() <= headersOffset + sizeof(headers)) {
      break;
    }
    form.pop_back();
  }
  return forms;
}
