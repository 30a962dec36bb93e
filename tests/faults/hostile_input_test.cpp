// Input that nobody means well with: addresses, identifiers and serial numbers as hardware may give
// them, requests of the helper pipe, journals, cache files, configuration files.
#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "app/identifierstore.h"
#include "companions/common/ini_file.h"
#include "companions/vlevtlog/trace_options.h"
#include "identity/cachefile.h"
#include "identity/normalise.h"
#include "modules/vorlupd/filesystem.h"
#include "modules/vorlupd/journal.h"
#include "samples/helper/notification.h"
#include "support/vorlmisc.h"
#include "tests/fakes/vlevtlog_fake.h"
#include "tests/support/empty_machine_key.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/memory_file.h"
#include "tests/support/mutation.h"

namespace {

namespace fs = std::filesystem;

bool IsTerminated(const char* text, std::size_t size) {
  return std::memchr(text, 0, size) != nullptr;
}

void WriteFileBytes(const fs::path& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string Bytes(const std::wstring& text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

// ---- The fingerprint ----

TEST(HostileInput, NetworkAddresses) {
  Mutator mutator({"00:1A:2B:3C:4D:5E", "00-1A-2B-3C-4D-5E", "001A2B3C4D5E", ""},
                  {"-", ":", "-----", ":::::", std::string(200, 'F'), std::string(1, '\0')});
  ForEachMutation("network addresses", mutator, 20'000, [&](const std::string& input) {
    std::list<std::string> addresses(1 + mutator.Below(6), input);
    addresses.front() = "00:1A:2B:3C:4D:5E";
    Guarded<FingerprintFields> fields;
    FingerprintStatus status;
    HyphenateMacAddresses(addresses, status);
    EXPECT_EQ(addresses.front(), "00-1A-2B-3C-4D-5E");
    PlaceMacAddresses(addresses, fields.value);
    EXPECT_TRUE(fields.IsUntouched());
    // The run of places ends in the field of the serial number, the last of the record.
    EXPECT_TRUE(IsTerminated(fields.value.MacAddress1, kMacAddressSize));
    EXPECT_TRUE(IsTerminated(fields.value.MacAddress2, kMacAddressSize));
    EXPECT_TRUE(IsTerminated(fields.value.OptimumHddSerial, kOptimumHddSerialSize));
    // There are four places, and nothing is written behind them.
    const char* const behind = fields.value.MacAddress1 + 4 * kMacAddressSize;
    const char* const end = fields.value.OptimumHddSerial + kOptimumHddSerialSize;
    EXPECT_TRUE(std::all_of(behind, end, [](char c) { return c == 0; }));
  });
}

TEST(HostileInput, BiosUuids) {
  Mutator mutator({"4C4C4544-0035-3010-8048-B4C04F4B3732", "", "{}"},
                  {"-", "{", "}", "\x80\xFF", std::string(40, '-')});
  ForEachMutation("BIOS UUIDs", mutator, 20'000, [](const std::string& input) {
    char text[kBiosUuidSize] = {};
    std::memcpy(text, input.data(), std::min(input.size(), kBiosUuidSize - 1));
    FingerprintStatus status;
    const bool isUuid = HasUuidForm(text, status);
    Guarded<char[kProcessedBiosIdSize]> bare;
    const HRESULT result = RemoveHyphens(text, bare.value, status);
    EXPECT_TRUE(bare.IsUntouched());
    EXPECT_TRUE(IsTerminated(bare.value, kProcessedBiosIdSize));
    if (isUuid) {
      EXPECT_EQ(result, S_OK);
      EXPECT_EQ(std::strlen(bare.value), kProcessedBiosIdSize - 1);
    }
  });
}

TEST(HostileInput, SerialNumbers) {
  Mutator mutator({"WD-WCC4E1234567", "", "1234567", "        "},
                  {" ", "\x80\xFF", std::string(120, 'x')});
  ForEachMutation("serial numbers", mutator, 20'000, [](const std::string& input) {
    char serial[kPrimaryHddSerialSize] = {};
    std::memcpy(serial, input.data(), std::min(input.size(), kPrimaryHddSerialSize - 1));
    Guarded<char[kOptimumHddSerialSize]> tail;
    FingerprintStatus status;
    const bool isTaken = TakeSerialTail(serial, tail.value, status);
    EXPECT_TRUE(tail.IsUntouched());
    const std::string whole = serial;
    EXPECT_TRUE(!isTaken || tail.value == (whole.size() < 8 ? "" : whole.substr(whole.size() - 8)));
  });
}

