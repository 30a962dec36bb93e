// The command words of the service base class.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <ostream>
#include <string>
#include <vector>

#include "service/ntservc.h"
#include "support/windows_api.h"
#include "tests/support/console_capture.h"
#include "tests/support/fake_helper_pipe.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/journal.h"
#include "tests/unit/operations.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Values;

namespace {

class CommandLineService : public CNTService {
 public:
  using CNTService::CNTService;
  using CNTService::m_bNotifyServer;
};

std::string Helper(int action) {
  return "helper pipe: code 15, action " + std::to_string(action) + ", flag 0, \"Sample\"";
}

constexpr char kNotifyFlagChanged[] = "m_bNotifyServer changed";

// The steps of the operations that the command line calls, by what is particular to each.
constexpr char kFound[] = "OpenServiceA(manager1, \"Sample\", 0x1) = service1";
constexpr char kNotFound[] = "OpenServiceA(manager1, \"Sample\", 0x1) = error 1060";
constexpr char kCreate[] =
    "CreateServiceW(manager2, \"Sample\", \"Sample\", 0xF01FF, 0x110, 2, 1, "
    "\"C:\\agent\\vorlsrvc.exe\", null, null, null, null, null) = ";

std::vector<std::string> InstallSteps() {
  return {kParse.Info("Entry"),
          kParse.Info("-install"),
          kNotFound,
          kParse.Info("Service not installed hence Insatalling client agent"),
          std::string(kCreate) + "service1",
          kParse.Info("Service installed successfully"),
          Printed("Sample is installed successfully\n"),
          kParse.Info("Exit")};
}

class CommandLine : public ::testing::Test {
 protected:
  // ParseStandardArgs with these arguments after the program's name; keeps what was printed, which
  // stands in the journal as well, as a change of the flag m_bNotifyServer does.
  BOOL ParseArguments(CNTService& service, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "vorlsrvc.exe");
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    m_journal.Clear();
    m_printed.clear();
    ConsoleCapture capture;
    m_journal.Watch([&, notifies = m_service.m_bNotifyServer]() mutable -> std::string {
      if (notifies != m_service.m_bNotifyServer) {
        notifies = m_service.m_bNotifyServer;
        return kNotifyFlagChanged;
      }
      const std::string text = capture.Take();
      m_printed += text;
      return text.empty() ? text : Printed(text);
    });
    const BOOL result = service.ParseStandardArgs(static_cast<int>(arguments.size()), argv.data());
    m_journal.Watch({});
    return result;
  }
  BOOL ParseArguments(const std::vector<std::string>& arguments) {
    return ParseArguments(m_service, arguments);
  }

  // The parser's own lines and, between them, what it prints, the change of its flag and the calls
  // that tell the operations apart.
  std::vector<std::string> Steps() const {
    static constexpr std::array<const char*, 9> kLeftOut = {
        "OpenSCManagerA(null, null, 0xF003F) = m",
        "CloseServiceHandle(",
        "QueryServiceStatus(",
        "ChangeServiceConfig2W(",
        "GetModuleFileNameW(",
        "RegCreateKeyA(",
        "RegSetValueEx",
        "RegCloseKey(",
        "level ",
    };
    std::vector<std::string> steps = m_journal.Entries();
    std::erase_if(steps, [](const std::string& step) {
      return step.find(" CNTService::ParseStandardArgs ") == std::string::npos &&
             std::any_of(kLeftOut.begin(), kLeftOut.end(),
                         [&](const char* start) { return step.starts_with(start); });
    });
    return steps;
  }

  void NotInstalled() { m_manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST); }

  Journal m_journal;
  FakeServiceManager m_manager{m_journal};
  FakeHelperPipe m_helper{m_journal};
  CommandLineService m_service{"Sample"};
  std::string m_printed;
};

// ---- No command ----

TEST_F(CommandLine, WithoutArgumentsTheProcessIsToRunAsTheService) {
  EXPECT_EQ(ParseArguments({}), 0);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("No Arguments hence returning"),
                          kParse.Info("Exit")));
}

TEST_F(CommandLine, WithoutAProgramNameTheProcessIsToRunAsTheService) {
  char* argv[] = {nullptr};
  m_journal.Clear();
  EXPECT_EQ(m_service.ParseStandardArgs(0, argv), 0);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("No Arguments hence returning"),
                          kParse.Info("Exit")));
}

class UnknownOption : public CommandLine, public ::testing::WithParamInterface<const char*> {};

