// Where the output of the diagnosis tool goes: a real console, nobody, a pipe whose reader has
// gone.
#include "tests/e2e/diagnosis_fixture.h"
#include "tests/support/files.h"
#include "tests/support/start_process.h"

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

const std::vector<std::string> kCommands{"--help",
                                         "--version",
                                         "status",
                                         "status --json",
                                         "identity --both",
                                         "cache check",
                                         "trace",
                                         "trace --json",
                                         "trace --start",
                                         "trace --perfetto calls.json",
                                         "report page.html",
                                         "bundle ticket.zip --mask --json"};

class DiagnosisOutput : public Diagnosis {
 protected:
  void SetUp() override {
    Diagnosis::SetUp();
    ASSERT_NO_FATAL_FAILURE(InstallAndStart());
    ASSERT_TRUE(installation.WaitForText("CAcAsSvc::Run", "Before Calling WaitForSingleObject"));
    // Where the files are written that commands name without a folder.
    fs::current_path(installation.Folder());
  }
  void TearDown() override {
    fs::current_path(installation.Folder().parent_path());
    Diagnosis::TearDown();
  }

  std::wstring CommandLine(const std::string& arguments) const {
    return L"\"" + (installation.Folder() / "vorldiag.exe").wstring() + L"\" " +
           std::wstring(arguments.begin(), arguments.end());
  }

  static DWORD EndOf(const StartedProcess& started) {
    DWORD exitCode = STILL_ACTIVE;
    WaitForSingleObject(started.process.Get(), INFINITE);
    GetExitCodeProcess(started.process.Get(), &exitCode);
    return exitCode;
  }
};

struct Pipe {
  FileHandle read;
  FileHandle write;

  Pipe() {
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    EXPECT_TRUE(CreatePipe(read.Receive(), write.Receive(), &inheritable, 0));
    SetHandleInformation(read.Get(), HANDLE_FLAG_INHERIT, 0);
  }
};

// As services and scheduled tasks are started.
TEST_F(DiagnosisOutput, IsNotNeeded) {
  for (const std::string& command : kCommands) {
    SCOPED_TRACE(command);
    const DWORD expected = Run(command).exitCode;
    EXPECT_LT(expected, kExitNotDone);
    for (const char* file : {"calls.json", "page.html", "ticket.zip"}) {
      fs::remove(file);
    }
    EXPECT_EQ(
        EndOf(StartProcess(CommandLine(command), {.flags = DETACHED_PROCESS, .hasOutput = false})),
        expected);
    for (const std::string written : {"calls.json", "page.html", "ticket.zip"}) {
      EXPECT_EQ(fs::exists(written), command.find(written) != std::string::npos) << written;
    }
  }
  const StartedProcess follower =
      StartProcess(CommandLine("trace --follow"), {.flags = DETACHED_PROCESS, .hasOutput = false});
  // Nothing but its end could be seen of it.
  EXPECT_EQ(WaitForSingleObject(follower.process.Get(), 1000), DWORD{WAIT_TIMEOUT});
  TerminateProcess(follower.process.Get(), 0);
}

TEST_F(DiagnosisOutput, ThatNobodyTakesEndsTheCommandWithoutAWord) {
  for (const std::string& command : kCommands) {
    SCOPED_TRACE(command);
    Pipe output;
    Pipe errors;
    output.read.Reset();
    const StartedProcess started = StartProcess(
        CommandLine(command), {.output = output.write.Get(), .errors = errors.write.Get()});
    EXPECT_EQ(EndOf(started), kExitNotDone);
    DWORD size = 0;
    EXPECT_TRUE(PeekNamedPipe(errors.read.Get(), nullptr, 0, nullptr, &size, nullptr));
    EXPECT_EQ(size, 0U);
  }
}

// Who followed has closed the window, and no line comes that could not be written.
TEST_F(DiagnosisOutput, OfAFollowerIsNotKeptUpForNobody) {
  Pipe output;
  Pipe errors;
  const StartedProcess started = StartProcess(
      CommandLine("trace --follow"), {.output = output.write.Get(), .errors = errors.write.Get()});
  output.write.Reset();
  char text[100];
  DWORD read = 0;
  ASSERT_TRUE(ReadFile(errors.read.Get(), text, sizeof(text), &read, nullptr));
  output.read.Reset();
  EXPECT_EQ(EndOf(started), kExitNotDone);
}

