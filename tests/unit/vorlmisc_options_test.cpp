// The start-up options of vorlmisc.dll.
#include <gmock/gmock.h>

#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "tests/unit/vorlmisc_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST_F(SupportLibrary, OptionsAreFilledEachFromTheKeyOfItsName) {
  EXPECT_TRUE(
      ReadOptions("Text1=first text\r\nText2=second\r\nText3=third\r\nText4=C:\\fourth\r\n"
                  "Word1=1\r\nWord2=2\r\nWord3=3\r\nWord4=4\r\n"
                  "Dword1=11\r\nDword2=12\r\nDword3=13\r\nDword4=14\r\nDword5=15\r\nDword6=16\r\n"
                  "Byte1=21\r\n"));
  CLIENT_AGENT_STARTUP_OPTIONS expected{};
  std::strcpy(expected.Text1, "first text");
  std::strcpy(expected.Text2, "second");
  std::strcpy(expected.Text3, "third");
  std::strcpy(expected.Text4, "C:\\fourth");
  expected.Word1 = 1;
  expected.Word2 = 2;
  expected.Word3 = 3;
  expected.Word4 = 4;
  expected.Dword1 = 11;
  expected.Dword2 = 12;
  expected.Dword3 = 13;
  expected.Dword4 = 14;
  expected.Dword5 = 15;
  expected.Dword6 = 16;
  expected.Byte1 = 21;
  EXPECT_EQ(std::memcmp(&m_options, &expected, sizeof(expected)), 0);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, NumbersReachFromZeroToTheLargestDecimalOrHexadecimal) {
  EXPECT_TRUE(
      ReadOptions("Word1=65535\r\nWord2=0xFFFF\r\nWord3=0\r\nWord4=010\r\nDword1=4294967295\r\n"
                  "Dword2=0xffffffff\r\nDword3=0X1a\r\nDword4=  7  \r\nDword5=0x0\r\n"
                  "Dword6=000000000000000000000000012\r\nByte1=0xFf\r\n"));
  EXPECT_EQ(m_options.Word1, 65535);
  EXPECT_EQ(m_options.Word2, 65535);
  EXPECT_EQ(m_options.Word3, 0);
  EXPECT_EQ(m_options.Word4, 10);
  EXPECT_EQ(DWORD{m_options.Dword1}, 4294967295U);
  EXPECT_EQ(DWORD{m_options.Dword2}, 4294967295U);
  EXPECT_EQ(DWORD{m_options.Dword3}, 26U);
  EXPECT_EQ(DWORD{m_options.Dword4}, 7U);
  EXPECT_EQ(DWORD{m_options.Dword5}, 0U);
  EXPECT_EQ(DWORD{m_options.Dword6}, 12U);
  EXPECT_EQ(m_options.Byte1, 255);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, CommentMayFollowANumberButBelongsToAText) {
  EXPECT_TRUE(ReadOptions("Word1=5 ; five\r\nWord2=0x10;sixteen\r\nWord3=;none\r\nText1=a;b\r\n"));
  EXPECT_EQ(m_options.Word1, 5);
  EXPECT_EQ(m_options.Word2, 16);
  EXPECT_EQ(m_options.Word3, 0);
  EXPECT_STREQ(m_options.Text1, "a;b");
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, NumberOutOfRangeIsRefusedWithOneLineAndLeftZero) {
  EXPECT_TRUE(ReadOptions(
      "Word1=65536\r\nWord2=0x10000\r\nWord3=5\r\nDword1=4294967296\r\n"
      "Dword2=0x100000000\r\nDword3=99999999999999999999999999999999\r\nByte1=256\r\n"));
  EXPECT_EQ(m_options.Word3, 5);
  m_options.Word3 = 0;
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(
      m_journal.TakeTraces(),
      ElementsAre(
          kStartUpOptions.Error("Start-up option Word1 is no number from 0 to 65535: 65536"),
          kStartUpOptions.Error("Start-up option Word2 is no number from 0 to 65535: 0x10000"),
          kStartUpOptions.Error(
              "Start-up option Dword1 is no number from 0 to 4294967295: 4294967296"),
          kStartUpOptions.Error(
              "Start-up option Dword2 is no number from 0 to 4294967295: 0x100000000"),
          kStartUpOptions.Error("Start-up option Dword3 is no number from 0 to 4294967295: "
                                "99999999999999999999999999999999"),
          kStartUpOptions.Error("Start-up option Byte1 is no number from 0 to 255: 256")));
}