TEST_P(UnknownOption, FallsThroughToTheDispatcher) {
  EXPECT_EQ(ParseArguments({GetParam(), "-install"}), 0);
  EXPECT_THAT(m_journal.Entries(), ElementsAre(kParse.Info("Entry"), kParse.Info("Exit")));
}

INSTANTIATE_TEST_SUITE_P(, UnknownOption,
                         Values("install", "/install", "-install2", "--install", "-instal", "", "-",
                                "- install", "-install ", "-uninstal", "-stopmanua", "-run"));

// ---- -install ----

TEST_F(CommandLine, InstallInstallsTheService) {
  NotInstalled();
  EXPECT_EQ(ParseArguments({"-install"}), 1);
  EXPECT_THAT(Steps(), ElementsAreArray(InstallSteps()));
  EXPECT_EQ(m_service.ExitCode(), 0U);
}

TEST_F(CommandLine, InstallOnAnInstalledServiceSaysSoAndDoesNotTouchTheConfiguration) {
  EXPECT_EQ(ParseArguments({"-install"}), 1);
  EXPECT_THAT(Steps(), ElementsAre(kParse.Info("Entry"), kParse.Info("-install"), kFound,
                                   kParse.Info("Service is Already installed"),
                                   Printed("Sample is already installed\n"), kParse.Info("Exit")));
  EXPECT_THAT(m_journal.Calls(), Not(Contains(HasSubstr("ChangeServiceConfig2W"))));
  EXPECT_THAT(m_journal.Calls(), Not(Contains(HasSubstr("Reg"))));
}

TEST_F(CommandLine, FailedInstallPrintsAndTracesTheError) {
  NotInstalled();
  m_manager.Fail("CreateServiceW", ERROR_SERVICE_MARKED_FOR_DELETE);
  EXPECT_EQ(ParseArguments({"-install"}), 1);
  EXPECT_THAT(Steps(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("-install"), kNotFound,
                          kParse.Info("Service not installed hence Insatalling client agent"),
                          std::string(kCreate) + "error 1072",
                          Printed("Unable to install Sample. (Error 1072)\n"),
                          kParse.Info("Unable to install Sample. (Error 1072)\n")));
  EXPECT_EQ(m_service.ExitCode(), 0U);
}

TEST_F(CommandLine, FailedInstallPrintsTheLastErrorOfAFailedEventLogKey) {
  NotInstalled();
  m_manager.FailCreateKey(ERROR_ACCESS_DENIED, /*lastError=*/ERROR_CHILD_MUST_BE_VOLATILE);
  EXPECT_EQ(ParseArguments({"-install"}), 1);
  EXPECT_EQ(m_printed, "Unable to install Sample. (Error 1021)\n");
}

TEST_F(CommandLine, FailedInstallPrintsTheErrorAsASignedNumber) {
  NotInstalled();
  m_manager.Fail("CreateServiceW", 0x80070005);
  EXPECT_EQ(ParseArguments({"-install"}), 1);
  EXPECT_EQ(m_printed, "Unable to install Sample. (Error -2147024891)\n");
}

TEST_F(CommandLine, FailedInstallOfTheLongestNameIsPrintedAndTracedWhole) {
  const std::string name(63, 'n');
  CNTService service(name.c_str());
  m_manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  m_manager.Fail("CreateServiceW", 0x80070005);
  EXPECT_EQ(ParseArguments(service, {"-install"}), 1);
  const std::string text = "Unable to install " + name + ". (Error -2147024891)\n";
  EXPECT_EQ(m_printed, text);
  EXPECT_EQ(m_journal.Traces().back(), kParse.Info(text));
}

TEST_F(CommandLine, PercentSignInTheNameIsInterpretedAgainOnTheConsoleOfAFailedInstallOnly) {
  CNTService service("50%% off");
  m_manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_EQ(ParseArguments(service, {"-install"}), 1);
  EXPECT_EQ(m_printed, "Unable to install 50% off. (Error 5)\n");
  EXPECT_EQ(m_journal.Traces().back(), kParse.Info("Unable to install 50%% off. (Error 5)\n"));
}

TEST_F(CommandLine, PercentSignInTheNameStandsForItselfInAllOtherTexts) {
  CNTService service("50%% off");
  ParseArguments(service, {"-install"});
  EXPECT_EQ(m_printed, "50%% off is already installed\n");
  m_manager.Fail("DeleteService", ERROR_ACCESS_DENIED);
  ParseArguments(service, {"-uninstall"});
  EXPECT_EQ(m_printed, "Could not remove 50%% off. Error 5\n");
  NotInstalled();
  ParseArguments(service, {"-install"});
  EXPECT_EQ(m_printed, "50%% off is installed successfully\n");
  ParseArguments(service, {"-uninstall"});
  EXPECT_EQ(m_printed, "50%% off is not installed\n");
}

