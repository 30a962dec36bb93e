// The identifier: whether there is one, and how a new one is made and stored.
#include <gmock/gmock.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/unit/vorlsrvc_test.h"

using ::testing::ElementsAre;

namespace {

TEST_F(IsClientUUIDPresentTest, FetchesWhatIsStored) {
  configuration.Write(kStored);
  EXPECT_TRUE(IsClientUUIDPresent());
  EXPECT_THAT(journal.Traces(), ElementsAre(kIsPresent.Info("Entry"), FetchedLine(kIdentifier),
                                            kIsPresent.Info("Exit")));
  EXPECT_EQ(FakeMisc()->configDirCapacity, 520U);
  EXPECT_EQ(FakeMisc()->configDirCalls, 1U);
}

TEST_F(IsClientUUIDPresentTest, AnyTextThatIsNotEmptyCounts) {
  for (const char* const text : {"x", "no identifier at all", "100%s"}) {
    journal.Clear();
    configuration.Write(FileWith(text));
    EXPECT_TRUE(IsClientUUIDPresent());
    EXPECT_THAT(journal.Traces(),
                ElementsAre(kIsPresent.Info("Entry"), FetchedLine(text), kIsPresent.Info("Exit")));
  }
}

TEST_F(IsClientUUIDPresentTest, IsFalseWithoutFileSectionKeyOrValue) {
  const char* const files[] = {"", "[OTHER]\r\nclientuniqueid=x\r\n",
                               "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nother=x\r\n",
                               "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=\r\n"};
  for (const char* const file : files) {
    SCOPED_TRACE(file);
    journal.Clear();
    if (*file != '\0') {
      configuration.Write(file);
    }
    EXPECT_FALSE(IsClientUUIDPresent());
    EXPECT_THAT(journal.Traces(), ElementsAre(kIsPresent.Info("Entry"), MissingLine()));
  }
}

TEST_F(IsClientUUIDPresentTest, IsFalseWithoutAConfigurationFolder) {
  FakeMisc()->configDirResult = 0;
  EXPECT_FALSE(IsClientUUIDPresent());
  EXPECT_THAT(journal.Traces(), ElementsAre(kIsPresent.Info("Entry"),
                                            kIsPresent.Error("GetClientAgentConfigDir failed")));
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
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kIsPresent.Info("Entry"), FetchedLine(std::string(259, 'x')),
                          kIsPresent.Info("Exit")));
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
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kIsPresent.Info("Entry"), FetchedLine(""), kIsPresent.Info("Exit")));
}

TEST_F(SetClientUUIDTest, StoresTheIdentifierInAFileThatItCreates) {
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(configuration.Read(), kStored);
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kSetIdentifier.Verbose(" Entry"), kSetIdentifier.Verbose(" Exit")));
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
  journal.Clear();
  EXPECT_TRUE(IsClientUUIDPresent());
  EXPECT_THAT(journal.Traces(), ElementsAre(kIsPresent.Info("Entry"), FetchedLine(kIdentifier),
                                            kIsPresent.Info("Exit")));
}

TEST_F(SetClientUUIDTest, RefusesANullText) {
  EXPECT_FALSE(SetClientUUID(nullptr));
  EXPECT_THAT(journal.Traces(), ElementsAre(kSetIdentifier.Verbose(" Entry"),
                                            kSetIdentifier.Error("Invalid parameters")));
  EXPECT_EQ(FakeMisc()->configDirCalls, 0U);
}

TEST_F(SetClientUUIDTest, FailsWithoutAConfigurationFolder) {
  FakeMisc()->configDirResult = 0;
  EXPECT_FALSE(SetClientUUID(kIdentifier));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kSetIdentifier.Verbose(" Entry"),
                          kSetIdentifier.Error("GetClientAgentConfigDir failed")));
}

TEST_F(SetClientUUIDTest, FailsWhenTheFolderDoesNotExist) {
  StringCchCatW(FakeMisc()->configDir, 260, L"\\missing");
  EXPECT_FALSE(SetClientUUID(kIdentifier));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kSetIdentifier.Verbose(" Entry"),
                          kSetIdentifier.Error("WritePrivateProfileString failed.")));
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
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kSetIdentifier.Verbose(" Entry"),
                          kSetIdentifier.Error("WritePrivateProfileString failed.")));
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
    journal.Clear();
    EXPECT_TRUE(SetClientUUID(std::string(length, 'x').c_str()));
    EXPECT_THAT(journal.Traces(),
                ElementsAre(kSetIdentifier.Verbose(" Entry"), kSetIdentifier.Verbose(" Exit")));
    EXPECT_EQ(configuration.Read(),
              "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nserver=10.0.0.1\r\nclientuniqueid=\r\n");
    EXPECT_FALSE(IsClientUUIDPresent());
  }
}