TEST(HostileInput, CacheFiles) {
  const TempFolder folder;
  RawParameters parameters;
  StringCchCopyA(parameters.BiosUuid, kBiosUuidSize, "4C4C4544-0035-3010-8048-B4C04F4B3732");
  parameters.MacAddressList = {"00:AA:BB:CC:DD:EE"};
  FingerprintStatus status;
  ASSERT_TRUE(WriteCache(folder.File(""), parameters, status));
  const std::string file = folder.File("hwcdata.dat");
  const ByteVector whole = ReadBytes(file);
  Mutator mutator({std::string(whole.begin(), whole.end()), "", "ZTCRP"},
                  {"ZTCRP", std::string(300, '\0')});
  ForEachMutation("cache files", mutator, 300, [&](const std::string& input) {
    WriteFileBytes(file, input);
    Guarded<unsigned char[kCachePayloadSize]> payload;
    const bool isRead = ReadCache(folder.File(""), payload.value, status);
    EXPECT_TRUE(payload.IsUntouched());
    EXPECT_TRUE(!isRead || input.size() >= whole.size());
    const bool isCurrent = IsCacheOf(folder.File(""), parameters, status);
    EXPECT_TRUE(isRead || !isCurrent);
  });
}

// ---- The helper pipe ----

TEST(HostileInput, HelperRequests) {
  HelperPipeHeader header{kHelperMessageService, sizeof(HelperPipeRequest), 0};
  const std::string plain(sizeof(HelperPipeHeader) + sizeof(HelperPipeRequest), '\0');
  std::string right = plain;
  std::memcpy(right.data(), &header, sizeof(header));
  Mutator mutator({plain, right}, {std::string(520, 'x'), "\x0F", "\r\n", "\xFF\xFF\xFF\xFF"});
  ForEachMutation("helper requests", mutator, 20'000, [&](std::string input) {
    input.resize(plain.size());
    HelperPipeHeader asked;
    std::memcpy(&asked, input.data(), sizeof(asked));
    if (mutator.Below(2) == 0) {
      // The sum of the plain bytes, so that what stands behind the checks is met as well.
      asked.checksum = 0;
      for (std::size_t i = sizeof(asked); i < input.size(); ++i) {
        asked.checksum += static_cast<unsigned char>(input[i]);
      }
      for (std::size_t i = sizeof(asked); i < input.size(); ++i) {
        const auto byte = static_cast<unsigned char>(input[i]);
        input[i] = static_cast<char>(((byte << 4U | byte >> 4U) ^ asked.checksum) & 0xFFU);
      }
    }
    static_cast<void>(CheckHeader(asked));
    Guarded<RequestBytes> body;
    std::memcpy(body.value.data(), input.data() + sizeof(asked), body.value.size());
    Notification notification;
    const Refusal refusal = Decode(asked, body.value, notification);
    EXPECT_TRUE(body.IsUntouched());
    if (refusal == nullptr) {
      EXPECT_LT(notification.serviceName.size(), 260U);
      const std::wstring line = Describe(notification);
      EXPECT_EQ(line.find_first_of(L"\r\n\t\x1B\x7F"), std::wstring::npos);
    }
  });
}

// ---- The journal of the update module ----

