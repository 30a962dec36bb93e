// What every staged binary must be: hardened, versioned, and free of libraries that nobody
// installs.
#include <gmock/gmock.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "support/handle.h"
#include "support/windows_api.h"
#include "tests/e2e/windows7_functions.h"

namespace fs = std::filesystem;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

fs::path StagedFolder() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return fs::path(path).parent_path().parent_path().parent_path() / "bin";
}

std::vector<std::string> StagedBinaries() {
  std::vector<std::string> names;
  for (const auto& file : fs::directory_iterator(StagedFolder())) {
    const fs::path extension = file.path().extension();
    if (extension == ".exe" || extension == ".dll") {
      names.push_back(file.path().filename().string());
    }
  }
  return names;
}

// A binary mapped as the loader would map it, without being loaded.
class Image {
 public:
  explicit Image(const fs::path& path) {
    const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, 0, nullptr));
    const KernelHandle mapping(
        CreateFileMappingW(file.Get(), nullptr, PAGE_READONLY | SEC_IMAGE, 0, 0, nullptr));
    m_base = static_cast<const BYTE*>(MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0));
    if (m_base == nullptr) {
      throw std::runtime_error("cannot map " + path.string());
    }
  }
  ~Image() { UnmapViewOfFile(m_base); }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  const IMAGE_NT_HEADERS64& Headers() const {
    return At<IMAGE_NT_HEADERS64>(static_cast<DWORD>(At<IMAGE_DOS_HEADER>(0).e_lfanew));
  }

  // The imports by library (in lower case): names, or "#n" for ordinals.
  std::map<std::string, std::set<std::string>> Imports() const {
    std::map<std::string, std::set<std::string>> imports;
    if (const DWORD directory = Directory(IMAGE_DIRECTORY_ENTRY_IMPORT); directory != 0) {
      for (const auto* library = &At<IMAGE_IMPORT_DESCRIPTOR>(directory); library->Name != 0;
           ++library) {
        imports[LibraryName(library->Name)].merge(Functions(library->OriginalFirstThunk));
      }
    }
    return imports;
  }

  // What is imported at the first call of one of its functions. Not every linker fills in the
  // directory of these, so that they are found by what they look like.
  std::map<std::string, IMAGE_DELAYLOAD_DESCRIPTOR> LateLibraries() const {
    std::map<std::string, IMAGE_DELAYLOAD_DESCRIPTOR> libraries;
    for (const IMAGE_SECTION_HEADER& section : Sections()) {
      const DWORD end = section.VirtualAddress + section.Misc.VirtualSize;
      for (DWORD offset = section.VirtualAddress;
           offset + sizeof(IMAGE_DELAYLOAD_DESCRIPTOR) <= end; offset += sizeof(DWORD)) {
        const auto& library = At<IMAGE_DELAYLOAD_DESCRIPTOR>(offset);
        if (library.Attributes.AllAttributes == 1 && IsNameOfLibrary(library.DllNameRVA) &&
            SectionOf(library.ImportAddressTableRVA) != nullptr &&
            SectionOf(library.ImportNameTableRVA) != nullptr) {
          libraries[LibraryName(library.DllNameRVA)] = library;
        }
      }
    }
    return libraries;
  }

  std::set<std::string> Functions(const IMAGE_DELAYLOAD_DESCRIPTOR& library) const {
    return Functions(library.ImportNameTableRVA);
  }

  // Whether the program may write there; false for what is in no section.
  bool IsWritable(DWORD offset) const {
    const IMAGE_SECTION_HEADER* section = SectionOf(offset);
    return section != nullptr && (section->Characteristics & IMAGE_SCN_MEM_WRITE) != 0;
  }

 private:
  std::span<const IMAGE_SECTION_HEADER> Sections() const {
    const IMAGE_FILE_HEADER& header = Headers().FileHeader;
    const BYTE* const optional = reinterpret_cast<const BYTE*>(&Headers().OptionalHeader);
    return {reinterpret_cast<const IMAGE_SECTION_HEADER*>(optional + header.SizeOfOptionalHeader),
            header.NumberOfSections};
  }

  // Null for what is in none.
  const IMAGE_SECTION_HEADER* SectionOf(DWORD offset) const {
    for (const IMAGE_SECTION_HEADER& section : Sections()) {
      if (offset >= section.VirtualAddress &&
          offset < section.VirtualAddress + section.Misc.VirtualSize) {
        return &section;
      }
    }
    return nullptr;
  }

  bool IsNameOfLibrary(DWORD offset) const {
    const IMAGE_SECTION_HEADER* section = SectionOf(offset);
    if (section == nullptr) {
      return false;
    }
    const std::string_view rest(&At<char>(offset),
                                section->VirtualAddress + section->Misc.VirtualSize - offset);
    return rest.substr(0, rest.find('\0')).ends_with(".dll");
  }

  // Where that directory begins; 0 when there is none.
  DWORD Directory(int entry) const {
    return Headers().OptionalHeader.DataDirectory[entry].VirtualAddress;
  }

  std::string LibraryName(DWORD offset) const {
    std::string name = &At<char>(offset);
    for (char& character : name) {
      character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return name;
  }

  std::set<std::string> Functions(DWORD table) const {
    std::set<std::string> functions;
    for (const auto* entry = &At<IMAGE_THUNK_DATA64>(table); entry->u1.AddressOfData != 0;
         ++entry) {
      const ULONGLONG value = entry->u1.Ordinal;
      functions.insert((value & IMAGE_ORDINAL_FLAG64) != 0
                           ? "#" + std::to_string(IMAGE_ORDINAL64(value))
                           : std::string(&At<char>(static_cast<DWORD>(value) + 2)));
    }
    return functions;
  }

  template <typename T>
  const T& At(DWORD offset) const {
    return *reinterpret_cast<const T*>(m_base + offset);
  }

  const BYTE* m_base = nullptr;
};

