// Every command of the diagnosis tool on installations in the states in which support meets them,
// and the faults that it is there to find, all of them at once.
#include "tests/e2e/diagnosis_fixture.h"

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;

namespace {

constexpr char kOtherIdentifier[] = "0123456789ABCDEF0123456789ABCDEF";
constexpr wchar_t kEveryoneMayWrite[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;WD)";

class DiagnosisOfAState : public Diagnosis {
 protected:
  // Runs every command: each is carried out, whatever it finds, writes JSON, and changes nothing
  // but the file that it is told to write.
  void RunEveryCommand() {
    const std::string folder = "\"" + installation.Folder().string() + "\"";
    Run("cache write --folder " + folder);
    const std::vector<std::string> commands{"status",
                                            "identity",
                                            "identity --both",
                                            "cache check --folder " + folder,
                                            "trace",
                                            "trace --start",
                                            "trace --stop",
                                            "trace --level error --perfetto calls.json",
                                            "report page.html",
                                            "bundle ticket.zip",
                                            "bundle ticket.zip --mask"};
    for (const std::string& command : commands) {
      SCOPED_TRACE(command);
      const CommandResult result = Run(command + " --json");
      EXPECT_LT(result.exitCode, kExitNotDone) << result.output;
      documents[command] = json::parse(result.output, nullptr, /*allow_exceptions=*/false);
      ASSERT_FALSE(documents[command].is_discarded()) << result.output;
      EXPECT_EQ(documents[command]["command"], command.substr(0, command.find(' ')));
    }
    for (const char* file : {"calls.json", "page.html", "ticket.zip"}) {
      EXPECT_GT(fs::file_size(file), 30U) << file;
      fs::remove(file);
    }
    Diagnose();
  }

  std::size_t Lines() { return documents["trace"]["lines"].size(); }

  std::map<std::string, json> documents;
};

TEST_F(DiagnosisOfAState, Healthy) {
  ASSERT_NO_FATAL_FAILURE(InstallAndStart());
  ASSERT_TRUE(installation.WaitForText("CAcAsSvc::Run", "Before Calling WaitForSingleObject"));
  ASSERT_NO_FATAL_FAILURE(RunEveryCommand());
  EXPECT_EQ(exitCode, kExitWarning);
  EXPECT_GT(Lines(), 20U);
  EXPECT_EQ(documents["trace --start"]["found"], true);
  EXPECT_THAT(documents["trace --start"]["summary"], HasSubstr("up after "));
  EXPECT_EQ(documents["trace --stop"]["found"], false);
  EXPECT_EQ(documents["cache check --folder \"" + installation.Folder().string() + "\""]["verdict"],
            "ok");
  EXPECT_EQ(documents["bundle ticket.zip"]["leftOut"], json::array());
  EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});
}

// Nobody has registered it, and two files were forgotten.
TEST_F(DiagnosisOfAState, HalfInstalled) {
  fs::remove(installation.Folder() / "vlevtlog.dll");
  fs::remove(installation.Folder() / "vorlcore.dll");
  ASSERT_NO_FATAL_FAILURE(RunEveryCommand());
  EXPECT_EQ(exitCode, kExitError);
  EXPECT_THAT(IdsWith("error"), IsSupersetOf({"registration", "vlevtlog", "vorlcore"}));
  EXPECT_EQ(Lines(), 0U);
  EXPECT_EQ(documents["trace --start"]["found"], false);
  EXPECT_THAT(documents["bundle ticket.zip"]["leftOut"].dump(), HasSubstr("conf/vorlconf.ini"));
}

TEST_F(DiagnosisOfAState, Tampered) {
  // Not while the service runs: it loads the file.
  std::ofstream(installation.Folder() / "vorlupd.dll", std::ios::app | std::ios::binary) << "more";
  ASSERT_NO_FATAL_FAILURE(InstallAndStart());
  SetAccess(installation.Folder() / "conf", kEveryoneMayWrite);
  SetAccess(installation.Folder() / "vorlcore.dll", L"D:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FA;;;WD)");
  installation.WriteConfiguration("[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=" +
                                  std::string(kOtherIdentifier) + "\r\n");
  ASSERT_NO_FATAL_FAILURE(RunEveryCommand());
  EXPECT_EQ(exitCode, kExitError);
  EXPECT_THAT(IdsWith("error"), IsSupersetOf({"rights-config", "rights-vorlcore"}));
  EXPECT_THAT(IdsWith("warning"), IsSupersetOf({"vorlupd", "stored"}));
}

TEST_F(DiagnosisOfAState, Damaged) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  fs::resize_file(installation.Folder() / "vorlcore.dll", 5000);
  installation.WriteConfiguration(std::string(4096, '\0'));
  const std::size_t whole = installation.Trace().size();
  std::ofstream(installation.Folder() / "logs" / "vorltrace.log", std::ios::app | std::ios::binary)
      << std::string(2000, '\0') << "\r\n\xFF\xFE half of a line";
  ASSERT_NO_FATAL_FAILURE(RunEveryCommand());
  EXPECT_EQ(exitCode, kExitError);
  EXPECT_THAT(IdsWith("error"), IsSupersetOf({"stored", "vorlcore"}));
  EXPECT_THAT(Value("stored"), HasSubstr("the file is damaged, it holds null characters"));
  EXPECT_EQ(Lines(), whole);
}

// What a reader of `vorldiag status` sees, with nothing else at hand.
TEST_F(DiagnosisOfAState, FiveFaultsAtOnceAreFiveSentences) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  const fs::path conf = installation.Folder() / "elsewhere";
  fs::create_directories(installation.Folder() / "pending");
  fs::create_directory(conf);
  std::ofstream(conf / "vorlconf.ini", std::ios::binary)
      << "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=" << kOtherIdentifier << "\r\n";
  Register(L"ConfigDir", conf.wstring());
  SetAccess(installation.Folder() / "pending", kEveryoneMayWrite);
  fs::remove(installation.Folder() / "vorlmisc.dll");
  const KernelHandle event(
      CreateEventA(nullptr, /*bManualReset=*/TRUE, /*bInitialState=*/TRUE, kExitEvent));
  const CommandResult result = Run("status");
  EXPECT_EQ(result.exitCode, kExitError);
  EXPECT_THAT(
      result.output,
      AllOf(HasSubstr("  ERROR    vorlmisc.dll              missing in " +
                      installation.Folder().string() +
                      "\r\n           -> The service does not start without it (error 1053). "
                      "Install vorlmisc.dll again.\r\n"),
            HasSubstr("  ERROR    pending                   " + installation.Folder().string() +
                      "\\pending: Everyone may write"),
            HasSubstr("-> Whoever may do this decides what runs as LocalSystem."),
            HasSubstr("  ERROR    Exit event                " + std::string(kExitEvent) +
                      ", signalled"),
            HasSubstr("-> Another program keeps it signalled: the service stops at once after each "
                      "start. End the program that holds it: vorldiag_e2e_test.exe ("),
            HasSubstr("  warning  Stored identifier         " + std::string(kOtherIdentifier) +
                      " differs from the hardware's "),
            HasSubstr("\r\n3 errors, ")));
  Register(L"ConfigDir", L"\\\\server\\share");
  EXPECT_THAT(Run("status").output,
              AllOf(HasSubstr("  ERROR    Configuration             registry value ConfigDir is no "
                              "folder on a drive of this computer: \\\\server\\share"),
                    HasSubstr("-> Correct the registry value ConfigDir below "
                              "HKLM\\SOFTWARE\\Client Agent\\1, or delete it to use conf"),
                    HasSubstr("\r\n4 errors, ")));
}

}  // namespace