TEST(HostileInput, Journals) {
  const TempFolder folder;
  const fs::path file = folder.Path() / "journal";
  const std::wstring whole =
      L"\xFEFFvorlupd journal 1\r\nfolder fresh\r\nreplace a.txt\r\ncreate fresh\\c.txt\r\nend\r\n";
  Mutator mutator({Bytes(whole), ""},
                  {Bytes(L"..\\"), Bytes(L"C:"), Bytes(L"\\"), Bytes(L"end\r\n"), Bytes(L"\r\n"),
                   Bytes(L"replace "), Bytes(L"replace ..\\..\\x\r\n"), std::string(2, '\0')});
  const MemoryFile memory(file.wstring());
  ForEachMutation("journals", mutator, 20'000, [&](const std::string& input) {
    MemoryFile::Put(input);
    const std::optional<std::vector<Step>> steps = ReadJournal(file.wstring());
    if (!steps) {
      return;
    }
    for (const Step& step : *steps) {
      EXPECT_TRUE(IsPlainRelativePath(step.path));
      const std::wstring path = L"\\" + step.path + L"\\";
      EXPECT_EQ(path.find(L"\\..\\"), path.npos);
      EXPECT_EQ(path.find_first_of(L":/"), path.npos);
      EXPECT_EQ(path.find(L"\\\\"), path.npos);
    }
    // Only now and then: each is written through to the disk.
    if (mutator.Below(1000) != 0) {
      return;
    }
    ASSERT_TRUE(WriteJournal((folder.Path() / "again").wstring(), *steps));
    EXPECT_EQ(ReadJournal((folder.Path() / "again").wstring()), steps);
    fs::remove(folder.Path() / "again");
  });
}

// ---- vorlconf.ini ----

constexpr char kIdentifierLines[] =
    "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=0123456789ABCDEF0123456789ABCDEF\r\n";
constexpr char kOptionLines[] = "[STARTUP_OPTIONS]\r\nText1=first\r\nWord1=7\r\nDword1=0x10\r\n";
constexpr char kTraceLines[] =
    "[TRACE]\r\nLevels=ERROR,INFO\r\nFormat=TEXT\r\nFileSizeKB=64\r\nFiles=5\r\n";

std::string WholeConfiguration() {
  return std::string(kIdentifierLines) + kOptionLines + kTraceLines;
}

std::string Utf16(const std::string& text) {
  std::string bytes;
  for (const char character : text) {
    bytes += {character, '\0'};
  }
  return bytes;
}

// The three that read the file, each as the product has it.
class ConfigurationFile : public testing::Test {
 protected:
  ConfigurationFile() { fs::create_directories(m_file.parent_path()); }

  bool ReadOptions() {
    FakeTraceClear();
    std::memset(&m_options.value, 0xA5, sizeof(m_options.value));
    const bool isRead =
        m_library.Ordinal<BOOLEAN(CLIENT_AGENT_STARTUP_OPTIONS*)>(6)(&m_options.value) != FALSE;
    EXPECT_TRUE(m_options.IsUntouched());
    for (const char* const text : {m_options.value.Text1, m_options.value.Text2,
                                   m_options.value.Text3, m_options.value.Text4}) {
      EXPECT_TRUE(IsTerminated(text, sizeof(m_options.value.Text1)));
    }
    if (!isRead) {
      EXPECT_GT(FakeTraceCount(), 0U);
    }
    return isRead;
  }

  bool ReadTrace() {
    TraceOptionProblems problems;
    const bool isRead = ReadTraceOptions(m_file.c_str(), m_trace, problems);
    EXPECT_LE(problems.count, TraceOptionProblems::kKeys);
    EXPECT_LE(m_trace.levels, std::uint32_t{kAllLevelBits});
    EXPECT_TRUE(m_trace.fileSizeKb >= 4 && m_trace.fileSizeKb <= 1048576);
    EXPECT_TRUE(m_trace.files >= 2 && m_trace.files <= kMostFiles);
    return isRead;
  }

  StoredIdentifier ReadId() const {
    const StoredIdentifier found = ReadIdentifier(m_file.c_str());
    EXPECT_LT(wcsnlen(found.text, kStoredIdentifierSize), kStoredIdentifierSize);
    EXPECT_EQ(found.state == StoredIdentifierState::kPresent, found.text[0] != L'\0');
    return found;
  }