TEST_F(IsClientUUIDPresentTest, ATextOfMoreThan519CharactersIsCutAt259) {
  for (const std::size_t length : {519U, 520U, 3000U}) {
    SCOPED_TRACE(length);
    configuration.Write(FileWith(std::string(259, 'x') + std::string(length - 259, 'y')));
    journal.Clear();
    EXPECT_TRUE(IsClientUUIDPresent());
    EXPECT_THAT(journal.Traces(),
                ElementsAre(kIsPresent.Info("Entry"), FetchedLine(std::string(259, 'x')),
                            kIsPresent.Info("Exit")));
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
  EXPECT_THAT(journal.Traces(), ElementsAre(kIsPresent.Info("Entry"), FetchedLine(kIdentifier),
                                            kIsPresent.Info("Exit")));
}

TEST_F(IsClientUUIDPresentTest, SaysThatAFileCannotBeRead) {
  configuration.Write(kStored);
  const FileHandle holder = configuration.Hold();
  const Pauses pauses;
  EXPECT_FALSE(IsClientUUIDPresent());
  EXPECT_THAT(journal.Traces(), ElementsAre(kIsPresent.Info("Entry"),
                                            kIsPresent.Error(kUnreadableText), MissingLine()));
}

TEST_F(SetClientUUIDTest, WritesNothingIntoAFileThatCannotBeReadAndSaysSo) {
  configuration.Write(FileWith("of other hardware"));
  {
    const FileHandle holder = configuration.Hold();
    const Pauses pauses;
    EXPECT_FALSE(SetClientUUID(kIdentifier));
  }
  EXPECT_EQ(configuration.Read(), FileWith("of other hardware"));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kSetIdentifier.Verbose(" Entry"), kSetIdentifier.Error(kUnreadableText),
                          kSetIdentifier.Error("WritePrivateProfileString failed.")));
}

TEST_F(SetClientUUIDTest, KeepsAnotherIdentifierAndSaysWhich) {
  configuration.Write(FileWith("100% of other hardware"));
  EXPECT_TRUE(SetClientUUID(kIdentifier));
  EXPECT_EQ(configuration.Read(), FileWith("100% of other hardware"));
  EXPECT_THAT(journal.Traces(),
              ElementsAre(kSetIdentifier.Verbose(" Entry"),
                          kSetIdentifier.ErrorDirect(
                              "Client UUID is present in INI by now and is kept : %s",
                              "Client UUID is present in INI by now and is kept : "
                              "100% of other hardware"),
                          kSetIdentifier.Verbose(" Exit")));
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

TEST_F(CreateAndSetClientUUIDTest, StoresTheIdentifierAndWritesItAtTheErrorLevel) {
  HaveBiosUuid();
  EXPECT_TRUE(CreateAndSetClientUUID());
  EXPECT_EQ(configuration.Read(), FileWith(kIdentifierOfBiosUuid));
  EXPECT_THAT(kCreateIdentifier.In(journal),
              ElementsAre(kCreateIdentifier.Info("Entry"), NewIdentifierLine(),
                          kCreateIdentifier.Info("Exit")));
  EXPECT_EQ(journal.Traces().front(), kCreateIdentifier.Info("Entry"));
}

TEST_F(CreateAndSetClientUUIDTest, StoresItBetweenItsTwoLastLines) {
  HaveBiosUuid();
  CreateAndSetClientUUID();
  const std::vector<std::string> lines = journal.Traces();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_THAT(std::vector(lines.end() - 4, lines.end()),
              ElementsAre(NewIdentifierLine(), kSetIdentifier.Verbose(" Entry"),
                          kSetIdentifier.Verbose(" Exit"), kCreateIdentifier.Info("Exit")));
}

TEST_F(CreateAndSetClientUUIDTest, StoresNothingWithoutAnIdentifier) {
  comResult = E_FAIL;
  EXPECT_FALSE(CreateAndSetClientUUID());
  EXPECT_THAT(kCreateIdentifier.In(journal),
              ElementsAre(kCreateIdentifier.Info("Entry"),
                          kCreateIdentifier.Error("CZTUUIDobj.GetZTUUID failed.")));
  EXPECT_EQ(configuration.Read(), "");
}

TEST_F(CreateAndSetClientUUIDTest, FailsWhenTheIdentifierCannotBeStored) {
  HaveBiosUuid();
  FakeMisc()->configDirResult = 0;
  EXPECT_FALSE(CreateAndSetClientUUID());
  EXPECT_THAT(kCreateIdentifier.In(journal),
              ElementsAre(kCreateIdentifier.Info("Entry"), NewIdentifierLine(),
                          kCreateIdentifier.Error("SetClientUUID failed.")));
  EXPECT_THAT(kSetIdentifier.In(journal),
              ElementsAre(kSetIdentifier.Verbose(" Entry"),
                          kSetIdentifier.Error("GetClientAgentConfigDir failed")));
}

}  // namespace
