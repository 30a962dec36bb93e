// What orders all starts of the program that store an identifier.
#include <gmock/gmock.h>

#include <string>
#include <thread>

#include "support/lasterror.h"
#include "tests/unit/identifierstore_test.h"

namespace {

// The lock: a file beside the configuration.
class StoreIdentifierLock : public IdentifierStore {
 protected:
  StoreIdentifierLock() : m_lock(configuration.File()) {
    m_lock.replace(m_lock.size() - 3, 3, L"lck");
  }
  void TearDown() override {
    EXPECT_FALSE(IsThere());
    IdentifierStore::TearDown();
  }

  // None, with the last error set, when somebody has it.
  FileHandle Take(DWORD flags = FILE_FLAG_DELETE_ON_CLOSE, DWORD disposition = OPEN_ALWAYS) const {
    return FileHandle(CreateFileW(m_lock.c_str(), GENERIC_READ | DELETE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  disposition, flags, nullptr));
  }
  bool IsThere() const { return GetFileAttributesW(m_lock.c_str()) != INVALID_FILE_ATTRIBUTES; }
  // The error of whoever wants to have it now.
  DWORD ErrorOfTaking() const { return Take(0, OPEN_EXISTING) ? ERROR_SUCCESS : GetLastError(); }

  const std::wstring& Path() const { return m_lock; }

 private:
  std::wstring m_lock;
};

TEST_F(StoreIdentifierLock, IsHeldFromTheLookToTheWriteAndNotAfterwards) {
  DWORD duringTheLook = ERROR_SUCCESS;
  DWORD duringTheWrite = ERROR_SUCCESS;
  configuration.Write(kWithoutIdentifier);
  {
    const CallPatch<struct LockedLookTag, decltype(GetFileInformationByHandle)> look(
        "KERNEL32.dll", "GetFileInformationByHandle",
        [&](HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
          duringTheLook = ErrorOfTaking();
          return look.CallOriginal(file, information);
        });
    const CallPatch<struct LockedWriteTag, decltype(WritePrivateProfileStringW)> write(
        "KERNEL32.dll", "WritePrivateProfileStringW",
        [&](LPCWSTR section, LPCWSTR key, LPCWSTR text, LPCWSTR file) {
          duringTheWrite = ErrorOfTaking();
          return write.CallOriginal(section, key, text, file);
        });
    EXPECT_EQ(Store(), StoreOutcome::kStored);
  }
  EXPECT_EQ(duringTheLook, DWORD{ERROR_SHARING_VIOLATION});
  EXPECT_EQ(duringTheWrite, DWORD{ERROR_SHARING_VIOLATION});
}

// Two starts of which one got half an answer about the hardware.
TEST_F(StoreIdentifierLock, WhatTheStartBeforeHasStoredIsKept) {
  EXPECT_EQ(Find().state, StoredIdentifierState::kMissing);
  FileHandle other = Take();
  const Pauses pauses([&](unsigned) {
    configuration.Write(kOtherStored);
    other.Reset();
  });
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_EQ(pauses.count, 1U);
  ExpectPresent(found, kOther);
  EXPECT_EQ(configuration.Read(), kOtherStored);
}

// An object of this name, or any other, is for every program to make first and to keep.
TEST_F(StoreIdentifierLock, IsNoNamedObjectThatAnyoneCanKeep) {
  const KernelHandle mutex(CreateMutexA(nullptr, TRUE, "Global\\ClientAgentConfigurationFile"));
  ASSERT_TRUE(mutex);
  const KernelHandle secondWaits(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  StoreOutcome second = StoreOutcome::kFailed;
  StoredIdentifier foundBySecond;
  std::thread other;
  {
    const CallPatch<struct SecondTriesTag, decltype(CreateFileW)> create(
        "KERNEL32.dll", "CreateFileW",
        [&](LPCWSTR path, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
            DWORD disposition, DWORD flags, HANDLE model) {
          const HANDLE file =
              create.CallOriginal(path, access, shareMode, security, disposition, flags, model);
          if (path == Path() && file == INVALID_HANDLE_VALUE) {
            const LastErrorKeeper keeper;
            SetEvent(secondWaits.Get());
          }
          return file;
        });
    const CallPatch<struct InTheMiddleTag, decltype(WritePrivateProfileStringW)> write(
        "KERNEL32.dll", "WritePrivateProfileStringW",
        [&](LPCWSTR section, LPCWSTR key, LPCWSTR text, LPCWSTR file) {
          if (!other.joinable()) {
            other = std::thread([&] {
              second = StoreIdentifier(kOther, configuration.File().c_str(), foundBySecond);
              SetEvent(secondWaits.Get());
            });
            WaitForSingleObject(secondWaits.Get(), INFINITE);
          }
          return write.CallOriginal(section, key, text, file);
        });
    EXPECT_EQ(Store(), StoreOutcome::kStored);
    if (other.joinable()) {
      other.join();
    }
  }
  EXPECT_EQ(second, StoreOutcome::kKept);
  EXPECT_EQ(configuration.Read(), kStored);
}

TEST_F(StoreIdentifierLock, IsReleasedOnEveryPath) {
  configuration.Write(kOtherStored);
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_FALSE(IsThere());
  {
    const FileHandle holder = configuration.Hold();
    const Pauses pauses;
    EXPECT_EQ(Store(), StoreOutcome::kUnreadable);
  }
  EXPECT_FALSE(IsThere());
  const std::wstring below = configuration.File() + L"\\below\\vorlconf.ini";
  EXPECT_EQ(StoreIdentifier(kOwn, below.c_str(), found), StoreOutcome::kFailed);
}

TEST_F(StoreIdentifierLock, LeftByAPowerCutIsTakenOver) {
  Take(0).Reset();
  ASSERT_TRUE(IsThere());
  const Pauses pauses;
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(pauses.count, 0U);
  EXPECT_EQ(configuration.Read(), kStored);
}

// Without the lock an identifier that stands there is kept all the same.
TEST_F(StoreIdentifierLock, IsDoneWithoutWhereItCannotBeMade) {
  const CallPatch<struct NoLockTag, decltype(CreateFileW)> create(
      "KERNEL32.dll", "CreateFileW",
      [&](LPCWSTR path, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
          DWORD disposition, DWORD flags, HANDLE model) {
        if (path != Path()) {
          return create.CallOriginal(path, access, shareMode, security, disposition, flags, model);
        }
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
      });
  const Pauses pauses;
  EXPECT_EQ(Store(), StoreOutcome::kStored);
  EXPECT_EQ(configuration.Read(), kStored);
  configuration.Write(kOtherStored);
  EXPECT_EQ(Store(), StoreOutcome::kKept);
  EXPECT_EQ(configuration.Read(), kOtherStored);
  EXPECT_EQ(pauses.count, 0U);
}

TEST_F(StoreIdentifierLock, IsDoneWithoutWhenSomebodyKeepsIt) {
  const FileHandle keeper = Take();
  ASSERT_TRUE(keeper);
  {
    const Pauses pauses;
    EXPECT_EQ(Store(), StoreOutcome::kStored);
    EXPECT_EQ(pauses.milliseconds, 5000U);
  }
  EXPECT_EQ(configuration.Read(), kStored);
}

}  // namespace