class StagedBinary : public ::testing::TestWithParam<std::string> {
 protected:
  const fs::path path = StagedFolder() / GetParam();
};

TEST_P(StagedBinary, MayBePlacedAnywhereAndRunsNoData) {
  const Image image(path);
  const WORD flags = image.Headers().OptionalHeader.DllCharacteristics;
  EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
  EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA);
  EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
  // Without relocations the first flag would be an empty promise. Of an image that holds no address
  // at all there is nothing to list.
  EXPECT_FALSE(image.Headers().FileHeader.Characteristics & IMAGE_FILE_RELOCS_STRIPPED);
  const bool holdsNoAddress = path.filename() == "vorlinfo.dll";
  EXPECT_EQ(
      image.Headers().OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_BASERELOC].Size == 0U,
      holdsNoAddress);
}

// The libraries that come with the program are imported by ordinal, everything else from Windows.
TEST_P(StagedBinary, ImportsOnlyWhatWindows7Has) {
  const Image image(path);
  auto imports = image.Imports();
  for (const auto& [library, descriptor] : image.LateLibraries()) {
    imports[library].merge(image.Functions(descriptor));
  }
  for (const auto& [library, functions] : imports) {
    if (library == "vlevtlog.dll" || library == "vorlinfo.dll" || library == "vorlmisc.dll") {
      EXPECT_THAT(functions, Each(StartsWith("#"))) << library;
      continue;
    }
    const auto known = Windows7Functions().find(library);
    if (known == Windows7Functions().end()) {
      ADD_FAILURE() << library << " is not known to be a part of every Windows";
      continue;
    }
    for (const std::string& function : functions) {
      EXPECT_TRUE(known->second.contains(function))
          << library << " of Windows 7 is not known to have " << function
          << ": tests/e2e/windows7_functions.h says what to do";
    }
  }
}

// A library's handle and the addresses of its functions are written when it is loaded. The linker
// of newer tool chains makes a section of imports one that is only read.
TEST_P(StagedBinary, CanWriteWhatItImportsLate) {
  const Image image(path);
  for (const auto& [library, descriptor] : image.LateLibraries()) {
    EXPECT_TRUE(image.IsWritable(descriptor.ModuleHandleRVA)) << library;
    EXPECT_TRUE(image.IsWritable(descriptor.ImportAddressTableRVA)) << library;
  }
}

TEST_P(StagedBinary, AsksForNoNewerSystemThanWindows7) {
  const Image image(path);
  const IMAGE_OPTIONAL_HEADER64& header = image.Headers().OptionalHeader;
  EXPECT_LE(MAKELONG(header.MinorSubsystemVersion, header.MajorSubsystemVersion), MAKELONG(1, 6));
  EXPECT_LE(MAKELONG(header.MinorOperatingSystemVersion, header.MajorOperatingSystemVersion),
            MAKELONG(1, 6));
}

TEST_P(StagedBinary, SaysWhatItIsAndWhoMadeIt) {
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
  ASSERT_NE(size, 0U);
  std::vector<BYTE> info(size);
  ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, size, info.data()));
  const auto text = [&](const std::string& name) {
    void* value = nullptr;
    UINT length = 0;
    return VerQueryValueA(info.data(), (R"(\StringFileInfo\040904b0\)" + name).c_str(), &value,
                          &length)
               ? std::string(static_cast<const char*>(value))
               : "(absent)";
  };
  EXPECT_EQ(text("CompanyName"), VORL_COMPANY);
  EXPECT_EQ(text("FileVersion"), VORL_PROJECT_VERSION);
  EXPECT_EQ(text("InternalName"), GetParam());
  EXPECT_EQ(text("LegalCopyright"), "Copyright (c) " VORL_COMPANY);
  EXPECT_EQ(text("OriginalFilename"), GetParam());
  EXPECT_EQ(text("ProductName"), "Client Agent");
  EXPECT_EQ(text("ProductVersion"), VORL_PROJECT_VERSION);
}

