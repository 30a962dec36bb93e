#include "app/vorlsrvc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/windows_api.h"
#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/console_capture.h"
#include "tests/support/fake_helper_pipe.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/fake_wmi.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"
#include "tests/support/library_calls.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

// The program's main, under the name that the tests' build gives it.
int VorlsrvcMain(int argc, char** argv);

namespace {

constexpr char kSource[] = "app/vorlsrvc.cpp";

constexpr char kIdentifier[] = "0123456789ABCDEF0123456789ABCDEF";
// Of a machine that has nothing but a BIOS UUID; the digest is md5sum's.
constexpr wchar_t kBiosUuid[] = L"4C4C4544-0035-3010-8048-B4C04F4B3732";
constexpr char kIdentifierOfBiosUuid[] = "C35B15042D89CBEA48C4CD7FBC0C11AA";

// A configuration folder of the test's own.
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

  void Write(const std::string& text) const {
    const HANDLE file =
        CreateFileW(File().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
    CloseHandle(file);
  }

  // The whole file; empty when there is none.
  std::string Read() const {
    const HANDLE file =
        CreateFileW(File().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      return {};
    }
    char text[4096];
    DWORD length = 0;
    EXPECT_TRUE(ReadFile(file, text, sizeof(text), &length, nullptr));
    CloseHandle(file);
    return {text, length};
  }

 private:
  std::wstring m_folder;
};

constexpr char kStored[] =
    "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n"
    "clientuniqueid=0123456789ABCDEF0123456789ABCDEF\r\n";

// What the file holds after the identifier `text` was stored.
std::string FileWith(const std::string& text) {
  return "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=" + text + "\r\n";
}

class ClientUUID : public ::testing::Test {
 protected:
  const ConfigurationFolder configuration;
  const TraceRecorder recorder;
};

using IsClientUUIDPresentTest = ClientUUID;
using SetClientUUIDTest = ClientUUID;

TraceLine IsPresentLine(int level, const std::string& text) {
  return Line(level, "IsClientUUIDPresent", kSource, text);
}
TraceLine FetchedLine(const std::string& text) {
  return DirectLine(2, "IsClientUUIDPresent", kSource, "ClientUUID fetched : %s",
                    "ClientUUID fetched : " + text);
}
TraceLine MissingLine() {
  return IsPresentLine(1, "Client UUID is not present in INI .Creating new ...");
}

TEST_F(IsClientUUIDPresentTest, FetchesWhatIsStored) {
  configuration.Write(kStored);
  EXPECT_TRUE(IsClientUUIDPresent());
  EXPECT_THAT(recorder.Lines(), ElementsAre(IsPresentLine(2, "Entry"), FetchedLine(kIdentifier),
                                            IsPresentLine(2, "Exit")));
  EXPECT_EQ(FakeMisc()->configDirCapacity, 520U);
  EXPECT_EQ(FakeMisc()->configDirCalls, 1U);
}

TEST_F(IsClientUUIDPresentTest, AnyTextThatIsNotEmptyCounts) {
  for (const char* const text : {"x", "no identifier at all", "100%s"}) {
    FakeTraceClear();
    configuration.Write(FileWith(text));
    EXPECT_TRUE(IsClientUUIDPresent());
    EXPECT_THAT(recorder.Lines(), ElementsAre(IsPresentLine(2, "Entry"), FetchedLine(text),
                                              IsPresentLine(2, "Exit")));
  }
}

TEST_F(IsClientUUIDPresentTest, IsFalseWithoutFileSectionKeyOrValue) {
  const char* const files[] = {"", "[OTHER]\r\nclientuniqueid=x\r\n",
                               "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nother=x\r\n",
                               "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=\r\n"};
  for (const char* const file : files) {
    SCOPED_TRACE(file);
    FakeTraceClear();
    if (*file != '\0') {
      configuration.Write(file);
    }
    EXPECT_FALSE(IsClientUUIDPresent());
    EXPECT_THAT(recorder.Lines(), ElementsAre(IsPresentLine(2, "Entry"), MissingLine()));
  }
}

TEST_F(IsClientUUIDPresentTest, IsFalseWithoutAConfigurationFolder) {
  FakeMisc()->configDirResult = 0;
  EXPECT_FALSE(IsClientUUIDPresent());
  EXPECT_THAT(recorder.Lines(), ElementsAre(IsPresentLine(2, "Entry"),
                                            IsPresentLine(1, "GetClientAgentConfigDir failed")));
}

TEST_F(IsClientUUIDPresentTest, OnlyTheLowByteOfTheFoldersResultCounts) {
  FakeMisc()->configDirResult = 2;
  configuration.Write(kStored);
  EXPECT_TRUE(IsClientUUIDPresent());
}

TEST_F(IsClientUUIDPresentTest, ReadsOneKeyWithoutADefault) {
  std::wstring section;
  std::wstring key;
  const wchar_t* defaultText = L"";
  DWORD size = 0;
  std::wstring path;
  const CallPatch<struct ReadTag, decltype(GetPrivateProfileStringW)> read(
      "KERNEL32.dll", "GetPrivateProfileStringW",
      [&](LPCWSTR askedSection, LPCWSTR askedKey, LPCWSTR askedDefault, LPWSTR buffer,
          DWORD bufferSize, LPCWSTR file) -> DWORD {
        section = askedSection;
        key = askedKey;
        defaultText = askedDefault;
        size = bufferSize;
        path = file;
        buffer[0] = L'\0';
        return 0;
      });
  EXPECT_FALSE(IsClientUUIDPresent());
  EXPECT_EQ(section, L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION");
  EXPECT_EQ(key, L"clientuniqueid");
  EXPECT_EQ(defaultText, nullptr);
  EXPECT_EQ(size, 260U);
  EXPECT_EQ(path, configuration.File());
}

TEST_F(IsClientUUIDPresentTest, ALongTextIsCutAt259Characters) {
  configuration.Write(FileWith(std::string(300, 'x')));
  EXPECT_TRUE(IsClientUUIDPresent());
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(IsPresentLine(2, "Entry"), FetchedLine(std::string(259, 'x')),
                          IsPresentLine(2, "Exit")));
}

TEST_F(IsClientUUIDPresentTest, ATextThatCannotBeConvertedCountsAllTheSame) {
  configuration.Write(kStored);
  UINT codePage = 1;
  DWORD flags = 1;
  int capacity = 0;
  const CallPatch<struct ConvertTag,
                  int(UINT, DWORD, const wchar_t*, int, char*, int, const char*, BOOL*)>
      convert("KERNEL32.dll", "WideCharToMultiByte",
              [&](UINT page, DWORD flag, const wchar_t*, int, char* narrow, int room, const char*,
                  BOOL*) {
                codePage = page;
                flags = flag;
                capacity = room;
                narrow[0] = 'x';
                SetLastError(ERROR_INSUFFICIENT_BUFFER);
                return 0;
              });
  EXPECT_TRUE(IsClientUUIDPresent());
  EXPECT_EQ(codePage, 0U);
  EXPECT_EQ(flags, 0U);
  EXPECT_EQ(capacity, 260);
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(IsPresentLine(2, "Entry"), FetchedLine(""), IsPresentLine(2, "Exit")));
}