// ---- -start and -reset ----

class StartCommand : public CommandLine, public ::testing::WithParamInterface<const char*> {};

TEST_P(StartCommand, StartsTheServiceAndLogsStart) {
  EXPECT_EQ(ParseArguments({GetParam()}), 1);
  EXPECT_THAT(Steps(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("-start"),
                          kParse.Info("Before calling StartServiceByName"),
                          "OpenServiceA(manager1, \"Sample\", 0x14) = service1",
                          "StartServiceA(service1, 0, null)",
                          kParse.Info("After calling StartServiceByName"), kParse.Info("Exit")));
}

TEST_P(StartCommand, IgnoresAFailedStart) {
  m_manager.Fail("StartServiceA", ERROR_SERVICE_ALREADY_RUNNING);
  EXPECT_EQ(ParseArguments({GetParam()}), 1);
  EXPECT_THAT(Steps(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("-start"),
                          kParse.Info("Before calling StartServiceByName"),
                          "OpenServiceA(manager1, \"Sample\", 0x14) = service1",
                          "StartServiceA(service1, 0, null) = error 1056",
                          kParse.Info("After calling StartServiceByName"), kParse.Info("Exit")));
}

INSTANTIATE_TEST_SUITE_P(, StartCommand, Values("-start", "-reset", "-START", "-Reset"));

// ---- -stop and -stopmanual ----

struct StopWord {
  const char* word;
  const char* control;
  bool notifiesServer;

  friend std::ostream& operator<<(std::ostream& out, const StopWord& test) {
    return out << test.word;
  }
};

class StopCommand : public CommandLine, public ::testing::WithParamInterface<StopWord> {
 protected:
  std::vector<std::string> StopSteps(const std::string& controlResult,
                                     const std::vector<std::string>& after) const {
    std::vector<std::string> steps = {kParse.Info("Entry"), kParse.Info(GetParam().word), kFound,
                                      Helper(1), kParse.Info("Before calling StopServiceByName")};
    if (GetParam().notifiesServer) {
      steps.push_back(kNotifyFlagChanged);
    }
    steps.insert(steps.end(), {"OpenServiceA(manager2, \"Sample\", 0xF01FF) = service2",
                               std::string("ControlService(service2, ") + GetParam().control + ")" +
                                   controlResult});
    steps.insert(steps.end(), after.begin(), after.end());
    steps.insert(steps.end(), {kParse.Info("After calling StopServiceByName returning"), Helper(2),
                               kParse.Info("Exit")});
    return steps;
  }
};

TEST_P(StopCommand, StopsTheServiceBetweenItsTwoNotifications) {
  m_manager.AnswerStatus({{SERVICE_STOPPED}});
  EXPECT_EQ(ParseArguments({GetParam().word}), 1);
  EXPECT_THAT(Steps(), ElementsAreArray(StopSteps("", {})));
  EXPECT_EQ(m_service.m_bNotifyServer, GetParam().notifiesServer);
}

TEST_P(StopCommand, NotifiesTheHelperAfterAFailedStopToo) {
  m_manager.Fail("ControlService", ERROR_SERVICE_NOT_ACTIVE);
  EXPECT_EQ(ParseArguments({GetParam().word}), 1);
  EXPECT_THAT(Steps(),
              ElementsAreArray(StopSteps(" = error 1062", {kParse.Info("Stop service Failed")})));
  EXPECT_EQ(m_service.m_bNotifyServer, GetParam().notifiesServer);
  EXPECT_EQ(m_service.ExitCode(), 0U);
}

TEST_P(StopCommand, GoesOnWithoutAHelper) {
  m_manager.AnswerStatus({{SERVICE_STOPPED}});
  m_helper.Refuse(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ParseArguments({GetParam().word}), 1);
  std::vector<std::string> expected = StopSteps("", {});
  std::replace(expected.begin(), expected.end(), Helper(1), std::string("helper pipe: error 2"));
  std::replace(expected.begin(), expected.end(), Helper(2), std::string("helper pipe: error 2"));
  EXPECT_THAT(Steps(), ElementsAreArray(expected));
}

