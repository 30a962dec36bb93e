// The diagnosis tool on healthy, half-installed, tampered and damaged installations. What it says
// is read from its JSON; its exit code is that of the worst line.
//
// Wine keeps no recovery actions, so that the best that can be had here is one warning.
#include "tests/e2e/diagnosis_fixture.h"
#include "tests/support/files.h"

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::StartsWith;

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

TEST_F(Diagnosis, AHealthyInstallationIsAsItShouldBe) {
  ASSERT_NO_FATAL_FAILURE(InstallAndStart());
  ASSERT_TRUE(installation.WaitForText("CAcAsSvc::Run", "Before Calling WaitForSingleObject"));
  Diagnose();
  EXPECT_EQ(exitCode, kExitWarning);
  EXPECT_THAT(IdsWith("error"), IsEmpty());
  EXPECT_THAT(IdsWith("warning"), ElementsAre("recovery"));

  EXPECT_EQ(Value("registration"), name);
  EXPECT_EQ(Value("command"), installation.Program().string());
  EXPECT_EQ(Value("account"), "LocalSystem");
  EXPECT_EQ(Value("state"), "RUNNING");
  EXPECT_THAT(Value("process"),
              StartsWith("vorlsrvc.exe (" + std::to_string(service.Status().dwProcessId) +
                         "), up for 0 d 00:00:"));
  EXPECT_THAT(Value("vorlcore"), AllOf(StartsWith("1.0.0.0, "), HasSubstr(", as shipped")));
  EXPECT_THAT(Value("root-folder"), HasSubstr("(the folder of vorlmisc.dll)"));
  EXPECT_THAT(Value("close-event"), AllOf(StartsWith(std::string(kCloseEvent) + ", not signalled"),
                                          HasSubstr("held by vorlsrvc.exe (")));
  EXPECT_THAT(Value("stored"), HasSubstr(", equal to the hardware's"));
  EXPECT_THAT(Value("last-start"), HasSubstr(", up after "));
}

TEST_F(Diagnosis, ShowsTheLastStopAndWhoAsked) {
  ASSERT_NO_FATAL_FAILURE(InstallAndStart());
  installation.Run("-stopmanual");
  ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
  ASSERT_TRUE(installation.WaitForText("main", "Exit"));
  Diagnose();
  EXPECT_EQ(Verdict("last-stop"), "ok");
  EXPECT_THAT(Value("last-stop"), AllOf(HasSubstr(", manual stop, took "), HasSubstr(" ms")));
  EXPECT_EQ(Verdict("state"), "warning");
}

TEST_F(Diagnosis, SaysThatTheServiceIsNotRegistered) {
  Diagnose();
  EXPECT_EQ(exitCode, kExitError);
  EXPECT_EQ(Verdict("registration"), "error");
  EXPECT_EQ(Value("registration"), name + " is not registered");
  EXPECT_THAT(Advice("registration"), HasSubstr("vorlsrvc -install"));
}

TEST_F(Diagnosis, SaysThatTheRegisteredProgramIsNotThere) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  fs::rename(installation.Program(), installation.Folder() / "gone.exe");
  Diagnose();
  EXPECT_EQ(exitCode, kExitError);
  EXPECT_EQ(Value("command"), installation.Program().string() + " is not there");
  EXPECT_THAT(Value("vorlsrvc"), StartsWith("missing in "));
}

class DiagnosisInAFolderWithBlanks : public Diagnosis {
 protected:
  DiagnosisInAFolderWithBlanks() : Diagnosis(" with blanks") {}
};

TEST_F(DiagnosisInAFolderWithBlanks, SaysThatACommandWithBlanksHasNoQuotes) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  Diagnose();
  EXPECT_EQ(Value("command"), "\"" + installation.Program().string() + "\"");
  EXPECT_EQ(Verdict("command"), "ok");

  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  const ServiceHandle handle(OpenServiceA(manager.Get(), name.c_str(), SERVICE_CHANGE_CONFIG));
  ASSERT_TRUE(ChangeServiceConfigW(handle.Get(), SERVICE_NO_CHANGE, SERVICE_DISABLED,
                                   SERVICE_NO_CHANGE, installation.Program().c_str(), nullptr,
                                   nullptr, nullptr, nullptr, nullptr, nullptr));
  Diagnose();
  EXPECT_EQ(Verdict("command"), "error");
  EXPECT_EQ(Value("command"), installation.Program().string() + " has blanks and no quotes");
  EXPECT_EQ(Verdict("start-type"), "error");
  EXPECT_EQ(Value("start-type"), "disabled");
  EXPECT_THAT(Advice("start-type"), HasSubstr("sc config \"" + name + "\" start= auto"));
}

