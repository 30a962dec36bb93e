// Configuration files in every state that others may leave them in.
#include "companions/common/ini_file.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/handle.h"
#include "tests/support/import_patch.h"
#include "tests/support/installation.h"

extern "C" __declspec(dllimport) void NTAPI
    RtlSetLastWin32ErrorAndNtStatusFromNtStatus(LONG status);

namespace {

constexpr ULONGLONG kSecond = 10'000'000;
constexpr LONG kDeletePending = static_cast<LONG>(0xC0000056);
constexpr LONG kAccessDenied = static_cast<LONG>(0xC0000022);

class ConfigurationFile : public ::testing::Test {
 protected:
  // `seconds`: how long ago the file was written.
  void Write(const std::string& bytes, ULONGLONG seconds = 60) const {
    WriteText(m_path, bytes);
    SetAge(seconds);
  }
  void SetAge(ULONGLONG seconds) const { SetWriteTime(m_path, SystemTime() - seconds * kSecond); }
  FileHandle Open(DWORD access, DWORD shareMode) const {
    FileHandle file(
        CreateFileW(m_path.c_str(), access, shareMode, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(file) << GetLastError();
    return file;
  }

  IniRead Read() { return m_file.Read(m_path.c_str()); }
  std::wstring Value(const wchar_t* key, const wchar_t* section = L"S") const {
    wchar_t value[300];
    const DWORD length = m_file.Value(section, key, value, 300);
    EXPECT_EQ(std::wcslen(value), length);
    return value;
  }

  const TempFolder m_folder;
  const std::filesystem::path m_path = m_folder.Path() / "vorlconf.ini";
  IniFile m_file;
};

// What the functions of Windows take from the same file is what is expected.
TEST_F(ConfigurationFile, IsUnderstoodAsWindowsUnderstandsIt) {
  const std::vector<std::string> contents = {
      "[S]\r\nK=value\r\n",
      "[S]\nK=value",
      "[S]\rK=value\r",
      "[s]\r\nk=value\r\n",
      "K=ahead\r\n[S]\r\nK=value\r\n",
      "[S]\r\n\r\n  K  =  value with blanks \t \r\n",
      "\t[S]\r\n\tK\t=\tvalue\t\r\n",
      "[S]\r\nK=\"  quoted  \"\r\n",
      "[S]\r\nK='  quoted  '\r\n",
      "[S]\r\nK=\"open\r\n",
      "[S]\r\nK=\"mixed'\r\n",
      "[S]\r\nK=\"\r\n",
      "[S]\r\nK=\"\"\r\n",
      "[S]\r\nK=\"\"twice\"\"\r\n",
      "[S]\r\nK=a \"b\" c\r\n",
      "[S]\r\nK=a=b=c\r\n",
      "[S]\r\n;K=comment\r\nK=value\r\n",
      "[S]\r\n  ;K=comment\r\nK=value\r\n",
      "[S]\r\nK=value ; no comment\r\n",
      "[S]\r\nK=first\r\nK=second\r\n",
      "[S]\r\nK=\r\nK=second\r\n",
      "[S]\r\nk=first\r\nK=second\r\n",
      "[S]\r\nKK=other\r\nK2=other\r\n",
      "[S]\r\nJ=other\r\n[T]\r\nK=other section\r\n",
      "[T]\r\nK=other section\r\n[S]\r\nK=value\r\n",
      "[S]\r\nJ=other\r\n[S]\r\nK=second section of the name\r\n",
      "[S]\r\nK=first\r\n[S]\r\nK=second section of the name\r\n",
      "[SS]\r\nK=longer name\r\n",
      "[S] ; comment\r\nK=value\r\n",
      "[S\r\nK=no section\r\n",
      "S]\r\nK=no section\r\n",
      "[]\r\nK=no name\r\n",
      "[S]\r\n=K\r\n",
      "[S]\r\nK=value\x1A",
      "[S]\r\nK=\xE4\xF6\xFC\r\n",
      "\xFF\xFE[\0S\0]\0\r\0\n\0K\0=\0\x2D\x4E\r\0\n\0",
      "nothing of the kind",
      "=",
      "[",
  };
  for (std::size_t i = 0; i < contents.size(); ++i) {
    // A name of its own, because Windows keeps what it has read.
    const std::filesystem::path path = m_folder.Path() / (std::to_string(i) + ".ini");
    std::string bytes = contents[i];
    if (bytes.starts_with("\xFF\xFE")) {
      bytes = std::string("\xFF\xFE[\0S\0]\0\r\0\n\0K\0=\0\x2D\x4E\r\0\n\0", 22);
    }
    WriteText(path, bytes);
    wchar_t expected[300];
    GetPrivateProfileStringW(L"S", L"K", L"", expected, 300, path.c_str());
    ASSERT_EQ(m_file.Read(path.c_str()), IniRead::kDone) << contents[i];
    EXPECT_EQ(Value(L"K"), expected) << contents[i];
  }
}

TEST_F(ConfigurationFile, ValuesAreFoundInLargeFilesToo) {
  std::string bytes = "[S]\r\n";
  for (unsigned i = 0; i < 20'000; ++i) {
    bytes += "key" + std::to_string(i) + "=value " + std::to_string(i) + "\r\n";
  }
  Write(bytes);
  ASSERT_EQ(Read(), IniRead::kDone);
  EXPECT_EQ(Value(L"key0"), L"value 0");
  EXPECT_EQ(Value(L"KEY19999"), L"value 19999");
  EXPECT_EQ(Value(L"key20000"), L"");
}

TEST_F(ConfigurationFile, ValueIsCutAtTheCapacity) {
  Write("[S]\r\nK=12345\r\n");
  ASSERT_EQ(Read(), IniRead::kDone);
  wchar_t value[6] = L"-----";
  EXPECT_EQ(m_file.Value(L"S", L"K", value, 6), 5U);
  EXPECT_STREQ(value, L"12345");
  EXPECT_EQ(m_file.Value(L"S", L"K", value, 5), 4U);
  EXPECT_STREQ(value, L"1234");
  EXPECT_EQ(m_file.Value(L"S", L"K", value, 1), 0U);
  EXPECT_STREQ(value, L"");
}

TEST_F(ConfigurationFile, ByteOrderMarkSaysTheEncoding) {
  Write(std::string("\xFF\xFE[\0S\0]\0\n\0K\0=\0\x2D\x4E\n\0", 20));
  ASSERT_EQ(Read(), IniRead::kDone);
  EXPECT_EQ(Value(L"K"), L"\x4E2D");
  Write(std::string("\xFE\xFF\0[\0S\0]\0\n\0K\0=\x4E\x2D\0\n", 20));
  ASSERT_EQ(Read(), IniRead::kDone);
  EXPECT_EQ(Value(L"K"), L"\x4E2D");
  Write("\xEF\xBB\xBF[S]\nK=\xE4\xB8\xAD\n");
  ASSERT_EQ(Read(), IniRead::kDone);
  EXPECT_EQ(Value(L"K"), L"\x4E2D");
}

// Without a mark it is the machine's code page: bytes that have no character there (1252),
// characters whose second byte looks like a bracket (932), and what is no UTF-8 (65001).
TEST_F(ConfigurationFile, WithoutAMarkIsReadInTheCodePage) {
  UINT codePage = 0;
  const CallPatch<struct CodePage, decltype(MultiByteToWideChar)> patch(
      "KERNEL32.dll", "MultiByteToWideChar",
      [&](UINT asked, DWORD flags, const char* narrow, int length, wchar_t* wide, int size) {
        EXPECT_EQ(asked, UINT{CP_ACP});
        return patch.CallOriginal(codePage, flags, narrow, length, wide, size);
      });
  struct Case {
    UINT page;
    const char* bytes;
    const wchar_t* value;
  };
  const Case cases[] = {
      {1252, "[S]\nK=\x80\xC4\x96\n", L"\x20AC\x00C4\x2013"},
      {1252, "[S]\n\x81\x8D=no character\nK=value\n", L"value"},
      {932, "[S]\n\x83\x5B=\x83\x5D\nK=\x83\x5B[\x83\x5D]\n", L"\x30BC[\x30BE]"},
      {932, "[\x83\x5D]\nK=no\n[S]\nK=value\n", L"value"},
      {CP_UTF8, "[S]\nK=\xC3\x84\xE4\xB8\xAD\n", L"\x00C4\x4E2D"},
      {CP_UTF8, "[S]\n\xC4pfel=no UTF-8\nK=value\n", L"value"},
  };
  for (const Case& test : cases) {
    codePage = test.page;
    Write(test.bytes);
    ASSERT_EQ(Read(), IniRead::kDone) << test.bytes;
    EXPECT_EQ(Value(L"K"), test.value) << test.bytes;
  }
}

TEST_F(ConfigurationFile, OddByteAtTheEndOfUtf16IsLeftOut) {
  Write(std::string("\xFF\xFE[\0S\0]\0\n\0K\0=\0v\0\n", 17));
  ASSERT_EQ(Read(), IniRead::kDone);
  EXPECT_EQ(Value(L"K"), L"v");
}

TEST_F(ConfigurationFile, MissingFileOrFolderIsToldFromAFailure) {
  EXPECT_EQ(Read(), IniRead::kMissing);
  EXPECT_EQ(m_file.Read((m_folder.Path() / "no" / "vorlconf.ini").c_str()), IniRead::kMissing);
  std::filesystem::create_directory(m_path);
  EXPECT_EQ(Read(), IniRead::kFailed);
  EXPECT_EQ(m_file.Error(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_EQ(Value(L"K"), L"");
}

TEST_F(ConfigurationFile, InOtherHandsIsBusyAndKeepsNoFormerValue) {
  Write("[S]\r\nK=value\r\n");
  ASSERT_EQ(Read(), IniRead::kDone);
  {
    const FileHandle reader = Open(GENERIC_READ, 0);
    EXPECT_EQ(Read(), IniRead::kBusy);
    EXPECT_EQ(m_file.Error(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(Value(L"K"), L"");
  }
  {
    // A writer that shares everything may have written half of it.
    const FileHandle writer =
        Open(GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    EXPECT_EQ(Read(), IniRead::kBusy);
    EXPECT_EQ(m_file.Error(), DWORD{ERROR_SHARING_VIOLATION});
  }
  {
    // Wine lets others read what is locked, Windows does not.
    const CallPatch<struct Locked, decltype(ReadFile)> patch(
        "KERNEL32.dll", "ReadFile", [](HANDLE, void*, DWORD, DWORD*, OVERLAPPED*) {
          SetLastError(ERROR_LOCK_VIOLATION);
          return FALSE;
        });
    EXPECT_EQ(Read(), IniRead::kBusy);
    EXPECT_EQ(m_file.Error(), DWORD{ERROR_LOCK_VIOLATION});
  }
  EXPECT_EQ(Read(), IniRead::kDone);
  EXPECT_EQ(Value(L"K"), L"value");
}

// Wine opens what is deleted and still open, Windows does not.
TEST_F(ConfigurationFile, DeletedWhileSomebodyHasItOpenIsBusy) {
  Write("[S]\r\nK=value\r\n");
  for (const LONG status : {kDeletePending, kAccessDenied}) {
    const CallPatch<struct Deleted, decltype(CreateFileW)> patch(
        "KERNEL32.dll", "CreateFileW",
        [&](LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
          RtlSetLastWin32ErrorAndNtStatusFromNtStatus(status);
          // Whatever this system makes of it, Windows makes one error of both.
          SetLastError(ERROR_ACCESS_DENIED);
          return INVALID_HANDLE_VALUE;
        });
    EXPECT_EQ(Read(), status == kDeletePending ? IniRead::kBusy : IniRead::kFailed);
    EXPECT_EQ(m_file.Error(), DWORD{ERROR_ACCESS_DENIED});
  }
  EXPECT_EQ(Read(), IniRead::kDone);
}

TEST_F(ConfigurationFile, IsOpenToReadersAndToItsReplacementWhileItIsRead) {
  Write("[S]\r\nK=value\r\n");
  bool isShared = false;
  const CallPatch<struct WhileOpen, decltype(GetFileInformationByHandle)> patch(
      "KERNEL32.dll", "GetFileInformationByHandle",
      [&](HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
        isShared = static_cast<bool>(
            Open(GENERIC_READ | DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE));
        return patch.CallOriginal(file, information);
      });
  EXPECT_EQ(Read(), IniRead::kDone);
  EXPECT_TRUE(isShared);
}

TEST_F(ConfigurationFile, ChangedWhileItIsReadIsBusy) {
  Write("[S]\r\nK=value\r\n");
  {
    const CallPatch<struct Touch, decltype(ReadFile)> patch(
        "KERNEL32.dll", "ReadFile",
        [&](HANDLE file, void* buffer, DWORD size, DWORD* read, OVERLAPPED* overlapped) {
          const BOOL result = patch.CallOriginal(file, buffer, size, read, overlapped);
          SetAge(30);
          return result;
        });
    EXPECT_EQ(Read(), IniRead::kBusy);
    EXPECT_EQ(Value(L"K"), L"");
  }
  {
    const CallPatch<struct Shorten, decltype(ReadFile)> patch(
        "KERNEL32.dll", "ReadFile",
        [&](HANDLE file, void* buffer, DWORD size, DWORD* read, OVERLAPPED* overlapped) {
          return patch.CallOriginal(file, buffer, size - 1, read, overlapped);
        });
    EXPECT_EQ(Read(), IniRead::kBusy);
  }
  EXPECT_EQ(Read(), IniRead::kDone);
}

TEST_F(ConfigurationFile, OfAnotherSizeThanWhenItWasOpenedIsBusy) {
  using Information = BY_HANDLE_FILE_INFORMATION;
  Write("[S]\r\nK=value\r\n");
  for (DWORD Information::*const size : {&Information::nFileSizeLow, &Information::nFileSizeHigh}) {
    int looks = 0;
    const CallPatch<struct Grow, decltype(GetFileInformationByHandle)> patch(
        "KERNEL32.dll", "GetFileInformationByHandle", [&](HANDLE file, Information* information) {
          const BOOL result = patch.CallOriginal(file, information);
          information->*size += ++looks == 2 ? 1U : 0U;
          return result;
        });
    EXPECT_EQ(Read(), IniRead::kBusy);
    EXPECT_EQ(Value(L"K"), L"");
  }
}

TEST_F(ConfigurationFile, EmptiedAMomentAgoIsBusyAndEmptyForLongerIsEmpty) {
  for (const std::string content : {"", "\xFF\xFE", "\xEF\xBB\xBF"}) {
    Write(content, 1);
    EXPECT_EQ(Read(), IniRead::kBusy);
    EXPECT_EQ(m_file.Error(), DWORD{ERROR_SHARING_VIOLATION});
    SetAge(3);
    EXPECT_EQ(Read(), IniRead::kDone);
    EXPECT_EQ(Value(L"K"), L"");
  }
  // The clock may have been set back.
  Write("", 0);
  SetAge(~ULONGLONG{599});  // in ten minutes
  EXPECT_EQ(Read(), IniRead::kDone);
  // What has a text is taken at once.
  Write("[S]\r\nK=value\r\n", 0);
  EXPECT_EQ(Read(), IniRead::kDone);
}

TEST_F(ConfigurationFile, TellsWhetherWhatWasReadHadJustBeenWritten) {
  constexpr DWORD minute = 60'000;
  for (const auto& [seconds, isExpected] :
       {std::pair{ULONGLONG{1}, true}, {ULONGLONG{61}, false}, {~ULONGLONG{99}, false}}) {
    Write("[S]\r\nK=value\r\n", seconds);
    ASSERT_EQ(Read(), IniRead::kDone);
    // What is read counts, not what has become of the file since.
    SetAge(seconds < 60 ? 90 : 1);
    EXPECT_EQ(m_file.WasJustWritten(minute), isExpected) << seconds;
  }
}

TEST_F(ConfigurationFile, TellsWhetherAnotherSectionStandsBehindOne) {
  using enum SectionPlace;
  for (const auto& [text, place] : {std::pair{"", kNowhere},
                                    {"K=[S]\r\n;[S]\r\n[S\r\n[SS]\r\n", kNowhere},
                                    {"[S]", kLast},
                                    {"[T]\r\n [ s ]\r\nK=1\r\n;[T]\r\nK=[T]\r\n[T", kLast},
                                    {"[S]\r\nK=1\r\n[T]", kFollowed},
                                    {"[S]\n[S]\n", kFollowed},
                                    {"[S]\r\n[T]\r\n[S]\r\n", kFollowed}}) {
    Write(text);
    ASSERT_EQ(Read(), IniRead::kDone);
    EXPECT_EQ(m_file.PlaceOf(L"S"), place) << text;
  }
}

TEST_F(ConfigurationFile, BeyondTheLargestSizeIsRefused) {
  const std::string text = "[S]\r\nK=value\r\n";
  Write(text + std::string(kLargestIniFile - text.size(), ' '));
  EXPECT_EQ(Read(), IniRead::kDone);
  EXPECT_EQ(Value(L"K"), L"value");
  Write(text + std::string(kLargestIniFile - text.size() + 1, ' '));
  EXPECT_EQ(Read(), IniRead::kTooLarge);
  EXPECT_EQ(Value(L"K"), L"");
  // 4 GB and a little, of which only the little stands in the lower half of the size.
  Write(text);
  const CallPatch<struct Huge, decltype(GetFileInformationByHandle)> patch(
      "KERNEL32.dll", "GetFileInformationByHandle",
      [&](HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
        const BOOL result = patch.CallOriginal(file, information);
        information->nFileSizeHigh = 1;
        return result;
      });
  EXPECT_EQ(Read(), IniRead::kTooLarge);
}

TEST_F(ConfigurationFile, WithNullCharactersIsNoText) {
  Write(std::string("[S]\r\nK=value\r\n\0\0\0\0", 18));
  EXPECT_EQ(Read(), IniRead::kNoText);
  EXPECT_EQ(Value(L"K"), L"");
  Write(std::string("[\0S\0]\0\n\0K\0=\0v\0\n\0", 16));
  EXPECT_EQ(Read(), IniRead::kNoText);
}

TEST_F(ConfigurationFile, FailuresOfWindowsAreFailures) {
  Write("[S]\r\nK=value\r\n");
  {
    const CallPatch<struct NoRead, decltype(ReadFile)> patch(
        "KERNEL32.dll", "ReadFile", [](HANDLE, void*, DWORD, DWORD*, OVERLAPPED*) {
          SetLastError(ERROR_CRC);
          return FALSE;
        });
    EXPECT_EQ(Read(), IniRead::kFailed);
    EXPECT_EQ(m_file.Error(), DWORD{ERROR_CRC});
  }
  {
    const CallPatch<struct NoInformation, decltype(GetFileInformationByHandle)> patch(
        "KERNEL32.dll", "GetFileInformationByHandle", [](HANDLE, BY_HANDLE_FILE_INFORMATION*) {
          SetLastError(ERROR_GEN_FAILURE);
          return FALSE;
        });
    EXPECT_EQ(Read(), IniRead::kFailed);
    EXPECT_EQ(m_file.Error(), DWORD{ERROR_GEN_FAILURE});
  }
}

// Of the bytes of the file, and of the text that is made of them.
TEST_F(ConfigurationFile, WithoutMemoryForItIsAFailure) {
  for (const std::string& content :
       {std::string("[S]\r\nK=value\r\n"), std::string("\xFF\xFE[\0S\0]\0", 8)}) {
    Write(content);
    for (int failing = 1; failing <= 2; ++failing) {
      int allocations = 0;
      const CallPatch<struct NoMemory, decltype(HeapAlloc)> patch(
          "KERNEL32.dll", "HeapAlloc", [&](HANDLE heap, DWORD flags, SIZE_T size) -> void* {
            return ++allocations == failing ? nullptr : patch.CallOriginal(heap, flags, size);
          });
      EXPECT_EQ(Read(), IniRead::kFailed) << failing;
      EXPECT_EQ(m_file.Error(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
    EXPECT_EQ(Read(), IniRead::kDone);
  }
}

TEST_F(ConfigurationFile, InNoFolderIsNotWaitedFor) {
  EXPECT_FALSE(HasFolderJustChanged(L"vorlconf.ini"));
  EXPECT_FALSE(HasFolderJustChanged((m_folder.Path() / "missing" / "vorlconf.ini").c_str()));
}

}  // namespace
