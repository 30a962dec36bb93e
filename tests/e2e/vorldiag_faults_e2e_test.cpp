// Faults that an installation gets from updates, editors, clean-ups and copies: each has a sentence
// of its own.
#include "tests/e2e/diagnosis_fixture.h"

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class FaultOf : public Diagnosis {
 protected:
  void SetUp() override {
    Diagnosis::SetUp();
    ASSERT_EQ(installation.Run("-install").output, InstalledText());
  }
};

TEST_F(FaultOf, TheProgramIsThatItIsAnother) {
  fs::remove(installation.Program());
  fs::copy_file(installation.Folder() / "vorlhelper.exe", installation.Program());
  Diagnose();
  EXPECT_THAT(IdsWith("error"), ElementsAre("vorlsrvc"));
  EXPECT_THAT(Value("vorlsrvc"), StartsWith("it is another program (vorlhelper.exe): "));
}

TEST_F(FaultOf, ALibraryIsThatItIsOfAnotherVersion) {
  const fs::path path = installation.Folder() / "vorlmisc.dll";
  std::stringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  std::string changed = bytes.str();
  // The fixed part of the version resource begins with its signature; the version is its third
  // number, its upper half last.
  const std::size_t fixed = changed.find("\xBD\x04\xEF\xFE");
  ASSERT_NE(fixed, std::string::npos);
  changed[fixed + 10] = 2;
  std::ofstream(path, std::ios::binary) << changed;
  Diagnose();
  EXPECT_EQ(Verdict("vorlmisc"), "warning");
  EXPECT_THAT(Value("vorlmisc"), StartsWith("2.0.0.0, "));
  EXPECT_THAT(Advice("vorlmisc"), StartsWith("It is of another version than this tool (1.0.0.0)"));
}

// Windows keeps the mark in the service's key; Wine keeps it to itself.
TEST_F(FaultOf, TheRegistrationIsThatItIsMarkedForDeletion) {
  const std::string key = "SYSTEM\\CurrentControlSet\\Services\\" + name;
  const DWORD isDeleted = 1;
  ASSERT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, key.c_str(), "DeleteFlag", REG_DWORD, &isDeleted,
                            sizeof(isDeleted)),
            ERROR_SUCCESS);
  Diagnose();
  EXPECT_THAT(IdsWith("error"), ElementsAre("registration"));
  EXPECT_EQ(Value("registration"), name + " is marked for deletion");
  EXPECT_THAT(Advice("registration"), HasSubstr("close the Services console"));
  ASSERT_EQ(RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, key.c_str(), "DeleteFlag"), ERROR_SUCCESS);
  Diagnose();
  EXPECT_EQ(Verdict("registration"), "ok");
}

TEST_F(FaultOf, TheConfigurationFileIsThatItIsAFolder) {
  fs::remove(installation.ConfigurationFile());
  fs::create_directory(installation.ConfigurationFile());
  Diagnose();
  EXPECT_THAT(IdsWith("error"), ElementsAre("config-file", "stored"));
  EXPECT_EQ(Value("config-file"), installation.ConfigurationFile().string() + " is a folder");
}

TEST_F(FaultOf, TheConfigurationFolderIsThatItIsAFile) {
  fs::remove_all(installation.Folder() / "conf");
  std::ofstream(installation.Folder() / "conf") << "x";
  Diagnose();
  EXPECT_THAT(IdsWith("error"), ElementsAre("config-folder"));
  EXPECT_THAT(Value("config-folder"), HasSubstr("\\conf is no folder (conf below"));
  EXPECT_EQ(Value("stored"), "not looked for");
}

TEST_F(FaultOf, TheTraceIsThatItsFileIsAFolder) {
  fs::remove(installation.Folder() / "logs" / "vorltrace.log");
  fs::create_directory(installation.Folder() / "logs" / "vorltrace.log");
  Diagnose();
  EXPECT_EQ(Verdict("trace-files"), "warning");
  EXPECT_THAT(Value("trace-files"), HasSubstr("\\logs\\vorltrace.log is a folder"));
  EXPECT_THAT(Advice("trace-files"), StartsWith("Remove the folder"));
  EXPECT_THAT(Run("trace").output, HasSubstr("Lines are missing: " + Value("trace-files")));
}

TEST_F(FaultOf, TheTraceIsThatItsFolderIsAFile) {
  fs::remove_all(installation.Folder() / "logs");
  std::ofstream(installation.Folder() / "logs") << "x";
  Diagnose();
  EXPECT_THAT(IdsWith("error"), ElementsAre("logs-folder"));
  EXPECT_THAT(Advice("logs-folder"), StartsWith("Remove what is there"));
  EXPECT_EQ(findings.count("trace-files"), 0U);
}

TEST_F(FaultOf, TheTraceIsThatNoLineOfItCanBeRead) {
  for (const std::string& content : {std::string(2000, '\0'), std::string("a\r\nb\r\n")}) {
    std::ofstream(installation.Folder() / "logs" / "vorltrace.log", std::ios::binary) << content;
    Diagnose();
    EXPECT_EQ(Value("trace-files"),
              (installation.Folder() / "logs").string() + ": no line in it can be read");
    EXPECT_THAT(Advice("trace-files"), HasSubstr("move them away"));
  }
}

TEST_F(FaultOf, TheIdentifierIsThatItIsNone) {
  for (const std::string& value :
       {std::string("xyz"), std::string(32, 'g'), std::string(31, '0')}) {
    installation.WriteConfiguration(
        "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=" + value + "\r\n");
    Diagnose();
    EXPECT_EQ(Value("stored"), value + " is no identifier, which has 32 hexadecimal digits");
    EXPECT_THAT(Advice("stored"), HasSubstr("delete the key clientuniqueid"));
  }
}

TEST_F(FaultOf, TheTraceIsThatTheProcessThatRunsIsNotInIt) {
  ASSERT_EQ(service.Start(), 0U);
  ASSERT_TRUE(installation.WaitForText("CAcAsSvc::Run", "Before Calling WaitForSingleObject"));
  installation.Run("-stop");
  ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
  ASSERT_TRUE(installation.WaitForText("main", "Exit"));
  installation.WriteConfiguration("[TRACE]\r\nLevels=NONE\r\n");
  ASSERT_EQ(service.Start(), 0U);
  Diagnose();
  EXPECT_EQ(Verdict("last-start"), "warning");
  EXPECT_THAT(Value("last-start"), StartsWith("none in the trace of the process that runs; "));
  EXPECT_THAT(Advice("last-start"), StartsWith("The trace is switched off"));
}

TEST_F(FaultOf, AnUpdateIsThatItWaitsOrIsNotComplete) {
  Diagnose();
  EXPECT_EQ(Verdict("update"), "ok");
  fs::create_directory(installation.Folder() / "pending");
  Diagnose();
  EXPECT_EQ(Value("update"), "none waits");
  std::ofstream(installation.Folder() / "pending" / "new.txt") << "x";
  Diagnose();
  EXPECT_EQ(Verdict("update"), "warning");
  EXPECT_EQ(Value("update"), "files wait in " + installation.Folder().string() + "\\pending");
  fs::create_directory(installation.Folder() / "update.work");
  std::ofstream(installation.Folder() / "update.work" / "journal") << "x";
  Diagnose();
  EXPECT_THAT(Value("update"),
              AllOf(StartsWith("not complete: "), HasSubstr("\\journal is there")));
  EXPECT_THAT(Advice("update"), StartsWith("Leave update.work alone and start the service"));
}

}  // namespace