// Without any of them the service does not start: the tool must.
TEST_F(Diagnosis, FindsAMissingLibrary) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  for (const std::string library : {"vlevtlog", "vorlmisc", "vorlinfo"}) {
    SCOPED_TRACE(library);
    fs::rename(installation.Folder() / (library + ".dll"), installation.Folder() / "away");
    Diagnose();
    EXPECT_EQ(exitCode, kExitError);
    EXPECT_THAT(IdsWith("error"), ElementsAre(library));
    EXPECT_EQ(Value(library), "missing in " + installation.Folder().string());
    EXPECT_EQ(Advice(library), "The service does not start without it (error 1053). Install " +
                                   library + ".dll again.");
    fs::rename(installation.Folder() / "away", installation.Folder() / (library + ".dll"));
  }
}

TEST_F(Diagnosis, FindsLibrariesThatAreDamagedOrOthers) {
  fs::resize_file(installation.Folder() / "vorlcore.dll", 5000);
  fs::remove(installation.Folder() / "vlevtlog.dll");
  fs::copy_file(installation.Folder() / "vorlmisc.dll", installation.Folder() / "vlevtlog.dll");
  std::ofstream(installation.Folder() / "vorlupd.dll", std::ios::app | std::ios::binary) << "more";
  Diagnose();
  EXPECT_THAT(IdsWith("error"), IsSupersetOf({"vlevtlog", "vorlcore"}));
  EXPECT_THAT(Value("vorlcore"), StartsWith("it is incomplete: "));
  EXPECT_THAT(Value("vlevtlog"), StartsWith("lacks the entries 3: "));
  EXPECT_EQ(Verdict("vorlupd"), "warning");
  EXPECT_THAT(Value("vorlupd"), HasSubstr(", not the one shipped with this tool"));
}

TEST_F(Diagnosis, FindsAWrongConfigDir) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  Register(L"ConfigDir", L"conf");
  Diagnose();
  EXPECT_EQ(exitCode, kExitError);
  EXPECT_THAT(IdsWith("error"), ElementsAre("config-folder"));
  EXPECT_EQ(Value("config-folder"),
            "registry value ConfigDir is no full path: conf (registry value ConfigDir)");
  EXPECT_THAT(Advice("config-folder"), StartsWith("Correct the registry value ConfigDir"));

  Register(L"ConfigDir", L"\\\\server\\share\\conf");
  Diagnose();
  EXPECT_THAT(Value("config-folder"), HasSubstr("is no folder on a drive of this computer"));

  Register(L"ConfigDir", L"C:\\not\\there");
  Diagnose();
  EXPECT_EQ(Verdict("config-folder"), "error");
  EXPECT_THAT(Value("config-folder"), HasSubstr("nor does the folder above it"));
}

TEST_F(Diagnosis, FindsFoldersThatEveryoneMayWrite) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  fs::create_directory(installation.Folder() / "pending");
  struct Planted {
    const char* id;
    fs::path path;
  };
  for (const Planted& planted : {Planted{"rights-program", installation.Folder()},
                                 Planted{"rights-config", installation.Folder() / "conf"},
                                 Planted{"rights-logs", installation.Folder() / "logs"},
                                 Planted{"rights-pending", installation.Folder() / "pending"}}) {
    SCOPED_TRACE(planted.id);
    SetAccess(planted.path, L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;WD)");
    Diagnose();
    EXPECT_EQ(exitCode, kExitError);
    EXPECT_THAT(IdsWith("error"), ElementsAre(planted.id));
    EXPECT_THAT(Value(planted.id), HasSubstr("Everyone may write"));
    EXPECT_THAT(Advice(planted.id),
                AllOf(StartsWith("Whoever may do this decides what runs as LocalSystem."),
                      HasSubstr("icacls \"" + planted.path.string() + "\" /reset, then icacls \"" +
                                planted.path.string() + "\" /inheritance:r /grant:r *S-1-5-18")));
    SetAccess(planted.path, L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)");
    Diagnose();
    EXPECT_EQ(Verdict(planted.id), "ok");
  }
}

