// The identifier's file in every state in which others leave it.
#include "tests/unit/identifierstore_test.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>

#include "tests/support/files.h"

namespace {

std::string Utf16(const std::string& text) {
  std::string bytes = "\xFF\xFE";
  for (const char character : text) {
    bytes += {character, '\0'};
  }
  return bytes;
}

using ReadIdentifierTest = IdentifierStore;
using StoreIdentifierTest = IdentifierStore;

TEST_F(ReadIdentifierTest, OrdinaryCasesNeedOneReadAndNoPause) {
  const Pauses pauses;
  unsigned conversions = 0;
  const CallPatch<struct ConversionTag, int(UINT, DWORD, const char*, int, wchar_t*, int)> convert(
      "KERNEL32.dll", "MultiByteToWideChar",
      [&](UINT page, DWORD flags, const char* narrow, int length, wchar_t* wide, int size) {
        ++conversions;
        return convert.CallOriginal(page, flags, narrow, length, wide, size);
      });
  EXPECT_EQ(Find().state, StoredIdentifierState::kMissing);
  for (const char* const text :
       {"[OTHER]\r\nclientuniqueid=x\r\n", kWithoutIdentifier,
        "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=\r\n",
        "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=  \r\n",
        "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=\"\"\r\n"}) {
    SCOPED_TRACE(text);
    reads = 0;
    configuration.Write(text);
    EXPECT_EQ(Find().state, StoredIdentifierState::kMissing);
    EXPECT_EQ(reads, 1U);
  }
  reads = 0;
  configuration.Write(kOtherStored);
  ExpectPresent(Find(), kOther);
  EXPECT_EQ(reads, 1U);
  EXPECT_EQ(pauses.count, 0U);
  EXPECT_EQ(conversions, 0U);
}

TEST_F(ReadIdentifierTest, WaitsUntilAFileIsGivenBack) {
  configuration.Write(kOtherStored);
  for (const DWORD shareMode : {DWORD{0}, DWORD{FILE_SHARE_WRITE}}) {
    FileHandle holder = configuration.Hold(GENERIC_READ, shareMode);
    const Pauses pauses([&](unsigned pause) {
      if (pause == 40) {
        holder.Reset();
      }
    });
    ExpectPresent(Find(), kOther);
    EXPECT_EQ(pauses.count, 40U);
  }
  EXPECT_EQ(reads, 2U);
}

// Wine lets others read what is locked, Windows does not.
TEST_F(ReadIdentifierTest, WaitsUntilALockedRangeIsFree) {
  configuration.Write(kOtherStored);
  bool isLocked = true;
  const CallPatch<struct LockedReadTag, decltype(GetPrivateProfileStringW)> profile(
      "KERNEL32.dll", "GetPrivateProfileStringW",
      [](LPCWSTR, LPCWSTR, LPCWSTR, LPWSTR buffer, DWORD, LPCWSTR) {
        buffer[0] = L'\0';
        return DWORD{0};
      });
  const CallPatch<struct LockedTag, decltype(ReadFile)> read(
      "KERNEL32.dll", "ReadFile",
      [&](HANDLE file, void* buffer, DWORD size, DWORD* count, OVERLAPPED* overlapped) {
        if (isLocked) {
          SetLastError(ERROR_LOCK_VIOLATION);
          return FALSE;
        }
        return read.CallOriginal(file, buffer, size, count, overlapped);
      });
  const Pauses pauses([&](unsigned pause) { isLocked = pause < 3; });
  ExpectPresent(Find(), kOther);
  EXPECT_EQ(pauses.count, 3U);
}

TEST_F(ReadIdentifierTest, WaitsForAnEditorThatHasEmptiedTheFile) {
  configuration.WriteNow("");
  const Pauses pauses([&](unsigned pause) {
    if (pause == 2) {
      configuration.WriteNow(kOtherStored);
    }
  });
  ExpectPresent(Find(), kOther);
  EXPECT_EQ(pauses.count, 2U);
}

TEST_F(ReadIdentifierTest, WaitsForAWriterThatIsHalfDone) {
  configuration.Write(kWithoutIdentifier);
  FileHandle writer = configuration.Hold(GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE);
  const Pauses pauses([&](unsigned) {
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(writer.Get(), kOtherStored, sizeof(kOtherStored) - 1, &written, nullptr));
    writer.Reset();
  });
  ExpectPresent(Find(), kOther);
  EXPECT_EQ(pauses.count, 1U);
}