TraceLine SetLine(int level, const std::string& text) {
  return Line(level, "SetClientUUID", kSource, text);
}

TEST_F(SetClientUUIDTest, StoresTheIdentifierInAFileThatItCreates) {
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(configuration.Read(), kStored);
  EXPECT_THAT(recorder.Lines(), ElementsAre(SetLine(8, " Entry"), SetLine(8, " Exit")));
  EXPECT_EQ(FakeMisc()->configDirCapacity, 520U);
}

TEST_F(SetClientUUIDTest, LeavesTheRestOfTheFileAlone) {
  configuration.Write(
      "[OTHER]\r\nkey=value\r\n[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n"
      "clientuniqueid=\r\nserver=10.0.0.1\r\n");
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(configuration.Read(),
            "[OTHER]\r\nkey=value\r\n[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n"
            "clientuniqueid=0123456789ABCDEF0123456789ABCDEF\r\nserver=10.0.0.1\r\n");
}

TEST_F(SetClientUUIDTest, StoresWhatIsPresentThen) {
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  FakeTraceClear();
  EXPECT_TRUE(IsClientUUIDPresent());
  EXPECT_THAT(recorder.Lines(), ElementsAre(IsPresentLine(2, "Entry"), FetchedLine(kIdentifier),
                                            IsPresentLine(2, "Exit")));
}

TEST_F(SetClientUUIDTest, RefusesANullText) {
  EXPECT_FALSE(SetClientUUID(nullptr));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(SetLine(8, " Entry"), SetLine(1, "Invalid parameters")));
  EXPECT_EQ(FakeMisc()->configDirCalls, 0U);
}

TEST_F(SetClientUUIDTest, FailsWithoutAConfigurationFolder) {
  FakeMisc()->configDirResult = 0;
  EXPECT_FALSE(SetClientUUID(kIdentifier));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(SetLine(8, " Entry"), SetLine(1, "GetClientAgentConfigDir failed")));
}

TEST_F(SetClientUUIDTest, FailsWhenTheFolderDoesNotExist) {
  StringCchCatW(FakeMisc()->configDir, 260, L"\\missing");
  EXPECT_FALSE(SetClientUUID(kIdentifier));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(SetLine(8, " Entry"), SetLine(1, "WritePrivateProfileString failed.")));
}

TEST_F(SetClientUUIDTest, WritesOneKey) {
  std::vector<std::wstring> arguments;
  const CallPatch<struct WriteTag, decltype(WritePrivateProfileStringW)> write(
      "KERNEL32.dll", "WritePrivateProfileStringW",
      [&](LPCWSTR section, LPCWSTR key, LPCWSTR text, LPCWSTR file) {
        arguments = {section, key, text, file};
        return FALSE;
      });
  EXPECT_FALSE(SetClientUUID(kIdentifier));
  EXPECT_THAT(arguments, ElementsAre(L"ADMIN_CONSOLE_CLIENT_AGENT_SECTION", L"clientuniqueid",
                                     L"0123456789ABCDEF0123456789ABCDEF", configuration.File()));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(SetLine(8, " Entry"), SetLine(1, "WritePrivateProfileString failed.")));
}