TEST_F(Diagnosis, FindsAFileThatEveryoneMayWriteAndDoesNotRunIt) {
  SetAccess(installation.Folder() / "vorlinfo.dll", L"D:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FA;;;WD)");
  Diagnose();
  EXPECT_EQ(Verdict("rights-vorlinfo"), "error");
  EXPECT_THAT(Value("rights-vorlinfo"), HasSubstr("Everyone may write"));
  EXPECT_EQ(
      Value("names"),
      "assumed, vorlinfo.dll was not asked, because others than administrators can change it");
}

class StrangersEvent : public Diagnosis {
 protected:
  static KernelHandle Make(const char* eventName, bool isManualReset) {
    return KernelHandle(CreateEventA(nullptr, isManualReset, /*bInitialState=*/TRUE, eventName));
  }
};

TEST_F(StrangersEvent, IsFoundWithItsHolderWhenItIsKeptSignalled) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  for (const auto& [id, eventName] :
       {std::pair{"close-event", kCloseEvent}, std::pair{"exit-event", kExitEvent}}) {
    SCOPED_TRACE(id);
    const KernelHandle event = Make(eventName, true);
    Diagnose();
    EXPECT_EQ(exitCode, kExitError);
    EXPECT_THAT(IdsWith("error"), ElementsAre(id));
    EXPECT_THAT(Value(id), StartsWith(std::string(eventName) + ", signalled"));
    EXPECT_THAT(Advice(id),
                AllOf(StartsWith("Another program keeps it signalled: the service stops at once "
                                 "after each start. End the program that holds it: "),
                      HasSubstr("vorldiag_e2e_test.exe ("),
                      HasSubstr(std::to_string(GetCurrentProcessId()))));
  }
}

TEST_F(StrangersEvent, IsNotChangedByBeingLookedAt) {
  const KernelHandle event = Make(kExitEvent, /*isManualReset=*/false);
  Diagnose();
  EXPECT_EQ(Verdict("exit-event"), "error");
  EXPECT_THAT(Value("exit-event"), HasSubstr("of the wrong kind"));
  EXPECT_EQ(WaitForSingleObject(event.Get(), 0), WAIT_OBJECT_0);
}

TEST_F(StrangersEvent, IsFoundWhenItIsNoEvent) {
  const KernelHandle mutex(CreateMutexA(nullptr, FALSE, kExitEvent));
  Diagnose();
  EXPECT_EQ(Verdict("exit-event"), "error");
  EXPECT_THAT(Value("exit-event"), HasSubstr("is something else than an event"));
}

TEST_F(Diagnosis, LooksAtTheHelpersPipeWithoutTheHelpersNoticing) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  Diagnose();
  EXPECT_THAT(Value("helper-pipe"), HasSubstr("briskuphelperpipe is not there"));

  BackgroundProgram helper(installation.Folder() / "vorlhelper.exe", "--count 1");
  ASSERT_TRUE(helper.WaitForOutput("waiting for notifications"));
  Diagnose();
  EXPECT_EQ(Verdict("helper-pipe"), "ok");
  EXPECT_THAT(Value("helper-pipe"), EndsWith(" is there, the helper runs: vorlhelper.exe (" +
                                             std::to_string(helper.ProcessId()) + ")"));
  installation.Run("-uninstall");
  const std::string output = helper.Finish().output;
  EXPECT_THAT(output, HasSubstr("about to be uninstalled"));
  EXPECT_THAT(output, Not(HasSubstr("refused")));
}

