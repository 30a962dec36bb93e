// The identifier in the configuration file over several starts of the real program. What the
// machine's hardware is does not matter here: only that it stays the same.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "support/handle.h"
#include "tests/e2e/service_fixture.h"
#include "tests/support/files.h"

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

constexpr char kSection[] = "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n";

std::string KeyLine(const std::string& identifier) {
  return "clientuniqueid=" + identifier + "\r\n";
}

// The service is never installed: the command says so, and has nothing else to do.
class Identity : public ServiceTest {
 protected:
  // Starts the program and lets it run its command.
  void Start() const {
    const CommandResult result = installation.Run("-uninstall");
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.output, CommandOutput());
  }
  std::string CommandOutput() const { return name + " is not installed\r\n"; }

  // Long ago: a start that finds no identifier in it waits for nobody.
  void WriteConfiguration(const std::string& text) const {
    installation.WriteConfiguration(text);
    LetRest(installation.ConfigurationFile());
  }

  // The whole configuration file; empty when there is none.
  std::string Configuration() const {
    std::ifstream file(installation.ConfigurationFile(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Starts the program without a configuration file and returns the identifier that it stores.
  std::string NewIdentifier() const {
    fs::remove(installation.ConfigurationFile());
    Start();
    static const std::regex pattern(
        R"(\[ADMIN_CONSOLE_CLIENT_AGENT_SECTION\]\r\nclientuniqueid=([0-9A-F]{32})\r\n)");
    const std::string text = Configuration();
    std::smatch match;
    EXPECT_TRUE(std::regex_match(text, match, pattern)) << text;
    return match[1];
  }

  // Forgets what was traced so far.
  void ClearTrace() const { fs::remove_all(installation.Folder() / "logs"); }

  // "level text" for every line of `function`.
  std::vector<std::string> LinesOf(const std::string& function) const {
    std::vector<std::string> lines;
    for (const TraceEntry& entry : installation.Trace()) {
      if (entry.function == function) {
        lines.push_back(std::to_string(entry.level) + " " + entry.text);
      }
    }
    return lines;
  }
};

TEST_F(Identity, FirstStartComputesStoresAndTracesItAndTheNextFetchesIt) {
  const std::string identifier = NewIdentifier();
  EXPECT_THAT(LinesOf("IsClientUUIDPresent"),
              ElementsAre("2 Entry", "1 Client UUID is not present in INI .Creating new ..."));
  EXPECT_THAT(LinesOf("CreateAndSetClientUUID"),
              ElementsAre("2 Entry", "1 Client Unique ID: " + identifier, "2 Exit"));
  EXPECT_THAT(LinesOf("SetClientUUID"), ElementsAre("8  Entry", "8  Exit"));

  ClearTrace();
  Start();
  EXPECT_EQ(Configuration(), kSection + KeyLine(identifier));
  EXPECT_THAT(LinesOf("IsClientUUIDPresent"),
              ElementsAre("2 Entry", "2 ClientUUID fetched : " + identifier, "2 Exit"));
  EXPECT_THAT(LinesOf("CreateAndSetClientUUID"), IsEmpty());
}

TEST_F(Identity, EmptyValueIsTreatedAsMissing) {
  const std::string identifier = NewIdentifier();
  WriteConfiguration(kSection + KeyLine(""));
  Start();
  EXPECT_EQ(Configuration(), kSection + KeyLine(identifier));
}

TEST_F(Identity, IdentifierThatExistsIsNeverReplaced) {
  const std::string text = kSection + KeyLine("that of other hardware");
  WriteConfiguration(text);
  Start();
  Start();
  EXPECT_EQ(Configuration(), text);
  EXPECT_THAT(installation.TextsOf("IsClientUUIDPresent"),
              Contains("ClientUUID fetched : that of other hardware").Times(2));
  EXPECT_THAT(installation.TextsOf("CreateAndSetClientUUID"), IsEmpty());
}

TEST_F(Identity, DeletedKeyComesBackWithTheSameIdentifierAndTheRestOfTheFileStays) {
  const std::string identifier = NewIdentifier();
  const std::string rest = "; by hand\r\n[TRACE]\r\nFiles=3\r\n" + std::string(kSection) +
                           "; of the console\r\nserver=10.0.0.1\r\n";
  WriteConfiguration(rest);
  Start();
  EXPECT_EQ(Configuration(), rest + KeyLine(identifier));
}

TEST_F(Identity, WithoutConfigurationFolderNothingIsReadOrStoredAndTheCommandRuns) {
  std::ofstream(installation.Folder() / "conf") << "a file in the way of the folder";
  Start();
  EXPECT_THAT(LinesOf("IsClientUUIDPresent"),
              ElementsAre("2 Entry", "1 GetClientAgentConfigDir failed"));
  EXPECT_THAT(LinesOf("SetClientUUID"),
              ElementsAre("8  Entry", "1 GetClientAgentConfigDir failed"));
  EXPECT_THAT(installation.TextsOf("CreateAndSetClientUUID"), Contains("SetClientUUID failed."));
  EXPECT_THAT(installation.TextsOf("CNTService::ParseStandardArgs"), Contains("-uninstall"));
}

// --- The libraries that only a first start needs, and that are loaded when they are called ---

// Which of its own and of other makers' libraries Wine gives to the program. Windows does not look
// there.
class WineOverrides {
 public:
  WineOverrides() {
    EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER,
                              R"(Software\Wine\AppDefaults\vorlsrvc.exe\DllOverrides)", 0, nullptr,
                              REG_OPTION_VOLATILE, KEY_WRITE, nullptr, m_key.Receive(), nullptr),
              ERROR_SUCCESS);
  }
  ~WineOverrides() {
    for (const std::string& library : m_libraries) {
      RegDeleteValueA(m_key.Get(), library.c_str());
    }
  }
  WineOverrides(const WineOverrides&) = delete;
  WineOverrides& operator=(const WineOverrides&) = delete;

  void Set(const std::string& library, const std::string& order) {
    m_libraries.push_back(library);
    EXPECT_EQ(RegSetValueExA(m_key.Get(), library.c_str(), 0, REG_SZ,
                             reinterpret_cast<const BYTE*>(order.c_str()),
                             static_cast<DWORD>(order.size() + 1)),
              ERROR_SUCCESS);
  }

 private:
  RegistryKey m_key;
  std::vector<std::string> m_libraries;
};