TEST_F(ReadIdentifierTest, FileThatIsNeverGivenBackIsUnreadableAfter5Seconds) {
  configuration.Write(kOtherStored);
  const FileHandle holder = configuration.Hold();
  const Pauses pauses;
  ExpectUnreadable(Find(), ERROR_SHARING_VIOLATION);
  EXPECT_EQ(pauses.milliseconds, 5000U);
}

TEST_F(ReadIdentifierTest, FileThatMayNotBeReadIsUnreadableAtOnce) {
  configuration.Write(kOtherStored);
  const FileHandle holder = configuration.Hold();  // from Windows' own function, too
  const CallPatch<struct DeniedTag, decltype(CreateFileW)> create(
      "KERNEL32.dll", "CreateFileW",
      [](LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
      });
  const Pauses pauses;
  ExpectUnreadable(Find(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(pauses.count, 0U);
}

TEST_F(ReadIdentifierTest, DamagedAndEndlessFilesAreUnreadable) {
  configuration.Write(std::string(1000, '\0'));
  ExpectUnreadable(Find(), ERROR_INVALID_DATA);
  configuration.Write(std::string(1024 * 1024 + 1, '\n'));
  ExpectUnreadable(Find(), ERROR_FILE_TOO_LARGE);
}

TEST_F(ReadIdentifierTest, FolderOfThatNameAndPathsThatCannotBeHoldNone) {
  const Pauses pauses;
  ASSERT_TRUE(CreateDirectoryW(configuration.File().c_str(), nullptr));
  EXPECT_EQ(Find().state, StoredIdentifierState::kMissing);
  EXPECT_TRUE(RemoveDirectoryW(configuration.File().c_str()));
  for (const std::wstring& path :
       {configuration.File() + L"\\below\\vorlconf.ini", std::wstring(L"C:\\<>\\vorlconf.ini"),
        L"C:\\" + std::wstring(300, L'x') + L"\\vorlconf.ini"}) {
    EXPECT_EQ(ReadIdentifier(path.c_str()).state, StoredIdentifierState::kMissing);
  }
  EXPECT_EQ(pauses.count, 0U);
}

TEST_F(ReadIdentifierTest, Utf16IsReadHeldOrNot) {
  configuration.Write(Utf16(kOtherStored));
  ExpectPresent(Find(), kOther);
  FileHandle holder = configuration.Hold();
  const Pauses pauses([&](unsigned) { holder.Reset(); });
  ExpectPresent(Find(), kOther);
  EXPECT_EQ(pauses.count, 1U);
}

TEST_F(ReadIdentifierTest, LongOneIsCutAt259CharactersHeldOrNot) {
  configuration.Write(FileWith(std::string(3000, 'x')));
  const std::wstring cut(259, L'x');
  ExpectPresent(Find(), cut);
  FileHandle holder = configuration.Hold();
  const Pauses pauses([&](unsigned) { holder.Reset(); });
  ExpectPresent(Find(), cut);
}

// A file that opens with the mark of UTF-8 hides its first section from Windows' own functions.
TEST_F(ReadIdentifierTest, OneBehindTheMarkOfUtf8Counts) {
  configuration.Write("\xEF\xBB\xBF" + std::string(kOtherStored));
  ExpectPresent(Find(), kOther);
  EXPECT_EQ(Store(), StoreOutcome::kKept);
}

// Storing.

TEST_F(StoreIdentifierTest, WritesOneKeyIntoAFileThatItCreates) {
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(configuration.Read(), kStored);
  EXPECT_EQ(found.state, StoredIdentifierState::kMissing);
  EXPECT_EQ(reads, 0U);
  EXPECT_EQ(writes, 1U);
}

TEST_F(StoreIdentifierTest, FillsAnEmptyValueAndLeavesTheRestAlone) {
  configuration.Write(std::string(kWithoutIdentifier) + "clientuniqueid=\r\n[OTHER]\r\nkey=1\r\n");
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(configuration.Read(), std::string(kWithoutIdentifier) +
                                      "clientuniqueid=0123456789ABCDEF0123456789ABCDEF\r\n"
                                      "[OTHER]\r\nkey=1\r\n");
  EXPECT_EQ(reads, 0U);
}

TEST_F(StoreIdentifierTest, KeepsAnyOtherText) {
  for (const std::string& text :
       {std::string("FEDCBA9876543210FEDCBA9876543210"), std::string("x"),
        std::string("0123456789abcdef0123456789abcdef"), std::string(519, 'x'),
        std::string(3000, 'x'), std::string("\xE4\xF6\xFC")}) {
    SCOPED_TRACE(text);
    configuration.Write(FileWith(text));
    EXPECT_EQ(Store(), StoreOutcome::kKept);
    EXPECT_EQ(found.state, StoredIdentifierState::kPresent);
    EXPECT_EQ(configuration.Read(), FileWith(text));
  }
  configuration.Write(Utf16(kOtherStored));
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_EQ(configuration.Read(), Utf16(kOtherStored));
  EXPECT_EQ(writes, 0U);
}

TEST_F(StoreIdentifierTest, KeepsOneWhenItsOwnCouldNotBeConverted) {
  configuration.Write(kOtherStored);
  EXPECT_EQ(Store(L""), StoreOutcome::kKept);
  EXPECT_EQ(configuration.Read(), kOtherStored);
}

TEST_F(StoreIdentifierTest, HasNothingToWriteWhereItsOwnStands) {
  configuration.Write(kStored);
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(writes, 0U);
}

TEST_F(StoreIdentifierTest, WaitsForAHeldFileAndKeepsWhatItHolds) {
  configuration.Write(kOtherStored);
  FileHandle holder = configuration.Hold();
  const Pauses pauses([&](unsigned pause) {
    if (pause == 40) {
      holder.Reset();
    }
  });
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_EQ(pauses.count, 40U);
  ExpectPresent(found, kOther);
  EXPECT_EQ(writes, 0U);
}

TEST_F(StoreIdentifierTest, WaitsForAHeldFileAndWritesWhereNoneStands) {
  configuration.Write(kWithoutIdentifier);
  FileHandle holder = configuration.Hold();
  const Pauses pauses([&](unsigned) { holder.Reset(); });
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(configuration.Read(), std::string(kWithoutIdentifier) +
                                      "clientuniqueid=0123456789ABCDEF0123456789ABCDEF\r\n");
}

TEST_F(StoreIdentifierTest, NeverWritesAFileThatItCannotRead) {
  configuration.Write(kOtherStored);
  {
    const FileHandle holder = configuration.Hold();
    const Pauses pauses;
    EXPECT_EQ(Store(), StoreOutcome::kUnreadable);
    EXPECT_EQ(pauses.milliseconds, 5000U);
    ExpectUnreadable(found, ERROR_SHARING_VIOLATION);
  }
  {
    const CallPatch<struct DeniedStoreTag, decltype(CreateFileW)> create(
        "KERNEL32.dll", "CreateFileW",
        [](LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
          SetLastError(ERROR_ACCESS_DENIED);
          return INVALID_HANDLE_VALUE;
        });
    EXPECT_EQ(Store(), StoreOutcome::kUnreadable);
    ExpectUnreadable(found, ERROR_ACCESS_DENIED);
  }
  EXPECT_EQ(writes, 0U);
  EXPECT_EQ(configuration.Read(), kOtherStored);
}

// A full disk is such a failure on Windows. Under Wine, the function says success all the same, and
// a new file stays empty, so that the next start stores the identifier.
TEST_F(StoreIdentifierTest, FailsWhereNoFileCanBe) {
  ASSERT_TRUE(CreateDirectoryW(configuration.File().c_str(), nullptr));
  EXPECT_EQ(Store(), StoreOutcome::kFailed);
  EXPECT_TRUE(RemoveDirectoryW(configuration.File().c_str()));
  const std::wstring below = configuration.File() + L"\\below\\vorlconf.ini";
  EXPECT_EQ(StoreIdentifier(kOwn, below.c_str(), found), StoreOutcome::kFailed);
  EXPECT_EQ(writes, 2U);
}

// An editor that saves by a rename leaves no file for a moment.
TEST_F(StoreIdentifierTest, KeepsTheOneInAFileThatWasAwayWhenItWasLookedFor) {
  configuration.Write(kOtherStored);
  const std::wstring aside = configuration.File() + L".new";
  ASSERT_TRUE(MoveFileW(configuration.File().c_str(), aside.c_str()));
  EXPECT_EQ(Find().state, StoredIdentifierState::kMissing);
  ASSERT_TRUE(MoveFileW(aside.c_str(), configuration.File().c_str()));
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_EQ(configuration.Read(), kOtherStored);
}

// A program that saves the file in several openings.

TEST_F(StoreIdentifierTest, WaitsForTheOtherHalfOfAFileThatWasJustWritten) {
  for (const auto& [half, rest] :
       {std::pair<std::string, std::string>{"; by hand\r\n[TRACE]\r\nLev",
                                            "els=ALL\r\n" + FileWith("x")},
        {"", FileWith("x")},
        {kWithoutIdentifier, "clientuniqueid=x\r\n"},
        {"[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=", "x\r\n"}}) {
    SCOPED_TRACE(half);
    configuration.WriteNow(half);
    const Pauses pauses([&](unsigned pause) {
      if (pause == 7) {
        configuration.AppendNow(rest);
      }
    });
    EXPECT_EQ(Store(), StoreOutcome::kKept);
    ExpectPresent(found, L"x");
    EXPECT_EQ(pauses.count, 7U);
    EXPECT_EQ(configuration.Read(), half + rest);
  }
  EXPECT_EQ(writes, 0U);
}

TEST_F(StoreIdentifierTest, WritesIntoAFileThatHasRested) {
  configuration.WriteNow(kWithoutIdentifier);
  const Pauses pauses([&](unsigned pause) {
    if (pause == 3) {
      configuration.MakeOld();
    }
  });
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(pauses.count, 3U);
  EXPECT_EQ(configuration.Read(), std::string(kWithoutIdentifier) +
                                      "clientuniqueid=0123456789ABCDEF0123456789ABCDEF\r\n");
}

TEST_F(StoreIdentifierTest, NeverWritesAFileThatIsBeingWrittenForAll5Seconds) {
  configuration.WriteNow(kWithoutIdentifier);
  const Pauses pauses([&](unsigned) { configuration.AppendNow("key=1\r\n"); });
  EXPECT_EQ(Store(), StoreOutcome::kUnreadable);
  ExpectUnreadable(found, ERROR_SHARING_VIOLATION);
  EXPECT_EQ(pauses.milliseconds, 5000U);
  EXPECT_EQ(writes, 0U);
}

TEST_F(StoreIdentifierTest, OrdinaryCasesNeedNoPause) {
  const Pauses pauses;
  configuration.WriteNow(kOtherStored);
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  configuration.Write(kWithoutIdentifier);
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_TRUE(DeleteFileW(configuration.File().c_str()));
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(pauses.count, 0U);
}

// The times of the configuration folder. Wine keeps no time at which a folder was made: it says the
// one of the last change instead.
class StoreIdentifierInFolder : public IdentifierStore {
 protected:
  // So many seconds ago, and made so many seconds before that.
  void SayChanged(unsigned seconds, unsigned age) {
    constexpr ULONGLONG second = 10'000'000;
    const ULONGLONG changed = SystemTime() - seconds * second;
    m_times.ftLastWriteTime = Time(changed);
    m_times.ftCreationTime = Time(changed - age * second);
  }

  bool isKnown = true;

 private:
  static FILETIME Time(ULONGLONG ticks) {
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  }

  WIN32_FILE_ATTRIBUTE_DATA m_times{};
  CallPatch<struct FolderTimesTag, decltype(GetFileAttributesExW)> m_patch{
      "KERNEL32.dll", "GetFileAttributesExW",
      [this](LPCWSTR path, GET_FILEEX_INFO_LEVELS level, void* data) {
        EXPECT_EQ(path + std::wstring(L"\\vorlconf.ini"), configuration.File());
        EXPECT_EQ(level, GetFileExInfoStandard);
        // The lock's file would change the folder.
        const std::wstring lock = path + std::wstring(L"\\vorlconf.lck");
        EXPECT_EQ(GetFileAttributesW(lock.c_str()), INVALID_FILE_ATTRIBUTES);
        *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(data) = m_times;
        return isKnown ? TRUE : FALSE;
      }};
};

TEST_F(StoreIdentifierInFolder, WaitsForAFileWhereOneHasJustGone) {
  SayChanged(0, /*age=*/61);
  {
    const Pauses pauses([&](unsigned pause) {
      if (pause == 39) {
        configuration.WriteNow("[TRACE]\r\n");
      } else if (pause == 41) {
        configuration.AppendNow(kOtherStored);
      }
    });
    EXPECT_EQ(Store(), StoreOutcome::kKept);
    EXPECT_EQ(pauses.count, 41U);
  }
  EXPECT_EQ(configuration.Read(), "[TRACE]\r\n" + std::string(kOtherStored));
  EXPECT_TRUE(DeleteFileW(configuration.File().c_str()));
  const Pauses pauses;
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(pauses.milliseconds, 2000U);
  EXPECT_EQ(configuration.Read(), kStored);
}

TEST_F(StoreIdentifierInFolder, DoesNotWaitWhereNoneHasBeen) {
  const Pauses pauses;
  SayChanged(0, /*age=*/60);
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_TRUE(DeleteFileW(configuration.File().c_str()));
  SayChanged(60, /*age=*/61);
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_TRUE(DeleteFileW(configuration.File().c_str()));
  SayChanged(0, /*age=*/61);
  isKnown = false;
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(pauses.count, 0U);
}

// No lock has the name of a file without extension, and the identifier matters more.
TEST_F(StoreIdentifierTest, NeedsNoLockForAFileWithoutExtension) {
  const TempFolder folder;
  const std::wstring file = (folder.Path() / "vorlconf").wstring();
  ASSERT_EQ(file.find(L'.'), std::wstring::npos);
  unsigned locks = 0;
  {
    const CallPatch<struct LocksTag, decltype(CreateFileW)> open(
        "KERNEL32.dll", "CreateFileW",
        [&](LPCWSTR path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
            DWORD disposition, DWORD flags, HANDLE like) {
          locks += (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0 ? 1 : 0;
          return open.CallOriginal(path, access, share, security, disposition, flags, like);
        });
    EXPECT_EQ(StoreIdentifier(kOwn, file.c_str(), found), StoreOutcome::kStored);
  }
  EXPECT_EQ(locks, 0U);
  ExpectPresent(ReadIdentifier(file.c_str()), kOwn);
}

}  // namespace