TEST_F(Diagnosis, SaysThatAnotherProgramServesTheHelpersPipe) {
  const FileHandle pipe(CreateNamedPipeW(L"\\\\.\\pipe\\briskuphelperpipe", PIPE_ACCESS_DUPLEX,
                                         PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
  ASSERT_TRUE(pipe);
  Diagnose();
  EXPECT_EQ(Verdict("helper-pipe"), "warning");
  EXPECT_THAT(Value("helper-pipe"), HasSubstr("no vorlhelper.exe of this installation runs"));
}

TEST_F(Diagnosis, FindsAnIdentifierThatDiffersFromTheHardware) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  const std::string other = "0123456789ABCDEF0123456789ABCDEF";
  installation.WriteConfiguration(
      "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=" + other + "\r\n");
  Diagnose();
  EXPECT_EQ(Verdict("stored"), "warning");
  EXPECT_THAT(Value("stored"), StartsWith(other + " differs from the hardware's "));
  EXPECT_THAT(Advice("stored"), StartsWith("If this computer was cloned from another one"));
}

TEST_F(Diagnosis, TellsAConfigurationThatCannotBeReadFromAMissingIdentifier) {
  installation.WriteConfiguration("[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=1\r\n");
  {
    const FileHandle holder(CreateFileW(installation.ConfigurationFile().c_str(), GENERIC_READ, 0,
                                        nullptr, OPEN_EXISTING, 0, nullptr));
    Diagnose();
    EXPECT_EQ(Verdict("stored"), "error");
    EXPECT_THAT(Value("stored"), StartsWith("(unknown) the file is in use"));
  }
  installation.WriteConfiguration("[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n");
  Diagnose();
  EXPECT_EQ(Value("stored"), "(none)");
}

TEST_F(Diagnosis, NamesTheStepAtWhichTheLastStartEnded) {
  installation.Replace("refusing_core.dll", "vorlcore.dll");
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  ASSERT_EQ(service.Start(), 0U);
  ASSERT_TRUE(installation.WaitForText("CAcAsSvc::Run", "ClientAgentCoreStartUp Failed"));
  ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
  ASSERT_TRUE(installation.WaitForText("main", "Exit"));
  Diagnose();
  EXPECT_EQ(Verdict("last-start"), "error");
  EXPECT_THAT(Value("last-start"),
              HasSubstr("step 13 of 14 is missing: \"After calling ClientAgentCoreStartUp\" of "
                        "CAcAsSvc::Run"));
  EXPECT_THAT(Advice("last-start"), StartsWith("The core refused to start"));
  EXPECT_EQ(Verdict("last-stop"), "ok");
  EXPECT_THAT(Value("last-stop"), HasSubstr(", its start failed, took "));
  EXPECT_EQ(Verdict("errors"), "warning");
  EXPECT_THAT(Value("errors"), HasSubstr("CAcAsSvc::Run: ClientAgentCoreStartUp Failed"));
  EXPECT_THAT(Advice("errors"),
              StartsWith("It means: the core refused to start; the service stops. "
                         "To do: the core's own lines above."));
}

// Name, size and time of everything in a folder.
std::map<std::string, std::pair<std::uintmax_t, fs::file_time_type>> Contents(
    const fs::path& folder) {
  std::map<std::string, std::pair<std::uintmax_t, fs::file_time_type>> contents;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    contents[entry.path().string()] = {entry.is_regular_file() ? entry.file_size() : 0,
                                       entry.last_write_time()};
  }
  return contents;
}

TEST_F(Diagnosis, ChangesNothing) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  const auto before = Contents(installation.Folder());
  Diagnose();
  Diagnose("identity");
  EXPECT_EQ(Contents(installation.Folder()), before);

  fs::remove_all(installation.Folder() / "conf");
  fs::remove_all(installation.Folder() / "logs");
  const auto without = Contents(installation.Folder());
  Diagnose();
  EXPECT_EQ(Contents(installation.Folder()), without);
}

TEST_F(Diagnosis, IdentityShowsWhatTheProgramStored) {
  ASSERT_EQ(installation.Run("-install").output, InstalledText());
  Diagnose("identity --both");
  const std::string identifier = Value("identifier");
  EXPECT_EQ(identifier.size(), 32U);
  EXPECT_EQ(Value("stored"), identifier + ", equal to the hardware's");
  EXPECT_EQ(Value("collection-1"), identifier);
  EXPECT_EQ(Value("collection-2"), identifier);
  EXPECT_THAT(Value("bios-uuid"), HasSubstr("(Win32_ComputerSystemProduct.UUID)"));
  // Wine finds no way from the system drive to its disk.
  EXPECT_EQ(
      Value("disk-serial"),
      "(none) Win32_PhysicalMedia.SerialNumber, WMI: 00000001 (no object, or no further one)");
}

class DiagnosisBeyondTheCodePage : public Diagnosis {
 protected:
  DiagnosisBeyondTheCodePage() : Diagnosis() {}
};

