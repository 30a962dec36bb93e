// Closed doors: how often they are tried, and for whom they are closed.
#include <gmock/gmock.h>

#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "tests/unit/trace_log_test.h"

using ::testing::ElementsAre;

namespace {

TEST_F(TraceLogTest, TriesAFullDiskTenTimesASecondAndNotAtEveryLine) {
  int tries = 0;
  const CallPatch<struct FullTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)>
      patch("KERNEL32.dll", "WriteFile",
            [&](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) -> BOOL {
              ++tries;
              SetLastError(ERROR_DISK_FULL);
              return FALSE;
            });
  for (int i = 0; i < 100; ++i) {
    Log(2, "lost");
  }
  EXPECT_EQ(tries, 1);
  m_tick += kSecond / 10;
  Log(2, "lost");
  EXPECT_EQ(tries, 2);
}

TEST_F(TraceLogTest, TriesAFileThatCannotBeOpenedTenTimesASecondAndNotAtEveryLine) {
  fs::create_directories(First());
  int tries = 0;
  CallPatch<struct OpenTag,
            HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE)>
      patch("KERNEL32.dll", "CreateFileW",
            [&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
                DWORD disposition, DWORD flags, HANDLE like) {
              tries += fs::path(path).filename() == "vorltrace.log" ? 1 : 0;
              return patch.CallOriginal(path, access, share, attributes, disposition, flags, like);
            });
  for (int i = 0; i < 100; ++i) {
    Log(2, "%d", i);
  }
  EXPECT_EQ(tries, 1);
  m_tick += kSecond / 10;
  Log(2, "100");
  EXPECT_EQ(tries, 2);
  EXPECT_EQ(SpilledMessages().size(), 101U);
}

// As every line of a program without the right to write the trace would.
TEST_F(TraceLogTest, TriesAFolderThatItCannotUseTenTimesASecondAndNotAtEveryLine) {
  std::ofstream(Logs()) << "a file where the folder should be";
  int tries = 0;
  CallPatch<struct MakeTag, BOOL WINAPI(const wchar_t*, SECURITY_ATTRIBUTES*)> patch(
      "KERNEL32.dll", "CreateDirectoryW",
      [&](const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
        ++tries;
        return patch.CallOriginal(path, attributes);
      });
  for (int i = 0; i < 100; ++i) {
    Log(2, "lost");
  }
  EXPECT_EQ(tries, 1);
  m_tick += kSecond / 10 - 1;
  Log(2, "lost");
  EXPECT_EQ(tries, 1);
  m_tick += 1;
  Log(2, "lost");
  EXPECT_EQ(tries, 2);
}

// A thread that acts for another user, who may not open the files. What is closed to it is not
// closed to the others.
class ActingForAnother : public TraceLogTest {
 protected:
  // A hundred lines of that thread, whose token `openToken` opens, and one of this one.
  void LogAsBoth(const std::function<BOOL(DWORD access, HANDLE* token)>& openToken) {
    const DWORD self = GetCurrentThreadId();
    int refusals = 0;
    const CallPatch<struct TokenTag, BOOL WINAPI(HANDLE, DWORD, BOOL, HANDLE*)> token(
        "ADVAPI32.dll", "OpenThreadToken", [&](HANDLE, DWORD access, BOOL, HANDLE* result) -> BOOL {
          if (GetCurrentThreadId() != self) {
            return openToken(access, result);
          }
          SetLastError(ERROR_NO_TOKEN);
          return FALSE;
        });
    CallPatch<struct OpenTag, HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*,
                                            DWORD, DWORD, HANDLE)>
        open("KERNEL32.dll", "CreateFileW",
             [&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
                 DWORD disposition, DWORD flags, HANDLE like) -> HANDLE {
               if (GetCurrentThreadId() != self) {
                 ++refusals;
                 SetLastError(ERROR_ACCESS_DENIED);
                 return INVALID_HANDLE_VALUE;
               }
               return open.CallOriginal(path, access, share, attributes, disposition, flags, like);
             });
    std::thread([&] {
      for (int i = 0; i < 100; ++i) {
        Log(2, "lost");
      }
    }).join();
    // The configuration, the state and the file of the process's own, once each at most.
    EXPECT_LE(refusals, 102);
    Log(2, "mine");
    EXPECT_THAT(Messages(),
                ElementsAre("100 lines lost: the logs folder cannot be used (error 5)", "mine"));
  }

  static BOOL OpenOwnToken(DWORD access, HANDLE* token) {
    return OpenProcessToken(GetCurrentProcess(), access, token);
  }

  // What is said of the thread's token; nothing where it returns false.
  std::function<bool(TOKEN_STATISTICS&)> m_describe = [](TOKEN_STATISTICS& statistics) {
    statistics = {};  // as Wine does
    return true;
  };

 private:
  const CallPatch<ActingForAnother, decltype(GetTokenInformation)> m_information{
      "ADVAPI32.dll", "GetTokenInformation",
      [this](HANDLE token, TOKEN_INFORMATION_CLASS kind, void* buffer, DWORD size, DWORD* length) {
        return kind == TokenStatistics
                   ? static_cast<BOOL>(m_describe(*static_cast<TOKEN_STATISTICS*>(buffer)))
                   : m_information.CallOriginal(token, kind, buffer, size, length);
      }};
};

TEST_F(ActingForAnother, KeepsNoOtherThreadFromTheFile) { LogAsBoth(&OpenOwnToken); }

TEST_F(ActingForAnother, IsToldFromTheProcessWhereItMayNotBeLookedAt) {
  LogAsBoth([](DWORD, HANDLE*) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  });
}

TEST_F(ActingForAnother, IsToldFromTheProcessWhereNothingIsSaidOfIt) {
  m_describe = [](TOKEN_STATISTICS&) { return false; };
  LogAsBoth(&OpenOwnToken);
}

// As Windows does.
TEST_F(ActingForAnother, IsKnownByTheNumberOfItsSession) {
  m_describe = [](TOKEN_STATISTICS& statistics) {
    statistics.AuthenticationId = {999, 0};
    return true;
  };
  LogAsBoth(&OpenOwnToken);
}

}  // namespace