// What stands on the console of another program.
class ConsoleOf {
 public:
  explicit ConsoleOf(const StartedProcess& program) : m_process(program.process.Get()) {
    FreeConsole();
    // The program has its console when it has got so far as to use it.
    while (!AttachConsole(program.id) && WaitForSingleObject(m_process, 5) == WAIT_TIMEOUT) {
    }
    m_screen.Reset(CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                               nullptr));
  }
  ~ConsoleOf() { FreeConsole(); }
  ConsoleOf(const ConsoleOf&) = delete;
  ConsoleOf& operator=(const ConsoleOf&) = delete;

  // Of the line that begins with `text`; waits for it. -1 when the program ends first.
  int ColourOf(const std::wstring& text) const {
    for (;;) {
      const bool hasEnded = WaitForSingleObject(m_process, 5) == WAIT_OBJECT_0;
      CONSOLE_SCREEN_BUFFER_INFO info{};
      GetConsoleScreenBufferInfo(m_screen.Get(), &info);
      for (SHORT row = 0; row <= info.dwCursorPosition.Y; ++row) {
        std::wstring line(text.size(), L'\0');
        DWORD read = 0;
        WORD colour = 0;
        if (ReadConsoleOutputCharacterW(m_screen.Get(), line.data(),
                                        static_cast<DWORD>(line.size()), {0, row}, &read) &&
            line == text &&
            ReadConsoleOutputAttribute(m_screen.Get(), &colour, 1, {0, row}, &read)) {
          return colour;
        }
      }
      if (hasEnded) {
        return -1;
      }
    }
  }

 private:
  HANDLE m_process;
  FileHandle m_screen;
};

void PressCtrlC() {
  SetConsoleCtrlHandler(nullptr, TRUE);
  EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0));
}

// A console without a window: Wine has no display for one here.
TEST_F(DiagnosisOutput, OnARealConsoleIsColouredUntilCtrlC) {
  installation.Run("-stop");
  ASSERT_TRUE(service.WaitForState(SERVICE_STOPPED));
  const StartedProcess started =
      StartProcess(CommandLine("trace --follow"), {.flags = CREATE_NO_WINDOW});
  const ConsoleOf console(started);
  constexpr int plain = FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE;
  EXPECT_EQ(console.ColourOf(L"Following "), plain);
  const std::string head = "2030-01-01 00:00:00.000 +00:00 ";
  std::ofstream(installation.Folder() / "logs" / "vorltrace.log", std::ios::binary | std::ios::app)
      << head << "INFO 1 1 a.exe F x.cpp:1 one\r\n"
      << head << "ERROR 1 1 a.exe F x.cpp:1 \xD0\x96\r\n"
      << head << "VERBOSE 1 1 a.exe F x.cpp:1 three\r\n";
  const std::wstring wide(head.begin(), head.end());
  EXPECT_EQ(console.ColourOf(wide + L"INFO 1 1 a.exe F x.cpp:1 one"), plain);
  EXPECT_EQ(console.ColourOf(wide + L"ERROR 1 1 a.exe F x.cpp:1 \u0416"),
            FOREGROUND_RED | FOREGROUND_INTENSITY);
  EXPECT_EQ(console.ColourOf(wide + L"VERBOSE 1 1 a.exe F x.cpp:1 three"), FOREGROUND_INTENSITY);
  PressCtrlC();
  EXPECT_EQ(EndOf(started), 0U);
}

// The longest path that Windows takes without further ado has 259 characters.
TEST_F(DiagnosisOutput, GoesIntoFilesWithLongAndForeignNames) {
  const TempFolder temp;
  // Of no more bytes than Linux takes.
  const std::wstring folder = temp.Path().wstring() + L"\\" + std::wstring(100, L'\u0416') + L"\\" +
                              std::wstring(100, L'\u00E9');
  const std::wstring path = folder + L"\\" + std::wstring(60, L'\u5BA2');
  const fs::path anyLength = L"\\\\?\\" + path;
  fs::create_directories(anyLength.parent_path());
  for (const std::wstring command : {L"report", L"bundle", L"trace --perfetto"}) {
    EXPECT_EQ(EndOf(StartProcess(CommandLine("") + command + L" \"" + path + L"\"",
                                 {.flags = DETACHED_PROCESS, .hasOutput = false})),
              0U);
    EXPECT_GT(fs::file_size(anyLength), 100U);
    fs::remove(anyLength);
  }
  // The compiler's own removal of whole trees does not go that deep.
  fs::remove(anyLength.parent_path());
  fs::remove(anyLength.parent_path().parent_path());

  const CommandResult result = Run("report " + std::string(300, 'x'));
  EXPECT_EQ(result.exitCode, kExitNotDone);
  EXPECT_THAT(result.output,
              AllOf(StartsWith("vorldiag: xxx"), HasSubstr("xxx cannot be written: error ")));
}

}  // namespace