TEST_F(SupportLibrary, WhatIsNoNumberIsRefusedWithOneLineAndLeftZero) {
  for (const std::string value : {"-1", "+1", "0x", "1.5", "12ab", "ten", "0b11", "1 2", "5 five",
                                  "0x-1", "0xG", "1e3", "\"\"0"}) {
    EXPECT_TRUE(ReadOptions("Dword1=" + value + "\r\n"));
    EXPECT_TRUE(AllOptionsAreZero());
    EXPECT_THAT(m_journal.TakeTraces(),
                ElementsAre(kStartUpOptions.Error(
                    "Start-up option Dword1 is no number from 0 to 4294967295: " + value)));
    fs::remove_all(m_installation / "conf");
  }
}

TEST_F(SupportLibrary, TextMayFillItsFieldAndALongerOneIsRefusedWithOneLine) {
  const std::string text519(519, 'a');
  const std::string text39(39, 'c');
  const std::string text259(259, 'd');
  EXPECT_TRUE(ReadOptions("Text1=" + text519 + "\r\nText2=" + text519 + "\r\nText3=" + text39 +
                          "\r\nText4=" + text259 + "\r\n"));
  EXPECT_EQ(m_options.Text1, text519);
  EXPECT_EQ(m_options.Text2, text519);
  EXPECT_EQ(m_options.Text3, text39);
  EXPECT_EQ(m_options.Text4, text259);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());

  fs::remove_all(m_installation / "conf");
  EXPECT_TRUE(ReadOptions("Text1=" + text519 + "a\r\nText2=" + std::string(5000, 'b') +
                          "\r\nText3=" + text39 + "c\r\nText4=" + text259 + "d\r\n"));
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(
      m_journal.TakeTraces(),
      ElementsAre(kStartUpOptions.Error("Start-up option Text1 has more than 519 characters"),
                  kStartUpOptions.Error("Start-up option Text2 has more than 519 characters"),
                  kStartUpOptions.Error("Start-up option Text3 has more than 39 characters"),
                  kStartUpOptions.Error("Start-up option Text4 has more than 259 characters")));
}

