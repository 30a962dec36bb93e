#include "tools/vorldiag/machine/binaryfile.h"

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "tools/vorldiag/machine/sharedfile.h"
#include "tools/vorldiag/machine/signature.h"

namespace {

// Many times what any file of the installation has.
constexpr std::uint64_t kLargestFile = 256ULL * 1024 * 1024;

// Reads the image from its bytes, not from a mapping, which would keep the file in use. Whatever
// leads out of the bytes is absent.
class ImageReader {
 public:
  explicit ImageReader(const std::string& bytes) : m_bytes(bytes) {}

  template <typename Item>
  std::optional<Item> At(std::uint64_t offset) const {
    if (offset > m_bytes.size() || m_bytes.size() - offset < sizeof(Item)) {
      return std::nullopt;
    }
    Item item;
    std::memcpy(&item, m_bytes.data() + offset, sizeof(Item));
    return item;
  }

  // Empty when nothing speaks against it.
  std::string ReadHeaders() {
    const auto dos = At<IMAGE_DOS_HEADER>(0);
    if (!dos || dos->e_magic != IMAGE_DOS_SIGNATURE) {
      return "it is no program or library";
    }
    const auto offset = static_cast<std::uint32_t>(dos->e_lfanew);
    const auto headers = At<IMAGE_NT_HEADERS64>(offset);
    if (!headers || headers->Signature != IMAGE_NT_SIGNATURE) {
      return "it is no program or library";
    }
    if (headers->FileHeader.Machine != IMAGE_FILE_MACHINE_AMD64) {
      return "it is not for 64-bit Windows";
    }
    m_headers = *headers;
    const std::uint64_t first = std::uint64_t{offset} +
                                offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                                headers->FileHeader.SizeOfOptionalHeader;
    for (unsigned i = 0; i < headers->FileHeader.NumberOfSections; ++i) {
      const auto section = At<IMAGE_SECTION_HEADER>(first + i * sizeof(IMAGE_SECTION_HEADER));
      if (!section ||
          std::uint64_t{section->PointerToRawData} + section->SizeOfRawData > m_bytes.size()) {
        return "it is incomplete";
      }
      m_sections.push_back(*section);
    }
    return "";
  }

  void ReadExports(BinaryFile& file) const {
    const IMAGE_DATA_DIRECTORY place =
        m_headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    const auto exports = At<IMAGE_EXPORT_DIRECTORY>(Offset(place.VirtualAddress));
    if (place.Size == 0 || !exports) {
      return;
    }
    for (std::uint64_t i = 0; i < std::min<DWORD>(exports->NumberOfFunctions, 0xFFFF); ++i) {
      const auto address = At<DWORD>(Offset(exports->AddressOfFunctions) + i * sizeof(DWORD));
      if (address && *address != 0) {
        file.ordinals.push_back(static_cast<WORD>(exports->Base + i));
      }
    }
    for (std::uint64_t i = 0; i < std::min<DWORD>(exports->NumberOfNames, 0xFFFF); ++i) {
      const auto name = At<DWORD>(Offset(exports->AddressOfNames) + i * sizeof(DWORD));
      if (name) {
        file.functions.push_back(TextAt(Offset(*name)));
      }
    }
  }

 private:
  std::uint64_t Offset(DWORD address) const {
    for (const IMAGE_SECTION_HEADER& section : m_sections) {
      if (address >= section.VirtualAddress &&
          address - section.VirtualAddress < section.SizeOfRawData) {
        return std::uint64_t{address} - section.VirtualAddress + section.PointerToRawData;
      }
    }
    return m_bytes.size();
  }

  std::string TextAt(std::uint64_t offset) const {
    if (offset >= m_bytes.size()) {
      return "";
    }
    const std::size_t end = m_bytes.find('\0', offset);
    return m_bytes.substr(offset, end == std::string::npos ? 0 : end - offset);
  }

