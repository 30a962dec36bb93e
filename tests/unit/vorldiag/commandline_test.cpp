// What the commands say that an end-to-end test cannot make them say.
#include "tools/vorldiag/commandline.h"

#include <gmock/gmock.h>

#include "tests/support/fake_machine.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class CommandLineOfTheTool : public ::testing::Test {
 protected:
  // Runs it in a folder in which nothing is installed.
  int Run(const std::vector<std::string>& arguments) {
    int exitCode = -1;
    {
      const FileHandle out = Writable("out");
      const FileHandle err = Writable("err");
      const CallPatch<struct HandleTag, HANDLE WINAPI(DWORD)> handle(
          "kernel32.dll", "GetStdHandle",
          [&](DWORD which) { return which == STD_OUTPUT_HANDLE ? out.Get() : err.Get(); });
      const CallPatch<struct ModuleTag, DWORD WINAPI(HMODULE, wchar_t*, DWORD)> module(
          "KERNEL32.dll", "GetModuleFileNameW", [&](HMODULE, wchar_t* path, DWORD) {
            const std::wstring own = installation.Path().wstring() + L"\\vorldiag.exe";
            path[own.copy(path, own.size())] = L'\0';
            return static_cast<DWORD>(own.size());
          });
      Output output(STD_OUTPUT_HANDLE);
      Output problems(STD_ERROR_HANDLE);
      exitCode = RunCommandLine(arguments, output, problems);
    }
    printed = Text("out");
    errors = Text("err");
    return exitCode;
  }

  FileHandle Writable(const std::string& name) const {
    return FileHandle(CreateFileA(folder.File(name).c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                  nullptr, CREATE_ALWAYS, 0, nullptr));
  }
  std::string Text(const std::string& name) const {
    const ByteVector bytes = ReadBytes(folder.File(name));
    return {bytes.begin(), bytes.end()};
  }

  const TempFolder folder;
  const TempFolder installation;
  Machine machine;
  std::string printed;
  std::string errors;
};

TEST_F(CommandLineOfTheTool, SaysWhatABundleLeavesOut) {
  std::filesystem::create_directories(installation.Path() / "logs" / "vorltrace.log");
  const std::string file = folder.File("ticket.zip");
  EXPECT_EQ(Run({"bundle", file}), 0);
  EXPECT_THAT(printed, StartsWith("Left out: conf/vorlconf.ini: error "));
  EXPECT_THAT(printed, HasSubstr("\r\nLeft out: logs/vorltrace.log: error 5"));
  EXPECT_THAT(printed, EndsWith(" is written, " + std::to_string(std::filesystem::file_size(file)) +
                                " bytes.\r\n"));
}

TEST_F(CommandLineOfTheTool, EndsWithTheWorstThatWasFound) {
  machine.SetEverything();
  const std::string cache = folder.Path().string();
  const std::filesystem::path before = std::filesystem::current_path();
  EXPECT_EQ(Run({"cache", "check", "--folder", cache}), 2);
  EXPECT_EQ(Run({"cache", "write", "--folder", cache}), 0);
  EXPECT_EQ(Run({"cache", "check", "--folder", cache}), 0);
  std::filesystem::current_path(before);
}

TEST_F(CommandLineOfTheTool, SaysWhyItCannotBeCarriedOut) {
  EXPECT_EQ(Run({}), 3);
  EXPECT_THAT(errors, HasSubstr("A subcommand is required"));
  EXPECT_EQ(Run({"none"}), 3);
  EXPECT_THAT(errors, StartsWith("There is no command \"none\""));
  EXPECT_EQ(Run({"trace", "--level", "loud"}), 3);
  EXPECT_THAT(errors, StartsWith("--level: error, info or verbose, not loud"));
  EXPECT_EQ(Run({"trace", "--start", "--stop"}), 3);
  EXPECT_EQ(Run({"report", (folder.Path() / "none" / "x.html").string()}), 3);
  EXPECT_THAT(errors, AllOf(StartsWith("vorldiag: "), HasSubstr(" cannot be written: error 3")));
  EXPECT_EQ(Run({"--help"}), 0);
  EXPECT_THAT(printed, HasSubstr("Exit codes: 0 everything is as it should be"));
  EXPECT_EQ(errors, "");
}

TEST_F(CommandLineOfTheTool, WritesTheCallsThatAreWanted) {
  std::filesystem::create_directory(installation.Path() / "logs");
  std::ofstream(installation.File("logs/vorltrace.log"))
      << "2026-03-09 07:05:02.041 +01:00 INFO 47 11 vorlsrvc.exe f x.cpp:1 wanted\n"
         "2026-03-09 07:05:02.041 +01:00 INFO 48 11 vorlsrvc.exe f x.cpp:1 other\n";
  EXPECT_EQ(Run({"trace", "--process", "47", "--perfetto", folder.File("calls.json")}), 0);
  EXPECT_THAT(Text("calls.json"), HasSubstr("wanted"));
  EXPECT_THAT(Text("calls.json"), ::testing::Not(HasSubstr("other")));
}

}  // namespace
