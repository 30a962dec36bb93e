// A configuration folder of the test's own, which the fake support library gives out.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "support/handle.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/support/text.h"

constexpr char kIdentifier[] = "0123456789ABCDEF0123456789ABCDEF";

constexpr char kStored[] =
    "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n"
    "clientuniqueid=0123456789ABCDEF0123456789ABCDEF\r\n";

// What the file holds after the identifier `text` was stored.
inline std::string FileWith(const std::string& text) {
  return "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=" + text + "\r\n";
}

class ConfigurationFolder {
 public:
  ConfigurationFolder()
      : m_folder(TestFolder() + L"\\conf " + std::to_wstring(GetCurrentProcessId())) {
    FakeMiscReset();
    CreateDirectoryW(m_folder.c_str(), nullptr);
    StringCchCopyW(FakeMisc()->configDir, 260, m_folder.c_str());
  }
  ~ConfigurationFolder() {
    DeleteFileW(File().c_str());
    RemoveDirectoryW(m_folder.c_str());
  }
  ConfigurationFolder(const ConfigurationFolder&) = delete;
  ConfigurationFolder& operator=(const ConfigurationFolder&) = delete;

  std::wstring File() const { return m_folder + L"\\vorlconf.ini"; }

  // Long ago.
  void Write(const std::string& text) const {
    WriteNow(text);
    MakeOld();
  }
  // Its writer may not be done.
  void WriteNow(const std::string& text) const { Add(text, CREATE_ALWAYS); }
  // In another opening, as a program does that saves piece by piece.
  void AppendNow(const std::string& text) const { Add(text, OPEN_ALWAYS); }

  // Each file has a time of its own, by which Wine knows whether it has read it already.
  void MakeOld() const {
    static ULONGLONG times = 0x01D0000000000000;
    SetWriteTime(File(), times += 10'000'000);
  }

  // The file in the hands of another program.
  FileHandle Hold(DWORD access = GENERIC_READ, DWORD shareMode = 0) const {
    FileHandle file(
        CreateFileW(File().c_str(), access, shareMode, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(file) << GetLastError();
    return file;
  }

  // The whole file; empty when there is none.
  std::string Read() const {
    const FileHandle file(CreateFileW(File().c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                      nullptr));
    if (!file) {
      return {};
    }
    char text[8192];
    DWORD length = 0;
    EXPECT_TRUE(ReadFile(file.Get(), text, sizeof(text), &length, nullptr));
    return {text, length};
  }

 private:
  void Add(const std::string& text, DWORD disposition) const {
    const FileHandle file(
        CreateFileW(File().c_str(), FILE_APPEND_DATA, 0, nullptr, disposition, 0, nullptr));
    DWORD written = 0;
    EXPECT_TRUE(
        WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
  }

  std::wstring m_folder;
};

// The pauses between two attempts to read the file, which take no time here.
class Pauses {
 public:
  // `atPause` gets the number of the pause, from 1 on.
  explicit Pauses(std::function<void(unsigned)> atPause = [](unsigned) {})
      : m_atPause(std::move(atPause)) {}

  unsigned count = 0;
  DWORD milliseconds = 0;

 private:
  std::function<void(unsigned)> m_atPause;
  CallPatch<struct PauseTag, void(DWORD)> m_patch{"KERNEL32.dll", "Sleep", [this](DWORD pause) {
                                                    milliseconds += pause;
                                                    m_atPause(++count);
                                                  }};
};