TEST_F(DiagnosisBeyondTheCodePage, WritesUtf8) {
  const std::wstring folder = installation.Folder().wstring() + L"\\\u5BA2\u6236-\u0416\u00E9";
  fs::remove_all(folder);
  fs::create_directory(folder);
  for (const auto& file : fs::directory_iterator(installation.Folder())) {
    if (file.is_regular_file()) {
      fs::copy_file(file.path(), fs::path(folder) / file.path().filename());
    }
  }
  const std::string expected =
      installation.Folder().string() + "\\\xE5\xAE\xA2\xE6\x88\xB6-\xD0\x96\xC3\xA9";
  for (const std::string arguments : {"status", "status --json"}) {
    const CommandResult result =
        BackgroundProgram(fs::path(folder) / "vorldiag.exe", arguments).Finish();
    EXPECT_EQ(result.exitCode, kExitError);
    std::string output = result.output;
    // JSON doubles backslashes.
    for (std::size_t at = output.find("\\\\"); at != std::string::npos; at = output.find("\\\\")) {
      output.erase(at, 1);
    }
    EXPECT_THAT(output, HasSubstr(expected));
    // Nothing was cut off behind the name.
    EXPECT_THAT(output, HasSubstr(arguments == "status" ? "1 error, " : "\"last-start\""));
  }
}

std::vector<std::string> LinesOf(const std::string& output) {
  std::vector<std::string> lines;
  std::istringstream text(output);
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

// Each command writes several files full; none of them is deleted. The follower is ended with its
// object.
TEST_F(Diagnosis, FollowsTheTraceOverItsFiles) {
  installation.WriteConfiguration("[TRACE]\r\nFileSizeKB=4\r\nFiles=1000\r\n");
  installation.Run("-stop");  // stores the identifier in the same file
  LetRest(installation.ConfigurationFile());
  const std::size_t before = LinesOf(Run("trace").output).size();

  BackgroundProgram follower(installation.Folder() / "vorldiag.exe", "trace --follow");
  ASSERT_TRUE(follower.WaitForOutput("until Ctrl+C."));
  ASSERT_NO_FATAL_FAILURE(InstallAndStart());
  ASSERT_TRUE(follower.WaitForOutput("CNTService::ServiceMain"));
  const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, service.Status().dwProcessId));
  ASSERT_TRUE(process);
  installation.Run("-stop");
  // It goes on writing after it has reported its stop.
  ASSERT_EQ(WaitForSingleObject(process.Get(), INFINITE), WAIT_OBJECT_0);
  installation.Run("-uninstall");

  std::vector<std::string> expected = LinesOf(Run("trace").output);
  expected.erase(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(before));
  ASSERT_TRUE(follower.WaitForOutput(expected.back()));
  std::vector<std::string> lines = LinesOf(follower.Output());
  lines.erase(lines.begin());
  EXPECT_GT(lines.size(), 50U);
  EXPECT_TRUE(fs::exists(installation.Folder() / "logs" / "vorltrace.000003.log"));
  // Of two texts, other than of two lists, what differs is shown.
  EXPECT_EQ(Joined(lines), Joined(expected));
}

TEST_F(Diagnosis, FollowsWithAFilterAndAsJson) {
  BackgroundProgram follower(installation.Folder() / "vorldiag.exe",
                             "trace --follow --json --function parsestandard");
  ASSERT_TRUE(follower.WaitForOutput("until Ctrl+C."));
  installation.Run("-stop");
  ASSERT_TRUE(follower.WaitForOutput("\"text\":\"-stop\""));
  std::vector<std::string> documents = LinesOf(follower.Output());
  documents.erase(documents.begin());
  for (const std::string& document : documents) {
    const json lines = json::parse(document)["lines"];
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["function"], "CNTService::ParseStandardArgs");
  }
}

TEST_F(Diagnosis, TextEndsEveryLineAndNamesTheWorst) {
  const CommandResult result = Run("status");
  EXPECT_EQ(result.exitCode, kExitError);
  EXPECT_THAT(result.output,
              AllOf(StartsWith("Service\r\n  ERROR    Registration              " + name +
                               " is not registered\r\n           -> From an elevated prompt"),
                    HasSubstr("\r\n1 error, 3 warnings.\r\n")));
}

TEST_F(Diagnosis, RefusesWhatItDoesNotKnow) {
  for (const std::string arguments : {"", "nonsense", "status --nonsense", "identity more"}) {
    const CommandResult result = Run(arguments);
    EXPECT_EQ(result.exitCode, kExitNotDone) << arguments;
    EXPECT_THAT(result.output, HasSubstr("--help")) << arguments;
  }
  EXPECT_THAT(Run("nonsense --json").output, StartsWith("There is no command \"nonsense\""));
  EXPECT_EQ(Run("--help").exitCode, 0U);
  EXPECT_THAT(Run("--help").output, AllOf(HasSubstr("status"), HasSubstr("Exit codes: 0 ")));
}

}  // namespace