  const std::string& m_bytes;
  IMAGE_NT_HEADERS64 m_headers{};
  std::vector<IMAGE_SECTION_HEADER> m_sections;
};

// Where the fixed part of the version resource stands; npos when there is none.
std::size_t VersionResource(const std::string& bytes) {
  constexpr std::wstring_view key = L"VS_VERSION_INFO";
  constexpr DWORD signature = 0xFEEF04BD;
  constexpr std::size_t longestGap = 8;
  const std::string_view keyBytes(reinterpret_cast<const char*>(key.data()),
                                  key.size() * sizeof(wchar_t));
  // A program may have the key among its own texts, too.
  for (std::size_t found = bytes.find(keyBytes); found != std::string::npos;
       found = bytes.find(keyBytes, found + 1)) {
    for (std::size_t gap = 0; gap <= longestGap; ++gap) {
      VS_FIXEDFILEINFO info;
      const std::size_t offset = found + keyBytes.size() + gap;
      if (offset + sizeof(info) > bytes.size()) {
        return std::string::npos;
      }
      std::memcpy(&info, bytes.data() + offset, sizeof(info));
      if (info.dwSignature == signature) {
        return offset;
      }
    }
  }
  return std::string::npos;
}

std::string FindVersion(const std::string& bytes) {
  const std::size_t offset = VersionResource(bytes);
  if (offset == std::string::npos) {
    return "";
  }
  VS_FIXEDFILEINFO info;
  std::memcpy(&info, bytes.data() + offset, sizeof(info));
  return std::to_string(HIWORD(info.dwFileVersionMS)) + "." +
         std::to_string(LOWORD(info.dwFileVersionMS)) + "." +
         std::to_string(HIWORD(info.dwFileVersionLS)) + "." +
         std::to_string(LOWORD(info.dwFileVersionLS));
}

// The text of this name in the version resource: it stands behind the name and at most two null
// characters.
std::wstring FindVersionText(const std::string& bytes, std::wstring_view name) {
  constexpr std::size_t longest = MAX_PATH;
  std::string key(reinterpret_cast<const char*>(name.data()), name.size() * sizeof(wchar_t));
  key.append(sizeof(wchar_t), '\0');
  const std::size_t resource = VersionResource(bytes);
  const std::size_t found = bytes.find(key, resource);
  std::wstring text;
  if (resource == std::string::npos || found == std::string::npos) {
    return text;
  }
  for (std::size_t at = found + key.size();
       at + sizeof(wchar_t) <= bytes.size() && text.size() < longest; at += sizeof(wchar_t)) {
    wchar_t letter;
    std::memcpy(&letter, bytes.data() + at, sizeof(letter));
    if (letter != L'\0') {
      text += letter;
    } else if (!text.empty()) {
      break;
    }
  }
  return text;
}

}  // namespace

std::string Sha256(const std::string& bytes) {
  HCRYPTPROV provider = 0;
  if (!CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT)) {
    return "";
  }
  HCRYPTHASH hash = 0;
  BYTE digest[32] = {};
  DWORD size = sizeof(digest);
  const bool isMade = CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash) &&
                      CryptHashData(hash, reinterpret_cast<const BYTE*>(bytes.data()),
                                    static_cast<DWORD>(bytes.size()), 0) &&
                      CryptGetHashParam(hash, HP_HASHVAL, digest, &size, 0);
  if (hash != 0) {
    CryptDestroyHash(hash);
  }
  CryptReleaseContext(provider, 0);
  std::string text;
  for (const BYTE byte : digest) {
    constexpr char digits[] = "0123456789abcdef";
    text += digits[byte >> 4];
    text += digits[byte & 0xF];
  }
  return isMade ? text : "";
}

BinaryFile ReadBinaryFile(const std::wstring& path) {
  BinaryFile file;
  std::string bytes;
  file.error = ReadSharedFile(path, kLargestFile, bytes);
  if (file.error != ERROR_SUCCESS) {
    return file;
  }
  file.size = bytes.size();
  file.sha256 = Sha256(bytes);
  for (const std::string& form : UnsignedForms(bytes)) {
    file.unsignedSha256.push_back(Sha256(form));
  }
  file.version = FindVersion(bytes);
  file.originalName = FindVersionText(bytes, L"OriginalFilename");
  ImageReader image(bytes);
  file.damage = image.ReadHeaders();
  if (file.damage.empty()) {
    image.ReadExports(file);
  }
  return file;
}