TEST_F(SetClientUUIDTest, ConvertsUpTo520CharactersWithTheTerminator) {
  const std::string longest(519, 'x');
  EXPECT_TRUE(SetClientUUID(longest.c_str()));
  EXPECT_EQ(configuration.Read(), FileWith(longest));
}

// The conversion's result does not count: what is stored is no identifier, and the next start makes
// one.
TEST_F(SetClientUUIDTest, ATextOfMoreThan519CharactersIsStoredAsAnEmptyOne) {
  for (const std::size_t length : {520U, 521U, 5000U}) {
    SCOPED_TRACE(length);
    configuration.Write("[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nserver=10.0.0.1\r\n");
    FakeTraceClear();
    EXPECT_TRUE(SetClientUUID(std::string(length, 'x').c_str()));
    EXPECT_THAT(recorder.Lines(), ElementsAre(SetLine(8, " Entry"), SetLine(8, " Exit")));
    EXPECT_EQ(configuration.Read(),
              "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nserver=10.0.0.1\r\nclientuniqueid=\r\n");
    EXPECT_FALSE(IsClientUUIDPresent());
  }
}

TEST_F(IsClientUUIDPresentTest, ATextOfMoreThan519CharactersIsCutAt259) {
  for (const std::size_t length : {519U, 520U, 3000U}) {
    SCOPED_TRACE(length);
    configuration.Write(FileWith(std::string(259, 'x') + std::string(length - 259, 'y')));
    FakeTraceClear();
    EXPECT_TRUE(IsClientUUIDPresent());
    EXPECT_THAT(recorder.Lines(),
                ElementsAre(IsPresentLine(2, "Entry"), FetchedLine(std::string(259, 'x')),
                            IsPresentLine(2, "Exit")));
  }
}

// What orders the writes of all starts of the program.
class WriteLock : public ClientUUID {
 protected:
  WriteLock() : m_mutex(CreateMutexA(nullptr, FALSE, "Global\\ClientAgentConfigurationFile")) {
    EXPECT_NE(m_mutex, nullptr);
  }
  ~WriteLock() override { CloseHandle(m_mutex); }

  // What a wait of another thread gives, which then ends, releasing the lock or not.
  DWORD TryToTake(DWORD milliseconds, bool isReleased = true) const {
    DWORD result = WAIT_FAILED;
    std::thread([&] {
      result = WaitForSingleObject(m_mutex, milliseconds);
      if (isReleased && result != WAIT_TIMEOUT) {
        ReleaseMutex(m_mutex);
      }
    }).join();
    return result;
  }

  static constexpr DWORD kPatience = 60000;

 private:
  HANDLE m_mutex;
};

using SetClientUUIDLock = WriteLock;

TEST_F(SetClientUUIDLock, IsHeldDuringTheWriteAndNotAfterwards) {
  DWORD duringTheWrite = WAIT_FAILED;
  {
    const CallPatch<struct LockedWriteTag, decltype(WritePrivateProfileStringW)> write(
        "KERNEL32.dll", "WritePrivateProfileStringW",
        [&](LPCWSTR section, LPCWSTR key, LPCWSTR text, LPCWSTR file) {
          duringTheWrite = TryToTake(0);
          return write.CallOriginal(section, key, text, file);
        });
    EXPECT_TRUE(SetClientUUID(kIdentifier));
  }
  EXPECT_EQ(duringTheWrite, DWORD{WAIT_TIMEOUT});
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
  EXPECT_EQ(configuration.Read(), kStored);
  EXPECT_THAT(recorder.Lines(), ElementsAre(SetLine(8, " Entry"), SetLine(8, " Exit")));
}

TEST_F(SetClientUUIDLock, IsReleasedAfterAFailedWriteToo) {
  StringCchCatW(FakeMisc()->configDir, 260, L"\\missing");
  EXPECT_FALSE(SetClientUUID(kIdentifier));
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
}

TEST_F(SetClientUUIDLock, OfAStartThatEndedInTheMiddleIsTakenOver) {
  TryToTake(kPatience, /*isReleased=*/false);
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
  EXPECT_EQ(configuration.Read(), kStored);
}

TEST_F(SetClientUUIDLock, IsDoneWithoutWhereItCannotBeMade) {
  const CallPatch<struct NoMutexTag, decltype(CreateMutexExA)> create(
      "KERNEL32.dll", "CreateMutexExA", [](LPSECURITY_ATTRIBUTES, LPCSTR, DWORD, DWORD) {
        SetLastError(ERROR_ACCESS_DENIED);
        return HANDLE{nullptr};
      });
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(configuration.Read(), kStored);
  EXPECT_THAT(recorder.Lines(), ElementsAre(SetLine(8, " Entry"), SetLine(8, " Exit")));
}