TEST_F(Identity, LibrariesOfAFirstStartAreNotTakenFromTheProgramsFolder) {
  const std::string identifier = NewIdentifier();
  // By itself Wine prefers its own libraries wherever others lie.
  WineOverrides overrides;
  for (const std::string library : {"iphlpapi", "ole32", "oleaut32", "user32"}) {
    overrides.Set(library, "native,builtin");
    // A library without any of the functions.
    fs::copy_file(installation.Folder() / "vorlinfo.dll",
                  installation.Folder() / (library + ".dll"));
  }
  EXPECT_EQ(NewIdentifier(), identifier);
}

// A machine without a library that the identifier is made with. Wine can be told to have none; on
// Windows nothing keeps a program from the libraries of the system.
class IdentityWithout : public Identity, public ::testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr) {
      GTEST_SKIP() << "needs Wine";
    }
    m_overrides.Set(GetParam(), "");
    Identity::SetUp();
  }

 private:
  WineOverrides m_overrides;
};

TEST_P(IdentityWithout, AFirstStartSaysSoAndTheCommandRuns) {
  Start();
  EXPECT_THAT(LinesOf("CZTUUID::GetUUIDParameters"),
              ElementsAre("2 Entry", HasSubstr("CoInitializeEx failed")));
  EXPECT_THAT(LinesOf("CZTUUID::GetUUIDParameters"), Contains(HasSubstr("(80070505)")));
  EXPECT_THAT(LinesOf("CZTUUID::GetZTUUID"), Contains("1 GetUUIDParameters failed."));
  EXPECT_EQ(Configuration(), "");
  EXPECT_THAT(installation.TextsOf("CNTService::ParseStandardArgs"), Contains("-uninstall"));
}

INSTANTIATE_TEST_SUITE_P(Libraries, IdentityWithout, ::testing::Values("ole32", "oleaut32"),
                         [](const auto& test) { return test.param; });

// Starts of the program that all find no identifier and are held until each is about to write its
// own.
class IdentityOfStartsInStep : public Identity {
 protected:
  static constexpr int kStarts = 2;
  static constexpr DWORD kPatienceMilliseconds = 60000;