TEST_F(SupportLibrary, QuotesKeepBlanksAndTakeNoRoom) {
  EXPECT_TRUE(ReadOptions("Text1=\"  quoted  \"\r\nText2=  bare  \r\nText3=\r\n"));
  EXPECT_STREQ(m_options.Text1, "  quoted  ");
  EXPECT_STREQ(m_options.Text2, "bare");
  EXPECT_STREQ(m_options.Text3, "");
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

// The code page of a machine, as the library is told it.
class CodePage {
 public:
  explicit CodePage(const Library& library) {
    library.ReplaceImport<decltype(GetACP)>("GetACP", [] { return s_page; });
    s_toNarrow = library.ReplaceImport<decltype(WideCharToMultiByte)>(
        "WideCharToMultiByte", [](UINT codePage, DWORD flags, LPCWCH wide, int length, LPSTR narrow,
                                  int size, LPCCH defaultText, LPBOOL replaced) {
          EXPECT_EQ(codePage, UINT{CP_ACP});
          // As Windows does; Wine takes both for UTF-8, too.
          if (s_page == CP_UTF8 && (flags != 0 || replaced != nullptr)) {
            SetLastError(flags != 0 ? ERROR_INVALID_FLAGS : ERROR_INVALID_PARAMETER);
            return 0;
          }
          return s_toNarrow(s_page, flags, wide, length, narrow, size, defaultText, replaced);
        });
    s_toWide = library.ReplaceImport<decltype(MultiByteToWideChar)>(
        "MultiByteToWideChar",
        [](UINT codePage, DWORD flags, LPCCH narrow, int length, LPWSTR wide, int size) {
          return s_toWide(codePage == CP_ACP ? s_page : codePage, flags, narrow, length, wide,
                          size);
        });
  }

  void Set(UINT page) const { s_page = page; }

 private:
  static inline UINT s_page;
  static inline decltype(WideCharToMultiByte)* s_toNarrow;
  static inline decltype(MultiByteToWideChar)* s_toWide;
};

// In each code page: a letter of it, which a file in that page has as it is, and some that Windows
// would rather replace by the one that fits best than refuse.
TEST_F(SupportLibrary, CharactersOutsideTheCodePageAreRefusedWithOneLineAndNeverReplaced) {
  struct Case {
    UINT page;
    std::wstring text;
    const char* bytes;  // null: refused
  };
  const Case cases[] = {
      {1252, L"\x00C4pfel", "\xC4pfel"},
      {1252, L"a\x2013z", "a\x96z"},
      {1252, L"\x0100pfel", nullptr},         // A
      {1252, L"C:\\a\x2044\x221A", nullptr},  // / and v
      {1252, L"\xFF21\xFF1D", nullptr},       // A and =
      {1252, L"\x4E2D\x6587", nullptr},
      {932, L"\x4E2D\x30BC", "\x92\x86\x83\x5B"},
      {932, L"\x00C4pfel", nullptr},  // A
      {CP_UTF8, L"\x00C4\x4E2D\xFF21", "\xC3\x84\xE4\xB8\xAD\xEF\xBC\xA1"},
  };
  fs::create_directory(m_installation / "conf");
  const CodePage codePage(m_library);
  for (const Case& test : cases) {
    SCOPED_TRACE(test.page);
    codePage.Set(test.page);
    const std::wstring file =
        L"\xFEFF[STARTUP_OPTIONS]\r\nText1=" + test.text + L"\r\nText2=plain\r\n";
    WriteConfiguration(
        std::string(reinterpret_cast<const char*>(file.data()), file.size() * sizeof(wchar_t)));
    EXPECT_TRUE(ReadOptions());
    EXPECT_STREQ(m_options.Text1, test.bytes == nullptr ? "" : test.bytes);
    EXPECT_STREQ(m_options.Text2, "plain");
    if (test.bytes == nullptr) {
      EXPECT_THAT(m_journal.TakeTraces(),
                  ElementsAre(kStartUpOptions.Error(
                      "Start-up option Text1 has characters outside of code page " +
                      std::to_string(test.page))));
      continue;
    }
    EXPECT_TRUE(ReadOptions("Text2=" + std::string(test.bytes) + "\r\n"));
    EXPECT_STREQ(m_options.Text2, test.bytes);
    EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
  }
}

TEST_F(SupportLibrary, TextWhoseConversionFailsIsRefusedWithOneLine) {
  using Convert = decltype(WideCharToMultiByte);
  static Convert* convert;
  convert = m_library.ReplaceImport<Convert>(
      "WideCharToMultiByte", [](UINT codePage, DWORD flags, LPCWCH wide, int length, LPSTR narrow,
                                int size, LPCCH defaultText, LPBOOL replaced) {
        if (narrow == nullptr) {
          return convert(codePage, flags, wide, length, narrow, size, defaultText, replaced);
        }
        *narrow = 'x';
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
      });
  EXPECT_TRUE(ReadOptions("Text1=a\r\nWord1=7\r\n"));
  EXPECT_STREQ(m_options.Text1, "");
  EXPECT_EQ(m_options.Word1, 7);
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kStartUpOptions.Error("Start-up option Text1 cannot be converted (8)")));
}

TEST_F(SupportLibrary, MissingFileSectionOrKeyMeansZero) {
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  WriteConfiguration("[OTHER]\r\nWord1=1\r\n");
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, FileThatNobodyHoldsIsReadWithoutAPause) {
  Pauses::Watch(m_library, [](unsigned) {});
  EXPECT_TRUE(ReadOptions("Word1=1\r\n"));
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_EQ(Pauses::s_count, 0U);
}