TEST_F(SetClientUUIDLock, IsDoneWithoutWhenSomebodyKeepsIt) {
  HANDLE lock = nullptr;
  DWORD access = 0;
  DWORD patience = INFINITE;
  unsigned releases = 0;
  const CallPatch<struct MutexTag, decltype(CreateMutexExA)> create(
      "KERNEL32.dll", "CreateMutexExA",
      [&](LPSECURITY_ATTRIBUTES security, LPCSTR name, DWORD flags, DWORD desiredAccess) {
        access = desiredAccess;
        return lock = create.CallOriginal(security, name, flags, desiredAccess);
      });
  const CallPatch<struct WaitTag, decltype(WaitForSingleObject)> wait(
      "KERNEL32.dll", "WaitForSingleObject", [&](HANDLE handle, DWORD milliseconds) {
        if (handle != lock) {
          return wait.CallOriginal(handle, milliseconds);
        }
        patience = milliseconds;
        return DWORD{WAIT_TIMEOUT};
      });
  const CallPatch<struct ReleaseTag, decltype(ReleaseMutex)> release(
      "KERNEL32.dll", "ReleaseMutex", [&](HANDLE handle) {
        ++releases;
        return release.CallOriginal(handle);
      });
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_NE(lock, nullptr);
  // All that an administrator has on what the service has made.
  EXPECT_EQ(access, DWORD{SYNCHRONIZE});
  EXPECT_EQ(patience, 5000U);
  EXPECT_EQ(releases, 0U);
  EXPECT_EQ(configuration.Read(), kStored);
}

// The machine's real WMI takes no part in the tests of the new identifier.
class CreateAndSetClientUUIDTest : public ClientUUID {
 protected:
  // The machine has a BIOS UUID and nothing else.
  void HaveBiosUuid() {
    m_wmi.Add({"products",
               L"ROOT\\CIMV2",
               L"SELECT * FROM Win32_ComputerSystemProduct",
               {{"product", {{L"UUID", Text(kBiosUuid)}}}},
               {}});
  }

  unsigned comSetUps = 0;

 private:
  FakeWmi m_wmi;
  // COM itself sets security once in a process only.
  CallPatch<struct ComSecurityTag, HRESULT(PSECURITY_DESCRIPTOR, LONG, SOLE_AUTHENTICATION_SERVICE*,
                                           void*, DWORD, DWORD, void*, DWORD, void*)>
      m_security{"ole32.dll", "CoInitializeSecurity",
                 [](PSECURITY_DESCRIPTOR, LONG, SOLE_AUTHENTICATION_SERVICE*, void*, DWORD, DWORD,
                    void*, DWORD, void*) { return S_OK; }};

 protected:
  HRESULT comResult = S_OK;

 private:
  CallPatch<struct ComTag, HRESULT(void*, DWORD)> m_com{
      "ole32.dll", "CoInitializeEx", [this](void* reserved, DWORD apartment) {
        ++comSetUps;
        return FAILED(comResult) ? comResult : m_com.CallOriginal(reserved, apartment);
      }};
};

TraceLine CreateLine(int level, const std::string& text) {
  return Line(level, "CreateAndSetClientUUID", kSource, text);
}
TraceLine NewIdentifierLine() {
  return DirectLine(1, "CreateAndSetClientUUID", kSource, "Client Unique ID: %s",
                    std::string("Client Unique ID: ") + kIdentifierOfBiosUuid);
}

TEST_F(CreateAndSetClientUUIDTest, StoresTheIdentifierAndWritesItAtTheErrorLevel) {
  HaveBiosUuid();
  EXPECT_TRUE(CreateAndSetClientUUID());
  EXPECT_EQ(configuration.Read(), FileWith(kIdentifierOfBiosUuid));
  EXPECT_THAT(recorder.LinesOf("CreateAndSetClientUUID"),
              ElementsAre(CreateLine(2, "Entry"), NewIdentifierLine(), CreateLine(2, "Exit")));
  EXPECT_EQ(recorder.Lines().front(), CreateLine(2, "Entry"));
}

TEST_F(CreateAndSetClientUUIDTest, StoresItBetweenItsTwoLastLines) {
  HaveBiosUuid();
  CreateAndSetClientUUID();
  const std::vector<TraceLine> lines = recorder.Lines();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_THAT(std::vector(lines.end() - 4, lines.end()),
              ElementsAre(NewIdentifierLine(), SetLine(8, " Entry"), SetLine(8, " Exit"),
                          CreateLine(2, "Exit")));
}

TEST_F(CreateAndSetClientUUIDTest, StoresNothingWithoutAnIdentifier) {
  comResult = E_FAIL;
  EXPECT_FALSE(CreateAndSetClientUUID());
  EXPECT_THAT(recorder.LinesOf("CreateAndSetClientUUID"),
              ElementsAre(CreateLine(2, "Entry"), CreateLine(1, "CZTUUIDobj.GetZTUUID failed.")));
  EXPECT_EQ(configuration.Read(), "");
}