TEST_P(StopCommand, IsASilentNoOperationWhenTheServiceIsNotInstalled) {
  NotInstalled();
  EXPECT_EQ(ParseArguments({GetParam().word}), 1);
  EXPECT_THAT(Steps(), ElementsAre(kParse.Info("Entry"), kParse.Info(GetParam().word), kNotFound));
  EXPECT_FALSE(m_service.m_bNotifyServer);
}

INSTANTIATE_TEST_SUITE_P(, StopCommand,
                         Values(StopWord{"-stop", "1", false},
                                StopWord{"-stopmanual", "140", true}),
                         [](const auto& test) { return std::string(test.param.word + 1); });

// ---- -restart ----

TEST_F(CommandLine, RestartStopsWaitsAndStarts) {
  m_manager.AnswerStatus({{SERVICE_STOPPED}, {SERVICE_RUNNING}});
  EXPECT_EQ(ParseArguments({"-restart"}), 1);
  EXPECT_THAT(
      Steps(),
      ElementsAre(kParse.Info("Entry"), kParse.Info("-restart"), kFound, Helper(1),
                  kParse.Info("Before calling StopServiceByName"),
                  "OpenServiceA(manager2, \"Sample\", 0xF01FF) = service2",
                  "ControlService(service2, 1)", kParse.Info("After calling StopServiceByName"),
                  Helper(2), "Sleep(100)", kParse.Info("Before calling StartServiceByName"),
                  "OpenServiceA(manager3, \"Sample\", 0x14) = service3",
                  "StartServiceA(service3, 0, null)",
                  kParse.Info("After calling StartServiceByName"), kParse.Info("Exit")));
  EXPECT_FALSE(m_service.m_bNotifyServer);
}

TEST_F(CommandLine, RestartGoesOnAfterAFailedStopAndAFailedStart) {
  m_manager.Fail("ControlService", ERROR_SERVICE_NOT_ACTIVE);
  m_manager.Fail("StartServiceA", ERROR_ACCESS_DENIED);
  EXPECT_EQ(ParseArguments({"-restart"}), 1);
  EXPECT_THAT(
      Steps(),
      ElementsAre(kParse.Info("Entry"), kParse.Info("-restart"), kFound, Helper(1),
                  kParse.Info("Before calling StopServiceByName"),
                  "OpenServiceA(manager2, \"Sample\", 0xF01FF) = service2",
                  "ControlService(service2, 1) = error 1062", kParse.Info("Stop service Failed"),
                  kParse.Info("After calling StopServiceByName"), Helper(2), "Sleep(100)",
                  kParse.Info("Before calling StartServiceByName"),
                  "OpenServiceA(manager3, \"Sample\", 0x14) = service3",
                  "StartServiceA(service3, 0, null) = error 5",
                  kParse.Info("StartServiceByName Failed"),
                  kParse.Info("After calling StartServiceByName"), kParse.Info("Exit")));
}

TEST_F(CommandLine, RestartOfAServiceThatIsNotInstalledStillTriesToStartIt) {
  NotInstalled();
  EXPECT_EQ(ParseArguments({"-restart"}), 1);
  EXPECT_THAT(Steps(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("-restart"), kNotFound, "Sleep(100)",
                          kParse.Info("Before calling StartServiceByName"),
                          "OpenServiceA(manager2, \"Sample\", 0x14) = error 1060",
                          kParse.Info("StartServiceByName Failed"),
                          kParse.Info("After calling StartServiceByName"), kParse.Info("Exit")));
}

// ---- -uninstall ----

TEST_F(CommandLine, UninstallRemovesTheServiceAndPrintsNothing) {
  EXPECT_EQ(ParseArguments({"-uninstall"}), 1);
  EXPECT_THAT(Steps(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("-uninstall"), kFound, Helper(5),
                          "OpenServiceA(manager2, \"Sample\", 0x10000) = service2",
                          "DeleteService(service2)", kParse.Info("Uninstall Success"),
                          kParse.Info("Exit")));
}

TEST_F(CommandLine, UninstallOfAServiceThatIsNotInstalledSaysSo) {
  NotInstalled();
  EXPECT_EQ(ParseArguments({"-uninstall"}), 1);
  EXPECT_THAT(
      Steps(),
      ElementsAre(kParse.Info("Entry"), kParse.Info("-uninstall"), kNotFound,
                  Printed("Sample is not installed\n"),
                  kParse.Info("Service Not Found :: Unable to uninstall the service bcoz")));
}