  void PutInStep() const {
    fs::rename(installation.Folder() / "vorlmisc.dll",
               installation.Folder() / "vorlmisc_behind.dll");
    installation.Replace("vorlmisc_in_step.dll", "vorlmisc.dll");
  }

  // One start that does `meanwhile` between its two looks at the file.
  template <typename Meanwhile>
  void StartAndMeanwhile(Meanwhile meanwhile) const {
    const KernelHandle arrived(CreateSemaphoreW(nullptr, 0, kStarts, L"VorlIdentityTestArrived"));
    const KernelHandle go(CreateEventW(nullptr, TRUE, FALSE, L"VorlIdentityTestGo"));
    BackgroundProgram program(installation.Program(), "-uninstall");
    EXPECT_EQ(WaitForSingleObject(arrived.Get(), kPatienceMilliseconds), DWORD{WAIT_OBJECT_0});
    meanwhile();
    SetEvent(go.Get());
    EXPECT_EQ(program.Finish().output, CommandOutput());
  }

  // Two starts, whose writes begin together.
  void StartTogether() const {
    const KernelHandle arrived(CreateSemaphoreW(nullptr, 0, kStarts, L"VorlIdentityTestArrived"));
    const KernelHandle go(CreateEventW(nullptr, TRUE, FALSE, L"VorlIdentityTestGo"));
    BackgroundProgram first(installation.Program(), "-uninstall");
    BackgroundProgram second(installation.Program(), "-uninstall");
    for (int i = 0; i < kStarts; ++i) {
      EXPECT_EQ(WaitForSingleObject(arrived.Get(), kPatienceMilliseconds), DWORD{WAIT_OBJECT_0});
    }
    SetEvent(go.Get());
    EXPECT_EQ(first.Finish().output, CommandOutput());
    EXPECT_EQ(second.Finish().output, CommandOutput());
  }
};

TEST_F(IdentityOfStartsInStep, OneIdentifierIsStoredAndNothingIsLost) {
  const std::string identifier = NewIdentifier();
  const std::string rest = "; by hand\r\n[STARTUP_OPTIONS]\r\nText1=\"console 1\" ; first\r\n" +
                           std::string(kSection) + "; of the console\r\nserver=10.0.0.1\r\n";
  PutInStep();
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    const bool isFirstFile = round % 2 == 0;
    fs::remove(installation.ConfigurationFile());
    if (!isFirstFile) {
      WriteConfiguration(rest);
    }
    ClearTrace();
    StartTogether();
    EXPECT_EQ(Configuration(), (isFirstFile ? kSection : rest) + KeyLine(identifier));
    EXPECT_THAT(installation.TextsOf("SetClientUUID"),
                UnorderedElementsAre(" Entry", " Entry", " Exit", " Exit"));
  }
}

// The file is in the hands of another program when the program looks for the identifier, and given
// back before the new one would be written.
TEST_F(IdentityOfStartsInStep, IdentifierOfAFileInOtherHandsIsNeverReplaced) {
  const std::string text = kSection + KeyLine("that of other hardware");
  WriteConfiguration(text);
  PutInStep();
  FileHandle holder(CreateFileW(installation.ConfigurationFile().c_str(), GENERIC_READ,
                                /*dwShareMode=*/0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(holder) << GetLastError();
  StartAndMeanwhile([&] { holder.Reset(); });
  EXPECT_EQ(Configuration(), text);
  EXPECT_THAT(LinesOf("IsClientUUIDPresent"),
              ElementsAre("2 Entry",
                          "1 vorlconf.ini cannot be read (32), a client UUID in it is left as it "
                          "is",
                          "1 Client UUID is not present in INI .Creating new ..."));
  EXPECT_THAT(LinesOf("SetClientUUID"),
              ElementsAre("8  Entry",
                          "1 Client UUID is present in INI by now and is kept : that of other "
                          "hardware",
                          "8  Exit"));
}

TEST_F(IdentityOfStartsInStep, IdentifierThatAnotherProgramStoresMeanwhileIsNeverReplaced) {
  const std::string text = kSection + KeyLine("that of a start that saw more of the hardware");
  fs::remove(installation.ConfigurationFile());
  PutInStep();
  StartAndMeanwhile([&] { WriteConfiguration(text); });
  EXPECT_EQ(Configuration(), text);
  EXPECT_THAT(installation.TextsOf("CreateAndSetClientUUID"), Contains("Exit"));
}

}  // namespace