TEST_F(CreateAndSetClientUUIDTest, FailsWhenTheIdentifierCannotBeStored) {
  HaveBiosUuid();
  FakeMisc()->configDirResult = 0;
  EXPECT_FALSE(CreateAndSetClientUUID());
  EXPECT_THAT(recorder.LinesOf("CreateAndSetClientUUID"),
              ElementsAre(CreateLine(2, "Entry"), NewIdentifierLine(),
                          CreateLine(1, "SetClientUUID failed.")));
  EXPECT_THAT(recorder.LinesOf("SetClientUUID"),
              ElementsAre(SetLine(8, " Entry"), SetLine(1, "GetClientAgentConfigDir failed")));
}

// The whole program, beside stand-ins for the service control manager, the helper process and the
// machine's WMI.
class MainTest : public CreateAndSetClientUUIDTest {
 protected:
  MainTest() {
    FakeInfoReset();
    journal.Clear();
    FakeTraceClear();
  }

  // Runs main with these arguments behind the program's name.
  int Run(std::vector<std::string> words) {
    words.insert(words.begin(), "vorlsrvc.exe");
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    ConsoleCapture capture;
    const int exitCode = VorlsrvcMain(static_cast<int>(words.size()), argv.data());
    console = capture.End();
    return exitCode;
  }

  void HaveIdentifier() { configuration.Write(kStored); }

  Journal journal;
  FakeServiceManager manager{journal};
  FakeHelperPipe helper{journal};
  std::string console;

  // What the dispatcher was given, and what it does.
  unsigned dispatchers = 0;
  std::string dispatchedName;
  bool tableEnds = false;
  std::function<BOOL(LPSERVICE_MAIN_FUNCTIONA)> dispatch = [](LPSERVICE_MAIN_FUNCTIONA) {
    SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    return FALSE;
  };

 private:
  CallPatch<struct DispatcherTag, decltype(StartServiceCtrlDispatcherA)> m_dispatcher{
      "ADVAPI32.dll", "StartServiceCtrlDispatcherA", [this](const SERVICE_TABLE_ENTRYA* table) {
        ++dispatchers;
        dispatchedName = table[0].lpServiceName;
        tableEnds = table[1].lpServiceName == nullptr && table[1].lpServiceProc == nullptr;
        return dispatch(table[0].lpServiceProc);
      }};
  CallPatch<struct RegisterTag, decltype(RegisterServiceCtrlHandlerA)> m_register{
      "ADVAPI32.dll", "RegisterServiceCtrlHandlerA", [](LPCSTR, LPHANDLER_FUNCTION) {
        return reinterpret_cast<SERVICE_STATUS_HANDLE>(ULONG_PTR{0x5500});
      }};
  CallPatch<struct StatusTag, decltype(SetServiceStatus)> m_status{
      "ADVAPI32.dll", "SetServiceStatus",
      [](SERVICE_STATUS_HANDLE, LPSERVICE_STATUS) { return TRUE; }};
};

// Journal entries whose handles are numbered by a count over the whole test.
std::vector<std::string> WithoutHandleNumbers(std::vector<std::string> entries) {
  for (std::string& entry : entries) {
    entry = std::regex_replace(entry, std::regex("(manager|service)[0-9]+"), "$1");
  }
  return entries;
}

TraceLine MainLine(int level, const std::string& text) {
  return Line(level, "main", kSource, text);
}
TraceLine Lifecycle(const char* function, const char* source, const std::string& text) {
  return Line(2, function, source, text);
}

constexpr char kBaseSource[] = "service/ntservc.cpp";
constexpr char kAgentSource[] = "agent/vorlsvc.cpp";

TEST_F(MainTest, WithoutArgumentsBecomesTheService) {
  HaveIdentifier();
  EXPECT_EQ(Run({}), 0);
  const TraceLine expected[] = {
      MainLine(2, "Entry"),
      MainLine(2, "Before Calling SetClientAgentLogOptions"),
      MainLine(2, "After Calling SetClientAgentLogOptions"),
      IsPresentLine(2, "Entry"),
      FetchedLine(kIdentifier),
      IsPresentLine(2, "Exit"),
      MainLine(2, "Before Creating CAcAsSvc Object"),
      Lifecycle("CNTService::CNTService", kBaseSource, "Entry"),
      Lifecycle("CNTService::CNTService", kBaseSource, "Exit"),
      Lifecycle("CAcAsSvc::CAcAsSvc", kAgentSource, "Entry"),
      Lifecycle("CAcAsSvc::CAcAsSvc", kAgentSource, "Exit"),
      MainLine(2, "After Creating CAcAsSvc Object"),
      MainLine(2, "Before Calling asServiceObj.ParseStandardArgs"),
      Lifecycle("CNTService::ParseStandardArgs", kBaseSource, "Entry"),
      Lifecycle("CNTService::ParseStandardArgs", kBaseSource, "No Arguments hence returning"),
      Lifecycle("CNTService::ParseStandardArgs", kBaseSource, "Exit"),
      MainLine(1, "asServiceObj.ParseStandardArgs Failed"),
      MainLine(2, "Before Calling asServiceObj.StartService"),
      Lifecycle("CNTService::StartService", kBaseSource, "Entry"),
      Lifecycle("CNTService::StartService", kBaseSource,
                "Before calling StartServiceCtrlDispatcher"),
      Lifecycle("CNTService::StartService", kBaseSource,
                "After calling StartServiceCtrlDispatcher"),
      Lifecycle("CNTService::StartService", kBaseSource, "Exit"),
      MainLine(2, "After Calling asServiceObj.StartService"),
      MainLine(2, "After Calling asServiceObj.ParseStandardArgs"),
      MainLine(2, "Exit"),
      Lifecycle("CAcAsSvc::~CAcAsSvc", kAgentSource, "Entry"),
      Lifecycle("CAcAsSvc::~CAcAsSvc", kAgentSource, "Exit"),
      Lifecycle("CNTService::~CNTService", kBaseSource, "Entry"),
      Lifecycle("CNTService::~CNTService", kBaseSource, "Exit")};
  EXPECT_THAT(recorder.Lines(), ElementsAreArray(expected));
  EXPECT_EQ(dispatchers, 1U);
  EXPECT_EQ(dispatchedName, "Test Client Agent");
  EXPECT_TRUE(tableEnds);
  EXPECT_EQ(console, "");
}