  // Files that were just emptied are waited for; those here were so long ago. Each has a time of
  // its own, by which Wine knows whether it has read it already.
  void MakeOld() const {
    static DWORD counter = 0;
    const FileHandle file(CreateFileW(m_file.c_str(), FILE_WRITE_ATTRIBUTES, kShareAll, nullptr,
                                      OPEN_EXISTING, 0, nullptr));
    const FILETIME old{++counter * 10'000'000U % 0xFFFF0000, 0x01D00000 + counter / 400};
    EXPECT_TRUE(SetFileTime(file.Get(), nullptr, nullptr, &old));
  }

  void Put(const std::string& bytes) const {
    WriteFileBytes(m_file, bytes);
    MakeOld();
  }

  static constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

  const EmptyMachineKey m_machine;
  const Installation m_installation{{"vorlmisc.dll"}};
  const Library m_library{m_installation / "vorlmisc.dll"};
  const fs::path m_file = m_installation / "conf" / "vorlconf.ini";
  Guarded<CLIENT_AGENT_STARTUP_OPTIONS> m_options;
  TraceOptions m_trace;
};

TEST_F(ConfigurationFile, IsReadOrRefusedInEveryForm) {
  const std::string whole = WholeConfiguration();
  std::string lineFeeds = whole;
  std::erase(lineFeeds, '\r');
  std::string oneLine = lineFeeds;
  std::erase(oneLine, '\n');
  using enum StoredIdentifierState;
  struct Form {
    const char* name;
    std::string bytes;
    bool isRead;
    bool isSet;  // the values are found
    StoredIdentifierState identifier;
  };
  const Form forms[] = {
      {"whole", whole, true, true, kPresent},
      {"empty", "", true, false, kMissing},
      {"line feeds", lineFeeds, true, true, kPresent},
      {"without line ends", oneLine, true, false, kMissing},
      {"no end at the end", whole.substr(0, whole.size() - 2), true, true, kPresent},
      {"UTF-16 with its mark", "\xFF\xFE" + Utf16(whole), true, true, kPresent},
      {"UTF-16 without", Utf16(whole), false, false, kUnreadable},
      {"UTF-8 with its mark", "\xEF\xBB\xBF" + whole, true, true, kPresent},
      {"null characters behind", whole + std::string(100, '\0'), false, false, kPresent},
      {"nothing but null characters", std::string(5000, '\0'), false, false, kUnreadable},
      {"10 MB", std::string(std::size_t{10} * 1024 * 1024, '\n'), false, false, kUnreadable},
      {"10 MB in one line", std::string(std::size_t{10} * 1024 * 1024, 'x'), false, false,
       kUnreadable},
      {"keys twice",
       std::string(kOptionLines) + "Word1=8\r\n" + kTraceLines + "Files=9\r\n" + kIdentifierLines +
           "clientuniqueid=second\r\n",
       true, true, kPresent},
      {"sections twice", whole + "[STARTUP_OPTIONS]\r\nWord1=8\r\n[TRACE]\r\nFiles=9\r\n", true,
       true, kPresent},
  };
  for (const Form& form : forms) {
    SCOPED_TRACE(form.name);
    Put(form.bytes);
    EXPECT_EQ(ReadOptions(), form.isRead);
    EXPECT_EQ(WORD{m_options.value.Word1}, form.isSet ? 7 : 0);
    m_trace = {};
    EXPECT_EQ(ReadTrace(), form.isRead);
    EXPECT_EQ(m_trace.files, form.isSet ? 5U : 10U);
    const StoredIdentifier found = ReadId();
    EXPECT_EQ(found.state, form.identifier);
    if (form.identifier == kPresent) {
      EXPECT_STREQ(found.text, L"0123456789ABCDEF0123456789ABCDEF");
    }
  }
}