TEST_F(SupportLibrary, FileThatIsGivenBackIsReadWithoutALine) {
  WriteConfiguration("[STARTUP_OPTIONS]\r\nWord1=1\r\n");
  // The first pause and the last.
  for (const unsigned given : {1U, 100U}) {
    FileHandle held(
        CreateFileW(m_configuration.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(held);
    Pauses::Watch(m_library, [&](unsigned pause) {
      if (pause == given) {
        held.Reset();
      }
    });
    EXPECT_TRUE(ReadOptions());
    EXPECT_EQ(m_options.Word1, 1);
    EXPECT_EQ(Pauses::s_count, given);
    EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
  }
}

TEST_F(SupportLibrary, FileThatIsEmptiedToBeWrittenAnewIsWaitedFor) {
  WriteText(m_configuration, "");
  // However slow this computer is, the file was emptied just now.
  static FILETIME emptied;
  WIN32_FILE_ATTRIBUTE_DATA data{};
  ASSERT_TRUE(GetFileAttributesExW(m_configuration.c_str(), GetFileExInfoStandard, &data));
  emptied = data.ftLastWriteTime;
  m_library.ReplaceImport<void WINAPI(FILETIME*)>(
      "GetSystemTimeAsFileTime", +[](FILETIME* now) { *now = emptied; });
  Pauses::Watch(m_library, [&](unsigned pause) {
    if (pause == 2) {
      WriteConfiguration("[STARTUP_OPTIONS]\r\nWord1=1\r\n");
    }
  });
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_EQ(Pauses::s_count, 2U);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

// A program that saves by renaming leaves none for a moment.
TEST_F(SupportLibrary, FileThatIsMissingIsLookedForOnceMore) {
  Pauses::Watch(m_library,
                [&](unsigned) { WriteConfiguration("[STARTUP_OPTIONS]\r\nWord1=1\r\n"); });
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_EQ(Pauses::s_milliseconds, 50U);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

// Every start stores an identifier before it asks for the options, so that a file without one is
// being saved anew.
TEST_F(SupportLibrary, OtherHalfOfAFileThatWasJustWrittenIsWaitedFor) {
  const std::string identifier = "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=1\r\n";
  for (const auto& [half, rest] :
       {std::pair<std::string, std::string>{"[TRACE]\r\n", "[STARTUP_OPTIONS]\r\nWord1=12\r\n"},
        {"[TRACE]\r\n[STARTUP_OPTIONS]\r\n", "Word1=12\r\n"},
        {"[STARTUP_OPTIONS]\r\nWord1=1", "2\r\n"},
        {identifier + "[STARTUP_OPTIONS]\r\n", "Word1=12\r\n"}}) {
    SCOPED_TRACE(half);
    for (const bool isFollowed : {false, true}) {
      WriteText(m_configuration, half);
      Pauses::Watch(m_library, [&, this](unsigned pause) {
        if (pause == 7) {
          WriteText(m_configuration, half + rest + (isFollowed ? identifier : ""));
          if (!isFollowed) {
            LetRest(m_configuration);
          }
        }
      });
      EXPECT_TRUE(ReadOptions());
      EXPECT_EQ(m_options.Word1, 12);
      EXPECT_EQ(Pauses::s_count, 7U);
    }
  }
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, WholeFileThatWasJustWrittenIsReadWithoutAPause) {
  Pauses::Watch(m_library, [](unsigned) {});
  const std::string identifier = "[Admin_Console_Client_Agent_Section]\r\nclientuniqueid=1\r\n";
  WriteText(m_configuration, identifier);
  EXPECT_TRUE(ReadOptions());
  WriteText(m_configuration, "[STARTUP_OPTIONS]\r\nWord1=1\r\n" + identifier);
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  WriteText(m_configuration, identifier + "[startup_options]\r\nWord1=2\r\n[TRACE]\r\n");
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 2);
  EXPECT_EQ(Pauses::s_count, 0U);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, FileThatIsBeingWrittenForAll5SecondsIsReadAsItIsWithOneLine) {
  WriteText(m_configuration, "[STARTUP_OPTIONS]\r\n");
  Pauses::Watch(m_library, [&](unsigned pause) {
    WriteText(m_configuration, "[STARTUP_OPTIONS]\r\nWord1=" + std::to_string(pause) + "\r\n");
  });
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 100);
  EXPECT_EQ(Pauses::s_milliseconds, 5000U);
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kStartUpOptions.Error(
                  "Configuration file is still being written after 5 s, its start-up options may "
                  "not be complete: " +
                  m_configuration.string())));
}