TEST_F(MainTest, WritesEachLineInItsPlaceAmongTheCallsOfTheLibraries) {
  HaveIdentifier();
  const LibraryCalls libraries(journal);
  Run({});
  std::vector<std::string> entries = journal.Entries();
  std::erase_if(entries, [](const std::string& entry) {
    return entry.starts_with("level ") && entry.find(" main (") == std::string::npos;
  });
  const auto main = [](int level, const std::string& text) {
    return Traced(level, "main", kSource, text);
  };
  EXPECT_THAT(
      entries,
      ElementsAre(main(2, "Entry"), main(2, "Before Calling SetClientAgentLogOptions"),
                  "SetClientAgentLogOptions", main(2, "After Calling SetClientAgentLogOptions"),
                  "GetServiceNameByVersion Client Agent", "GetClientAgentConfigDir",
                  main(2, "Before Creating CAcAsSvc Object"),
                  main(2, "After Creating CAcAsSvc Object"),
                  main(2, "Before Calling asServiceObj.ParseStandardArgs"),
                  main(1, "asServiceObj.ParseStandardArgs Failed"),
                  main(2, "Before Calling asServiceObj.StartService"),
                  main(2, "After Calling asServiceObj.StartService"),
                  main(2, "After Calling asServiceObj.ParseStandardArgs"), main(2, "Exit")));
}

TEST_F(MainTest, WithACommandNeverBecomesTheService) {
  HaveIdentifier();
  for (const char* const command :
       {"-install", "-uninstall", "-start", "-reset", "-stop", "-stopmanual", "-restart"}) {
    SCOPED_TRACE(command);
    FakeTraceClear();
    EXPECT_EQ(Run({command}), 0);
    EXPECT_EQ(dispatchers, 0U);
    EXPECT_THAT(
        recorder.LinesOf("main"),
        ElementsAre(MainLine(2, "Entry"), MainLine(2, "Before Calling SetClientAgentLogOptions"),
                    MainLine(2, "After Calling SetClientAgentLogOptions"),
                    MainLine(2, "Before Creating CAcAsSvc Object"),
                    MainLine(2, "After Creating CAcAsSvc Object"),
                    MainLine(2, "Before Calling asServiceObj.ParseStandardArgs"),
                    MainLine(2, "After Calling asServiceObj.ParseStandardArgs"),
                    MainLine(2, "Exit")));
  }
}

TEST_F(MainTest, GoesOnWithoutLogOptions) {
  HaveIdentifier();
  FakeMisc()->logOptionsResult = 0;
  EXPECT_EQ(Run({"-start"}), 0);
  const std::vector<TraceLine> lines = recorder.LinesOf("main");
  ASSERT_GE(lines.size(), 5U);
  EXPECT_THAT(
      std::vector(lines.begin(), lines.begin() + 5),
      ElementsAre(MainLine(2, "Entry"), MainLine(2, "Before Calling SetClientAgentLogOptions"),
                  MainLine(1, "SetClientAgentLogOptions Failed"),
                  MainLine(2, "After Calling SetClientAgentLogOptions"),
                  MainLine(2, "Before Creating CAcAsSvc Object")));
  EXPECT_EQ(FakeMisc()->logOptionsCalls, 1U);
}

TEST_F(MainTest, OnlyTheLowByteOfTheLibrariesResultsCounts) {
  HaveIdentifier();
  FakeMisc()->logOptionsResult = 2;
  FakeInfo()->serviceNameResult = 2;
  Run({"-start"});
  EXPECT_THAT(recorder.LinesOf("main"),
              Not(Contains(MainLine(1, "SetClientAgentLogOptions Failed"))));
  EXPECT_EQ(recorder.LinesOf("main").back(), MainLine(2, "Exit"));
}

