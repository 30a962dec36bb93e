// The identifier's file in every state in which others leave it.
#include "app/identifierstore.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/trace_recorder.h"
#include "tests/unit/configuration_folder.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr wchar_t kOwn[] = L"0123456789ABCDEF0123456789ABCDEF";
constexpr wchar_t kOther[] = L"FEDCBA9876543210FEDCBA9876543210";
constexpr char kOtherStored[] =
    "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n"
    "clientuniqueid=FEDCBA9876543210FEDCBA9876543210\r\n";
constexpr char kWithoutIdentifier[] = "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nserver=10.0.0.1\r\n";

std::string Utf16(const std::string& text) {
  std::string bytes = "\xFF\xFE";
  for (const char character : text) {
    bytes += {character, '\0'};
  }
  return bytes;
}

// What both operations have in common. Nothing here may write a trace line.
class IdentifierStore : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_THAT(m_recorder.Lines(), IsEmpty()); }

  StoredIdentifier Find() const { return ReadIdentifier(configuration.File().c_str()); }
  StoreOutcome Store(const wchar_t* identifier = kOwn) {
    return StoreIdentifier(identifier, configuration.File().c_str(), found);
  }

  void ExpectPresent(const StoredIdentifier& identifier, const std::wstring& text) const {
    EXPECT_EQ(identifier.state, StoredIdentifierState::kPresent);
    EXPECT_EQ(identifier.text, text);
  }
  void ExpectUnreadable(const StoredIdentifier& identifier, DWORD error) const {
    EXPECT_EQ(identifier.state, StoredIdentifierState::kUnreadable);
    EXPECT_EQ(identifier.error, error);
  }

  const ConfigurationFolder configuration;
  StoredIdentifier found;
  // The calls of Windows' own functions for such files.
  unsigned reads = 0;
  unsigned writes = 0;

 private:
  const TraceRecorder m_recorder;
  CallPatch<struct ReadsTag, decltype(GetPrivateProfileStringW)> m_read{
      "KERNEL32.dll", "GetPrivateProfileStringW",
      [this](LPCWSTR section, LPCWSTR key, LPCWSTR defaultText, LPWSTR buffer, DWORD size,
             LPCWSTR file) {
        ++reads;
        return m_read.CallOriginal(section, key, defaultText, buffer, size, file);
      }};
  CallPatch<struct WritesTag, decltype(WritePrivateProfileStringW)> m_write{
      "KERNEL32.dll", "WritePrivateProfileStringW",
      [this](LPCWSTR section, LPCWSTR key, LPCWSTR text, LPCWSTR file) {
        ++writes;
        return m_write.CallOriginal(section, key, text, file);
      }};
};

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
  configuration.Write("");
  const Pauses pauses([&](unsigned pause) {
    if (pause == 2) {
      configuration.Write(kOtherStored);
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

// What orders all starts of the program that store an identifier.
class StoreIdentifierLock : public IdentifierStore {
 protected:
  StoreIdentifierLock()
      : m_mutex(CreateMutexA(nullptr, FALSE, "Global\\ClientAgentConfigurationFile")) {
    EXPECT_TRUE(m_mutex);
  }

  // What a wait of another thread gives, which then ends, releasing the lock or not.
  DWORD TryToTake(DWORD milliseconds, bool isReleased = true) const {
    DWORD result = WAIT_FAILED;
    std::thread([&] {
      result = WaitForSingleObject(m_mutex.Get(), milliseconds);
      if (isReleased && result != WAIT_TIMEOUT) {
        ReleaseMutex(m_mutex.Get());
      }
    }).join();
    return result;
  }

  static constexpr DWORD kPatience = 60000;

 private:
  KernelHandle m_mutex;
};

TEST_F(StoreIdentifierLock, IsHeldFromTheLookToTheWriteAndNotAfterwards) {
  std::optional<DWORD> duringTheLook;
  DWORD duringTheWrite = WAIT_FAILED;
  configuration.Write(kWithoutIdentifier);
  {
    const CallPatch<struct LockedLookTag, decltype(GetFileInformationByHandle)> look(
        "KERNEL32.dll", "GetFileInformationByHandle",
        [&](HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
          duringTheLook = TryToTake(0);
          return look.CallOriginal(file, information);
        });
    const CallPatch<struct LockedWriteTag, decltype(WritePrivateProfileStringW)> write(
        "KERNEL32.dll", "WritePrivateProfileStringW",
        [&](LPCWSTR section, LPCWSTR key, LPCWSTR text, LPCWSTR file) {
          duringTheWrite = TryToTake(0);
          return write.CallOriginal(section, key, text, file);
        });
    EXPECT_EQ(Store(), StoreOutcome::kStored);
  }
  EXPECT_EQ(duringTheLook, DWORD{WAIT_TIMEOUT});
  EXPECT_EQ(duringTheWrite, DWORD{WAIT_TIMEOUT});
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
}

// Two starts of which one got half an answer about the hardware.
TEST_F(StoreIdentifierLock, WhatTheStartBeforeHasStoredIsKept) {
  EXPECT_EQ(Find().state, StoredIdentifierState::kMissing);
  {
    const CallPatch<struct TurnTag, decltype(WaitForSingleObject)> wait(
        "KERNEL32.dll", "WaitForSingleObject", [&](HANDLE handle, DWORD milliseconds) {
          configuration.Write(kOtherStored);
          return wait.CallOriginal(handle, milliseconds);
        });
    EXPECT_EQ(Store(), StoreOutcome::kKept);
  }
  ExpectPresent(found, kOther);
  EXPECT_EQ(configuration.Read(), kOtherStored);
}

TEST_F(StoreIdentifierLock, IsReleasedOnEveryPath) {
  configuration.Write(kOtherStored);
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
  {
    const FileHandle holder = configuration.Hold();
    const Pauses pauses;
    EXPECT_EQ(Store(), StoreOutcome::kUnreadable);
  }
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
  const std::wstring below = configuration.File() + L"\\below\\vorlconf.ini";
  EXPECT_EQ(StoreIdentifier(kOwn, below.c_str(), found), StoreOutcome::kFailed);
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
}

TEST_F(StoreIdentifierLock, OfAStartThatEndedInTheMiddleIsTakenOver) {
  TryToTake(kPatience, /*isReleased=*/false);
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(TryToTake(kPatience), DWORD{WAIT_OBJECT_0});
  EXPECT_EQ(configuration.Read(), kStored);
}

// Without the lock an identifier that stands there is kept all the same.
TEST_F(StoreIdentifierLock, IsDoneWithoutWhereItCannotBeMade) {
  const CallPatch<struct NoMutexTag, decltype(CreateMutexExA)> create(
      "KERNEL32.dll", "CreateMutexExA", [](LPSECURITY_ATTRIBUTES, LPCSTR, DWORD, DWORD) {
        SetLastError(ERROR_ACCESS_DENIED);
        return HANDLE{nullptr};
      });
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(configuration.Read(), kStored);
  configuration.Write(kOtherStored);
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_EQ(configuration.Read(), kOtherStored);
}

TEST_F(StoreIdentifierLock, IsDoneWithoutWhenSomebodyKeepsIt) {
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
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_NE(lock, nullptr);
  // All that an administrator has on what the service has made.
  EXPECT_EQ(access, DWORD{SYNCHRONIZE});
  EXPECT_EQ(patience, 5000U);
  EXPECT_EQ(releases, 0U);
  EXPECT_EQ(configuration.Read(), kStored);
}

}  // namespace