// Wine gives the time of a folder's last change for the one at which it was made.
TEST_F(SupportLibrary, FileThatHasJustGoneIsWaitedFor) {
  fs::create_directory(m_configuration.parent_path());
  static bool isMade;
  m_library.ReplaceImport<BOOL WINAPI(LPCWSTR, GET_FILEEX_INFO_LEVELS, void*)>(
      "GetFileAttributesExW", +[](LPCWSTR, GET_FILEEX_INFO_LEVELS, void* data) -> BOOL {
        WIN32_FILE_ATTRIBUTE_DATA times{};
        GetSystemTimeAsFileTime(&times.ftLastWriteTime);
        times.ftCreationTime = isMade ? times.ftLastWriteTime : FILETIME{};
        *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(data) = times;
        return TRUE;
      });
  for (const auto& [isNew, pauses] : {std::pair{true, 1U}, {false, 40U}}) {
    isMade = isNew;
    Pauses::Watch(m_library, [](unsigned) {});
    EXPECT_TRUE(ReadOptions());
    EXPECT_EQ(Pauses::s_count, pauses);
  }
  Pauses::Watch(m_library, [&](unsigned pause) {
    if (pause == 40) {
      WriteConfiguration("[STARTUP_OPTIONS]\r\nWord1=1\r\n");
    }
  });
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

TEST_F(SupportLibrary, FileThatIsNotGivenBackFailsWithOneLineAndAllZero) {
  WriteConfiguration("[STARTUP_OPTIONS]\r\nWord1=1\r\n");
  const FileHandle held(
      CreateFileW(m_configuration.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(held);
  Pauses::Watch(m_library, [](unsigned) {});
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_EQ(Pauses::s_milliseconds, 5000U);
  EXPECT_THAT(
      m_journal.TakeTraces(),
      ElementsAre(kStartUpOptions.Error("Configuration file is still in use after 5 s (32): " +
                                        m_configuration.string())));
}

TEST_F(SupportLibrary, FileThatIsNoTextOrTooLargeFailsWithOneLineAndAllZero) {
  const fs::path file = m_configuration;
  Pauses::Watch(m_library, [](unsigned) {});
  const std::string option = "[STARTUP_OPTIONS]\r\nWord1=1\r\n";
  WriteText(file, option + std::string(4096, '\0'));
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kStartUpOptions.Error(
                  "Configuration file is damaged, it holds null characters: " + file.string())));
  WriteText(file, option + std::string(1048577 - option.size(), ' '));
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kStartUpOptions.Error("Configuration file has more than 1048576 bytes: " +
                                                file.string())));
  WriteConfiguration(option + std::string(1048576 - option.size(), ' '));
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  EXPECT_EQ(Pauses::s_count, 0U);
}

TEST_F(SupportLibrary, FolderOfTheFilesNameFailsWithOneLine) {
  fs::create_directories(m_configuration);
  EXPECT_FALSE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(m_journal.TakeTraces(),
              ElementsAre(kStartUpOptions.Error("Configuration file cannot be read (5): " +
                                                m_configuration.string())));
}

TEST_F(SupportLibrary, ReadOnlyFileIsRead) {
  WriteConfiguration("[STARTUP_OPTIONS]\r\nWord1=1\r\n");
  const std::wstring file = m_configuration.wstring();
  ASSERT_TRUE(SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_TRUE(ReadOptions());
  EXPECT_EQ(m_options.Word1, 1);
  SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(SupportLibrary, EveryRoundReadsTheFoldersAndTheFileAnew) {
  for (int round = 0; round < 3; ++round) {
    const TempFolder other;
    m_machine.SetText(L"RootDir", other.Path().wstring());
    EXPECT_EQ(RootDir(), other.Path().wstring());
    const fs::path file = other.Path() / "conf" / "vorlconf.ini";
    WriteText(file, "[STARTUP_OPTIONS]\r\nWord1=" + std::to_string(round + 1) + "\r\n");
    LetRest(file);
    EXPECT_TRUE(ReadOptions());
    EXPECT_EQ(m_options.Word1, round + 1);
  }
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

// The file that the installer ships, as it is and with all its comments of settings taken off.
TEST_F(SupportLibrary, SampleConfigurationStatesTheDefaults) {
  const fs::path sample =
      StagedFolder().parent_path() / "tests" / "unit" / "sample" / "vorlconf.ini";
  fs::create_directory(m_installation / "conf");
  const fs::path file = m_configuration;
  fs::copy_file(sample, file);
  LetRest(file);
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());

  std::ifstream in(sample);
  std::string text;
  unsigned settings = 0;
  for (std::string line; std::getline(in, line);) {
    const bool isSetting = line.starts_with(";") && line.find('=') != std::string::npos;
    text += (isSetting ? line.substr(1) : line) + "\r\n";
    settings += isSetting ? 1U : 0U;
  }
  EXPECT_EQ(settings, 19U);
  fs::remove_all(m_installation / "conf");
  WriteConfiguration(text);
  EXPECT_TRUE(ReadOptions());
  EXPECT_TRUE(AllOptionsAreZero());
  EXPECT_THAT(m_journal.TakeTraces(), IsEmpty());
}

}  // namespace