TEST_F(MainTest, EndsWith0WithoutAServiceName) {
  FakeInfo()->serviceNameResult = 0;
  EXPECT_EQ(Run({"-install"}), 0);
  EXPECT_THAT(recorder.Lines(), ElementsAre(MainLine(2, "Entry"),
                                            MainLine(2, "Before Calling SetClientAgentLogOptions"),
                                            MainLine(2, "After Calling SetClientAgentLogOptions")));
  EXPECT_EQ(FakeMisc()->configDirCalls, 0U);
  EXPECT_THAT(journal.Calls(), IsEmpty());
  EXPECT_EQ(console, "");
  EXPECT_EQ(dispatchers, 0U);
}

TEST_F(MainTest, AsksForTheNameOfTheClientAgent) {
  HaveIdentifier();
  Run({"-start"});
  EXPECT_STREQ(FakeInfo()->serviceBaseName, "Client Agent");
  EXPECT_EQ(FakeInfo()->serviceNameCapacity, 100U);
  EXPECT_EQ(FakeInfo()->serviceNameCalls, 1U);
  EXPECT_THAT(journal.Calls(), Contains(::testing::HasSubstr("\"Test Client Agent\"")));
}

TEST_F(MainTest, LeavesAnIdentifierThatExistsAloneEvenOnOtherHardware) {
  HaveBiosUuid();
  HaveIdentifier();
  Run({"-start"});
  EXPECT_EQ(configuration.Read(), kStored);
  EXPECT_EQ(comSetUps, 0U);
  EXPECT_THAT(recorder.LinesOf("CreateAndSetClientUUID"), IsEmpty());
}

TEST_F(MainTest, ReplacesAnEmptyIdentifierByANewOne) {
  HaveBiosUuid();
  configuration.Write("[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=\r\n");
  Run({"-start"});
  EXPECT_EQ(configuration.Read(), FileWith(kIdentifierOfBiosUuid));
}

TEST_F(MainTest, CreatesTheIdentifierBeforeTheCommandIsLookedAt) {
  HaveBiosUuid();
  for (const char* const command :
       {"-install", "-uninstall", "-start", "-reset", "-stop", "-stopmanual", "-restart", "x"}) {
    SCOPED_TRACE(command);
    DeleteFileW(configuration.File().c_str());
    journal.Clear();
    Run({command});
    EXPECT_EQ(configuration.Read(), FileWith(kIdentifierOfBiosUuid));
    const std::vector<std::string> entries = journal.Entries();
    const auto stored =
        std::find(entries.begin(), entries.end(), Traced(8, "SetClientUUID", kSource, " Exit"));
    const auto looked = std::find(entries.begin(), entries.end(),
                                  Traced(2, "CNTService::ParseStandardArgs", kBaseSource, "Entry"));
    EXPECT_LT(stored, looked);
    EXPECT_NE(looked, entries.end());
  }
}

TEST_F(MainTest, WithoutAConfigurationFolderStartsAllTheSame) {
  HaveBiosUuid();
  FakeMisc()->configDirResult = 0;
  EXPECT_EQ(Run({}), 0);
  EXPECT_EQ(dispatchers, 1U);
  EXPECT_THAT(
      recorder.LinesOf("IsClientUUIDPresent"),
      ElementsAre(IsPresentLine(2, "Entry"), IsPresentLine(1, "GetClientAgentConfigDir failed")));
  EXPECT_THAT(recorder.LinesOf("SetClientUUID"),
              ElementsAre(SetLine(8, " Entry"), SetLine(1, "GetClientAgentConfigDir failed")));
  EXPECT_THAT(recorder.LinesOf("CreateAndSetClientUUID"),
              ElementsAre(CreateLine(2, "Entry"), NewIdentifierLine(),
                          CreateLine(1, "SetClientUUID failed.")));
}

TEST_F(MainTest, WithoutAnIdentifierStartsAllTheSame) {
  comResult = E_FAIL;
  EXPECT_EQ(Run({}), 0);
  EXPECT_EQ(dispatchers, 1U);
  EXPECT_EQ(configuration.Read(), "");
}

// Commands, as far as main has a part in them.

TEST_F(MainTest, LetterCaseOfTheCommandDoesNotCount) {
  HaveIdentifier();
  for (const char* const command : {"-Install", "-INSTALL", "-install"}) {
    EXPECT_EQ(Run({command}), 0);
    EXPECT_EQ(console, "Test Client Agent is already installed\n");
  }
  EXPECT_EQ(dispatchers, 0U);
}

TEST_F(MainTest, ResetBehavesLikeStart) {
  HaveIdentifier();
  Run({"-start"});
  const std::vector<std::string> start = journal.Entries();
  EXPECT_THAT(start, Contains(Traced(2, "CNTService::ParseStandardArgs", kBaseSource, "-start")));
  journal.Clear();
  Run({"-reset"});
  EXPECT_THAT(WithoutHandleNumbers(journal.Entries()),
              ElementsAreArray(WithoutHandleNumbers(start)));
}

TEST_F(MainTest, InstallOnAnInstalledServiceDoesNotTouchItsConfiguration) {
  HaveIdentifier();
  Run({"-install"});
  EXPECT_EQ(console, "Test Client Agent is already installed\n");
  for (const std::string& call : journal.Calls()) {
    EXPECT_THAT(call, ::testing::AnyOf(StartsWith("OpenSCManagerA"), StartsWith("OpenServiceA"),
                                       StartsWith("CloseServiceHandle")));
  }
}