TEST_F(ConfigurationFile, ThatIsReadOnlyOrAFolderIsToldApart) {
  Put(WholeConfiguration());
  ASSERT_TRUE(SetFileAttributesW(m_file.c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(ReadTrace());
  EXPECT_EQ(ReadId().state, StoredIdentifierState::kPresent);
  ASSERT_TRUE(SetFileAttributesW(m_file.c_str(), FILE_ATTRIBUTE_NORMAL));
  fs::remove(m_file);
  fs::create_directory(m_file);
  EXPECT_FALSE(ReadOptions());
  EXPECT_FALSE(ReadTrace());
  EXPECT_EQ(ReadId().state, StoredIdentifierState::kMissing);
}

// Rewritten all the time: the values are all of one version, or the file is refused. A section
// behind that of the options says that these are whole, and no read waits for more.
TEST_F(ConfigurationFile, ThatIsRewrittenAllTheTimeGivesOneOfItsVersions) {
  const auto version = [](unsigned number) {
    const std::string text = std::to_string(number);
    return "[STARTUP_OPTIONS]\r\nWord1=" + text + "\r\n;" + std::string(3000, '-') +
           "\r\nWord2=" + text + "\r\n[REST]\r\n";
  };
  WriteFileBytes(m_file, version(1));
  std::atomic<bool> isOver = false;
  std::atomic<unsigned> written = 0;
  std::thread writer([&] {
    for (unsigned number = 1; !isOver; number = number % 60'000 + 1) {
      WriteFileBytes(m_file, version(number));
      ++written;
    }
  });
  for (unsigned round = 0, rounds = IsLongRun() ? 2000 : 20; round < rounds; ++round) {
    const unsigned before = written;
    if (ReadOptions()) {
      EXPECT_EQ(WORD{m_options.value.Word1}, WORD{m_options.value.Word2});
      EXPECT_NE(WORD{m_options.value.Word1}, 0);
    }
    while (written == before) {
      SwitchToThread();
    }
  }
  isOver = true;
  writer.join();
}

class ChangedConfigurationFile : public ConfigurationFile {
 protected:
  Mutator m_mutator{
      {WholeConfiguration(), "\xFF\xFE" + Utf16(WholeConfiguration()),
       "\xEF\xBB\xBF" + WholeConfiguration(), "\xFE\xFF"},
      {"[", "]", "=", ";", "\r", "\n", "\r\n", "\"", "[TRACE]", "[STARTUP_OPTIONS]", "Word1=", "0x",
       "99999999999", "-1", std::string(2000, 'x'), std::string(1, '\0'), "\x1A", "\xFF\xFE"}};
};

TEST_F(ChangedConfigurationFile, IsReadOrRefused) {
  const MemoryFile memory(m_file.wstring());
  MemoryFile::Serve(m_library);
  ForEachMutation("configuration files", m_mutator, 10'000, [&](const std::string& input) {
    MemoryFile::Put(input);
    ReadOptions();
    m_trace = {};
    ReadTrace();
    Guarded<wchar_t[kStoredIdentifierSize]> value;
    IniFile file;
    if (file.Read(m_file.c_str()) == IniRead::kDone) {
      const DWORD length = file.Value(L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION", L"clientuniqueid",
                                      value.value, kStoredIdentifierSize);
      EXPECT_EQ(std::wcslen(value.value), length);
    }
    EXPECT_TRUE(value.IsUntouched());
  });
}

// Through Windows' own functions for such files, which know nothing but real ones.
TEST_F(ChangedConfigurationFile, KeepsTheIdentifierThatIsStoredInIt) {
  const unsigned rounds = IsLongRun() ? 20'000 : 200;
  for (unsigned round = 0; round < rounds && !HasFailure(); ++round) {
    const std::string input = m_mutator.Next();
    SCOPED_TRACE(testing::PrintToString(input));
    Put(input);
    const StoredIdentifier before = ReadId();
    StoredIdentifier standing;
    const StoreOutcome outcome =
        StoreIdentifier(L"FEDCBA9876543210FEDCBA9876543210", m_file.c_str(), standing);
    if (before.state == StoredIdentifierState::kUnreadable) {
      EXPECT_EQ(outcome, StoreOutcome::kUnreadable);
    }
    // What is neither plain text nor marked, Windows' functions may take for UTF-16 or not.
    const bool isPlain = std::all_of(input.begin(), input.end(), [](char c) { return c > 0; });
    if (outcome == StoreOutcome::kStored && isPlain) {
      const StoredIdentifier stored = ReadId();
      EXPECT_EQ(stored.state, StoredIdentifierState::kPresent);
      EXPECT_STREQ(stored.text, L"FEDCBA9876543210FEDCBA9876543210");
    }
  }
}

}  // namespace