std::string WithoutExtension(const ::testing::TestParamInfo<std::string>& info) {
  return fs::path(info.param).stem().string();
}

INSTANTIATE_TEST_SUITE_P(Staged, StagedBinary, ::testing::ValuesIn(StagedBinaries()),
                         WithoutExtension);

TEST(Program, ImportsTheThreeLibrariesByTheirOrdinals) {
  const auto imports = Image(StagedFolder() / "vorlsrvc.exe").Imports();
  EXPECT_THAT(imports.at("vlevtlog.dll"), ElementsAre("#2", "#3"));
  EXPECT_THAT(imports.at("vorlmisc.dll"), ElementsAre("#1", "#2", "#5", "#6"));
  EXPECT_THAT(imports.at("vorlinfo.dll"), ElementsAre("#1", "#9"));
}

// Every start of the program would wait for them.
TEST(Program, WaitsForNoLibraryThatOnlyAFirstStartNeeds) {
  const Image image(StagedFolder() / "vorlsrvc.exe");
  const auto imports = image.Imports();
  const auto late = image.LateLibraries();
  for (const char* library : {"iphlpapi.dll", "ole32.dll", "oleaut32.dll", "user32.dll"}) {
    EXPECT_FALSE(imports.contains(library)) << library;
    ASSERT_TRUE(late.contains(library)) << library;
    EXPECT_THAT(image.Functions(late.at(library)), Not(IsEmpty())) << library;
  }
}

#ifdef NDEBUG
// Bytes on the disk of every computer, and pages of its memory.
TEST(Program, IsSmallAndSoIsWhatItCannotDoWithout) {
  EXPECT_LT(fs::file_size(StagedFolder() / "vorlsrvc.exe"), 160U * 1024);
  std::uintmax_t together = 0;
  for (const char* name : {"vorlsrvc.exe", "vlevtlog.dll", "vorlmisc.dll", "vorlinfo.dll"}) {
    together += fs::file_size(StagedFolder() / name);
  }
  EXPECT_LT(together, 400U * 1024);
}
#endif

TEST(Program, IsAConsoleProgram) {
  EXPECT_EQ(Image(StagedFolder() / "vorlsrvc.exe").Headers().OptionalHeader.Subsystem,
            IMAGE_SUBSYSTEM_WINDOWS_CUI);
}

class StagedProgram : public ::testing::TestWithParam<std::string> {
 protected:
  // The manifest that Windows reads when it starts the program.
  std::string Manifest() const {
    const Module program(
        LoadLibraryExW((StagedFolder() / GetParam()).c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    const HRSRC resource = FindResourceW(program.Get(), MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(24));
    if (resource == nullptr) {
      return {};
    }
    const void* const text = LockResource(LoadResource(program.Get(), resource));
    return {static_cast<const char*>(text), SizeofResource(program.Get(), resource)};
  }
};

TEST_P(StagedProgram, AsksForNoRightsOfItsOwn) { EXPECT_THAT(Manifest(), HasSubstr("asInvoker")); }

TEST_P(StagedProgram, IsMadeForWindows7To11) {
  for (const char* system :
       {"35138b9a-5d96-4fbd-8e2d-a2440225f93a", "4a2f28e3-53b9-4441-ba9c-d69d4a4a6e38",
        "1f676c76-80e1-4239-95bb-83d0f6d0da78", "8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a"}) {
    EXPECT_THAT(Manifest(), HasSubstr(system));
  }
}

// Files, names and the trace go through the machine's own code page.
TEST_P(StagedProgram, KeepsTheMachinesCodePage) {
  ASSERT_THAT(Manifest(), HasSubstr("assembly"));
  EXPECT_THAT(Manifest(), Not(HasSubstr("activeCodePage")));
}

INSTANTIATE_TEST_SUITE_P(Staged, StagedProgram,
                         ::testing::Values("vorlsrvc.exe", "vorldiag.exe", "vorlhelper.exe"),
                         WithoutExtension);

// The event-log source names the program as the file with the texts of its events.
TEST(Program, HasTextsForItsEvents) {
  const Module program(
      LoadLibraryExW((StagedFolder() / "vorlsrvc.exe").c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
  for (const DWORD event : {0x40000001U, 0x80000002U, 0xC0000003U}) {
    wchar_t text[100] = {};
    std::wstring value = L"what the module says";
    DWORD_PTR values[] = {reinterpret_cast<DWORD_PTR>(value.c_str())};
    FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, program.Get(),
                   event, 0x409, text, 100, reinterpret_cast<va_list*>(values));
    EXPECT_EQ(std::wstring(text), value + L"\r\n") << std::hex << event;
  }
}

}  // namespace