TEST_F(MainTest, UninstallOfAServiceThatIsNotInstalledSaysSo) {
  HaveIdentifier();
  manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  EXPECT_EQ(Run({"-uninstall"}), 0);
  EXPECT_EQ(console, "Test Client Agent is not installed\n");
}

TEST_F(MainTest, WordsThatAreNoCommandBecomeTheService) {
  HaveIdentifier();
  for (const char* const word : {"install", "/install", "-install2", "--install", ""}) {
    SCOPED_TRACE(word);
    dispatchers = 0;
    EXPECT_EQ(Run({word}), 0);
    EXPECT_EQ(dispatchers, 1U);
    EXPECT_EQ(console, "");
  }
}

TEST_F(MainTest, ASecondArgumentNeverChangesWhatHappens) {
  HaveIdentifier();
  for (const char* const further : {"-uninstall", "x", ""}) {
    EXPECT_EQ(Run({"-install", further}), 0);
    EXPECT_EQ(console, "Test Client Agent is already installed\n");
  }
  EXPECT_EQ(Run({"x", "-install"}), 0);
  EXPECT_EQ(dispatchers, 1U);
}

TEST_F(MainTest, EndsWith0AfterAFailedInstall) {
  HaveIdentifier();
  manager.Fail("OpenServiceA", ERROR_SERVICE_DOES_NOT_EXIST);
  manager.Fail("CreateServiceW", ERROR_ACCESS_DENIED);
  EXPECT_EQ(Run({"-install"}), 0);
  EXPECT_EQ(console, "Unable to install Test Client Agent. (Error 5)\n");
}

TEST_F(MainTest, EndsWith0AfterAFailedUninstall) {
  HaveIdentifier();
  manager.Fail("DeleteService", ERROR_SERVICE_MARKED_FOR_DELETE);
  EXPECT_EQ(Run({"-uninstall"}), 0);
  EXPECT_EQ(console, "Could not remove Test Client Agent. Error 1072\n");
}

TEST_F(MainTest, EndsWith0AfterAFailedStop) {
  HaveIdentifier();
  manager.Fail("ControlService", ERROR_SERVICE_NOT_ACTIVE);
  EXPECT_EQ(Run({"-stop"}), 0);
  EXPECT_THAT(
      recorder.LinesOf("CNTService::ParseStandardArgs"),
      Contains(Line(2, "CNTService::ParseStandardArgs", kBaseSource, "Stop service Failed")));
  EXPECT_EQ(console, "");
}

TEST_F(MainTest, WithoutTheRightToOpenTheManagerNothingCountsAsInstalled) {
  HaveIdentifier();
  manager.Fail("OpenSCManagerA", ERROR_ACCESS_DENIED);
  EXPECT_EQ(Run({"-install"}), 0);
  EXPECT_EQ(console, "Unable to install Test Client Agent. (Error 5)\n");
  EXPECT_EQ(Run({"-uninstall"}), 0);
  EXPECT_EQ(console, "Test Client Agent is not installed\n");
  for (const char* const command : {"-stop", "-stopmanual"}) {
    journal.Clear();
    EXPECT_EQ(Run({command}), 0);
    EXPECT_EQ(console, "");
    EXPECT_THAT(journal.Calls(), Not(Contains(StartsWith("helper pipe"))));
  }
}

// The exit code of the service's process.

TEST_F(MainTest, EndsWithTheErrorOfAServiceThatCannotInitialise) {
  HaveIdentifier();
  const CallPatch<struct LoadTag, HMODULE(const char*)> load("KERNEL32.dll", "LoadLibraryA",
                                                             [](const char*) -> HMODULE {
                                                               SetLastError(ERROR_ACCESS_DENIED);
                                                               return nullptr;
                                                             });
  dispatch = [](LPSERVICE_MAIN_FUNCTIONA serviceMain) {
    serviceMain(0, nullptr);
    return TRUE;
  };
  EXPECT_EQ(Run({}), 5);
  EXPECT_EQ(recorder.Lines().back(), Lifecycle("CNTService::~CNTService", kBaseSource, "Exit"));
}

TEST_F(MainTest, EndsWith0AfterAServiceThatRan) {
  HaveIdentifier();
  // Without start-up options the service's body ends at once.
  FakeMisc()->startUpOptionsResult = 0;
  FakeInfo()->eventNameResult = 0;
  dispatch = [](LPSERVICE_MAIN_FUNCTIONA serviceMain) {
    SetLastError(ERROR_ACCESS_DENIED);
    serviceMain(0, nullptr);
    return TRUE;
  };
  EXPECT_EQ(Run({}), 0);
  EXPECT_THAT(
      recorder.LinesOf("CAcAsSvc::Run"),
      Contains(Line(1, "CAcAsSvc::Run", kAgentSource, "GetClientAgentStartUpOptions Failed")));
}

}  // namespace