TEST_F(CommandLine, FailedUninstallPrintsTheErrorOfTheDeletion) {
  m_manager.Fail("DeleteService", ERROR_SERVICE_MARKED_FOR_DELETE);
  EXPECT_EQ(ParseArguments({"-uninstall"}), 1);
  EXPECT_THAT(Steps(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("-uninstall"), kFound, Helper(5),
                          "OpenServiceA(manager2, \"Sample\", 0x10000) = service2",
                          "DeleteService(service2) = error 1072", kParse.Info("Uninstall Failed"),
                          Printed("Could not remove Sample. Error 1072\n")));
  EXPECT_EQ(m_service.ExitCode(), 0U);
}

TEST_F(CommandLine, FailedUninstallPrintsTheErrorOfOpeningTheServiceForDeletion) {
  m_manager.Fail("OpenServiceA", ERROR_ACCESS_DENIED, /*call=*/2);
  EXPECT_EQ(ParseArguments({"-uninstall"}), 1);
  EXPECT_EQ(m_printed, "Could not remove Sample. Error 5\n");
}

TEST_F(CommandLine, FailedUninstallPrintsTheErrorAsASignedNumber) {
  m_manager.Fail("DeleteService", 0x80070005);
  EXPECT_EQ(ParseArguments({"-uninstall"}), 1);
  EXPECT_EQ(m_printed, "Could not remove Sample. Error -2147024891\n");
}

// ---- Words and further arguments ----

struct Spelling {
  const char* word;
  const char* line;

  friend std::ostream& operator<<(std::ostream& out, const Spelling& test) {
    return out << test.word;
  }
};

class CommandWord : public CommandLine, public ::testing::WithParamInterface<Spelling> {};

TEST_P(CommandWord, IsTakenInAnyCase) {
  m_manager.AnswerStatus({{SERVICE_STOPPED}});
  EXPECT_EQ(ParseArguments({GetParam().word}), 1);
  EXPECT_EQ(m_journal.Entries()[1], kParse.Info(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(, CommandWord,
                         Values(Spelling{"-Install", "-install"}, Spelling{"-INSTALL", "-install"},
                                Spelling{"-install", "-install"}, Spelling{"-Start", "-start"},
                                Spelling{"-RESET", "-start"}, Spelling{"-sToP", "-stop"},
                                Spelling{"-StopManual", "-stopmanual"},
                                Spelling{"-RESTART", "-restart"},
                                Spelling{"-UnInstall", "-uninstall"}));

TEST_F(CommandLine, ASecondArgumentNeverChangesWhatHappens) {
  NotInstalled();
  EXPECT_EQ(ParseArguments({"-install", "-uninstall", "further"}), 1);
  EXPECT_THAT(Steps(), ElementsAreArray(InstallSteps()));
}

// ---- Without the right to open the service control manager ----

class WithoutRights : public CommandLine {
 protected:
  WithoutRights() { m_manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED); }

  static constexpr char kDenied[] = "OpenSCManagerA(null, null, 0xF003F) = error 5";
};

TEST_F(WithoutRights, InstallTriesToInstallAndPrintsItsError) {
  EXPECT_EQ(ParseArguments({"-install"}), 1);
  EXPECT_THAT(Steps(),
              ElementsAre(kParse.Info("Entry"), kParse.Info("-install"), kDenied,
                          kParse.Info("Service not installed hence Insatalling client agent"),
                          kDenied, Printed("Unable to install Sample. (Error 5)\n"),
                          kParse.Info("Unable to install Sample. (Error 5)\n")));
}

TEST_F(WithoutRights, UninstallSaysThatTheServiceIsNotInstalled) {
  EXPECT_EQ(ParseArguments({"-uninstall"}), 1);
  EXPECT_THAT(
      Steps(),
      ElementsAre(kParse.Info("Entry"), kParse.Info("-uninstall"), kDenied,
                  Printed("Sample is not installed\n"),
                  kParse.Info("Service Not Found :: Unable to uninstall the service bcoz")));
}

TEST_F(WithoutRights, StopAndStopManualEndSilently) {
  EXPECT_EQ(ParseArguments({"-stop"}), 1);
  EXPECT_THAT(Steps(), ElementsAre(kParse.Info("Entry"), kParse.Info("-stop"), kDenied));
  EXPECT_EQ(ParseArguments({"-stopmanual"}), 1);
  EXPECT_THAT(Steps(), ElementsAre(kParse.Info("Entry"), kParse.Info("-stopmanual"), kDenied));
}

}  // namespace
