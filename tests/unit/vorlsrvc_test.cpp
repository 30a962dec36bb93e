#include "app/vorlsrvc.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <string>
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
#include "tests/unit/configuration_folder.h"

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

// Of a machine that has nothing but a BIOS UUID; the digest is md5sum's.
constexpr wchar_t kBiosUuid[] = L"4C4C4544-0035-3010-8048-B4C04F4B3732";
constexpr char kIdentifierOfBiosUuid[] = "C35B15042D89CBEA48C4CD7FBC0C11AA";

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

// A file that cannot be read.

constexpr char kUnreadableText[] =
    "vorlconf.ini cannot be read (32), a client UUID in it is left as it is";

TEST_F(IsClientUUIDPresentTest, FetchesWhatAHeldFileHoldsWhenItIsGivenBack) {
  configuration.Write(kStored);
  FileHandle holder = configuration.Hold();
  const Pauses pauses([&](unsigned) { holder.Reset(); });
  EXPECT_TRUE(IsClientUUIDPresent());
  EXPECT_EQ(pauses.count, 1U);
  EXPECT_THAT(recorder.Lines(), ElementsAre(IsPresentLine(2, "Entry"), FetchedLine(kIdentifier),
                                            IsPresentLine(2, "Exit")));
}

TEST_F(IsClientUUIDPresentTest, SaysThatAFileCannotBeRead) {
  configuration.Write(kStored);
  const FileHandle holder = configuration.Hold();
  const Pauses pauses;
  EXPECT_FALSE(IsClientUUIDPresent());
  EXPECT_THAT(recorder.Lines(), ElementsAre(IsPresentLine(2, "Entry"),
                                            IsPresentLine(1, kUnreadableText), MissingLine()));
}

TEST_F(SetClientUUIDTest, WritesNothingIntoAFileThatCannotBeReadAndSaysSo) {
  configuration.Write(FileWith("of other hardware"));
  {
    const FileHandle holder = configuration.Hold();
    const Pauses pauses;
    EXPECT_FALSE(SetClientUUID(kIdentifier));
  }
  EXPECT_EQ(configuration.Read(), FileWith("of other hardware"));
  EXPECT_THAT(recorder.Lines(), ElementsAre(SetLine(8, " Entry"), SetLine(1, kUnreadableText),
                                            SetLine(1, "WritePrivateProfileString failed.")));
}

TEST_F(SetClientUUIDTest, KeepsAnotherIdentifierAndSaysWhich) {
  configuration.Write(FileWith("100% of other hardware"));
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(configuration.Read(), FileWith("100% of other hardware"));
  EXPECT_THAT(recorder.Lines(),
              ElementsAre(SetLine(8, " Entry"),
                          DirectLine(1, "SetClientUUID", kSource,
                                     "Client UUID is present in INI by now and is kept : %s",
                                     "Client UUID is present in INI by now and is kept : "
                                     "100% of other hardware"),
                          SetLine(8, " Exit")));
}

// Windows then refuses the flag for precomposed characters.
TEST_F(SetClientUUIDTest, StoresItWhereTheCodePageIsUtf8) {
  const CallPatch<struct Utf8Tag, int(UINT, DWORD, const char*, int, wchar_t*, int)> convert(
      "KERNEL32.dll", "MultiByteToWideChar",
      [&](UINT, DWORD flags, const char* narrow, int length, wchar_t* wide, int size) {
        if (flags != 0) {
          SetLastError(ERROR_INVALID_FLAGS);
          return 0;
        }
        return convert.CallOriginal(CP_UTF8, 0, narrow, length, wide, size);
      });
  configuration.Write("; \xC3\xA4\r\n");
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(configuration.Read(), std::string("; \xC3\xA4\r\n") + kStored);
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
