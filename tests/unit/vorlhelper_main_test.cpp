// The helper's program on a console, which is played: not every machine that runs tests has one.
#include <gmock/gmock.h>

#include <iterator>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"

// The program's main.
int HelperMain(int argc, char** argv);

namespace {

class HelperOnAConsole : public ::testing::Test {
 protected:
  template <typename... Arguments>
  static int Run(Arguments... arguments) {
    std::string texts[] = {"vorlhelper", arguments...};
    std::vector<char*> argv;
    for (std::string& text : texts) {
      argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    return HelperMain(static_cast<int>(std::size(texts)), argv.data());
  }

  std::wstring m_written;

 private:
  const CallPatch<struct ModeTag, BOOL WINAPI(HANDLE, DWORD*)> m_mode{
      "KERNEL32.dll", "GetConsoleMode", [](HANDLE, DWORD*) { return TRUE; }};
  const CallPatch<struct WriteTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, void*)> m_write{
      "KERNEL32.dll", "WriteConsoleW",
      [this](HANDLE, const void* text, DWORD count, DWORD* written, void*) {
        m_written.append(static_cast<const wchar_t*>(text), count);
        *written = count;
        return TRUE;
      }};
  // Ctrl+C, as soon as the program listens.
  const CallPatch<struct ControlTag, BOOL WINAPI(PHANDLER_ROUTINE, BOOL)> m_control{
      "KERNEL32.dll", "SetConsoleCtrlHandler",
      [](PHANDLER_ROUTINE handler, BOOL isAdded) { return !isAdded || handler(CTRL_C_EVENT); }};
};

TEST_F(HelperOnAConsole, WritesCharactersAndEndsWithCtrlC) {
  const std::string pipe = R"(\\.\pipe\vorltest_console_)" + std::to_string(GetCurrentProcessId());
  EXPECT_EQ(Run("--pipe", pipe), 0);
  EXPECT_EQ(m_written, L"waiting for notifications\r\n");
}

TEST_F(HelperOnAConsole, SaysThereHowItIsUsed) {
  EXPECT_EQ(Run("--count"), 2);
  EXPECT_EQ(m_written, L"usage: vorlhelper [--count N] [--pipe NAME]\r\n");
}

}  // namespace
