// What the service control manager answers, and what of it becomes wrong or less meanwhile.
#include "tools/vorldiag/machine/service.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string_view>

#include "tests/support/import_patch.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class RegistrationReader : public ::testing::Test {
 protected:
  // The configuration, with its texts behind it.
  BOOL Answer(QUERY_SERVICE_CONFIGW* config, DWORD size, DWORD* needed) {
    const bool isSizeAsked = size == 0;
    const DWORD error = isSizeAsked ? sizeError : readError;
    *needed = isSizeAsked && error != ERROR_INSUFFICIENT_BUFFER ? 0 : sizeof(*config);
    if (error != ERROR_SUCCESS) {
      SetLastError(error);
      return FALSE;
    }
    *config = stored;
    return TRUE;
  }

  QUERY_SERVICE_CONFIGW stored{};
  DWORD sizeError = ERROR_INSUFFICIENT_BUFFER;
  DWORD readError = ERROR_SUCCESS;
  Registration registration;
  const ServiceReader reader;
  CallPatch<struct ConfigTag, BOOL WINAPI(SC_HANDLE, QUERY_SERVICE_CONFIGW*, DWORD, DWORD*)> query{
      "ADVAPI32.dll", "QueryServiceConfigW",
      [this](SC_HANDLE, QUERY_SERVICE_CONFIGW* config, DWORD size, DWORD* needed) {
        return Answer(config, size, needed);
      }};
};

TEST_F(RegistrationReader, GivesWhatIsStored) {
  std::wstring command = L"C:\\x.exe";
  std::wstring account = L"LocalSystem";
  std::wstring name = L"X";
  wchar_t dependencies[] = L"Winmgmt\0Spooler\0";
  stored = {SERVICE_WIN32_OWN_PROCESS,
            SERVICE_AUTO_START,
            SERVICE_ERROR_NORMAL,
            command.data(),
            nullptr,
            0,
            dependencies,
            account.data(),
            name.data()};
  EXPECT_EQ(reader.Read(registration), DWORD{ERROR_SUCCESS});
  EXPECT_EQ(registration.command, command);
  EXPECT_EQ(registration.account, account);
  EXPECT_EQ(registration.displayName, name);
  EXPECT_THAT(registration.dependencies, ElementsAre(L"Winmgmt", L"Spooler"));
  EXPECT_EQ(registration.type, DWORD{SERVICE_WIN32_OWN_PROCESS});
  EXPECT_EQ(registration.startType, DWORD{SERVICE_AUTO_START});
  EXPECT_EQ(registration.errorControl, DWORD{SERVICE_ERROR_NORMAL});
}

TEST_F(RegistrationReader, TakesTextsThatAreMissingForEmpty) {
  EXPECT_EQ(reader.Read(registration), DWORD{ERROR_SUCCESS});
  EXPECT_EQ(registration.command, L"");
  EXPECT_THAT(registration.dependencies, IsEmpty());
}

TEST_F(RegistrationReader, SaysWhyItCannotRead) {
  readError = ERROR_SERVICE_MARKED_FOR_DELETE;
  EXPECT_EQ(reader.Read(registration), DWORD{ERROR_SERVICE_MARKED_FOR_DELETE});
  sizeError = ERROR_ACCESS_DENIED;
  EXPECT_EQ(reader.Read(registration), DWORD{ERROR_ACCESS_DENIED});
}

TEST(ServiceReaderOpen, SaysWhyThereIsNoManager) {
  const CallPatch<struct ManagerTag, SC_HANDLE WINAPI(const wchar_t*, const wchar_t*, DWORD)> open(
      "ADVAPI32.dll", "OpenSCManagerW", [](const wchar_t*, const wchar_t*, DWORD) -> SC_HANDLE {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
      });
  ServiceReader reader;
  EXPECT_EQ(reader.Open("X"), DWORD{ERROR_ACCESS_DENIED});
}

TEST(ServiceReaderState, SaysWhyItCannotBeRead) {
  const CallPatch<struct StatusTag, BOOL WINAPI(SC_HANDLE, SC_STATUS_TYPE, BYTE*, DWORD, DWORD*)>
      query("ADVAPI32.dll", "QueryServiceStatusEx",
            [](SC_HANDLE, SC_STATUS_TYPE, BYTE*, DWORD, DWORD*) {
              SetLastError(ERROR_ACCESS_DENIED);
              return FALSE;
            });
  const ServiceReader reader;
  SERVICE_STATUS_PROCESS status{};
  EXPECT_EQ(reader.Read(status), DWORD{ERROR_ACCESS_DENIED});
}

TEST(ProgramOf, IsWhatWindowsWouldStart) {
  EXPECT_EQ(ProgramOf(L"\"C:\\a b\\x.exe\" -y"), L"C:\\a b\\x.exe");
  EXPECT_EQ(ProgramOf(L"\"C:\\a b"), L"C:\\a b");
  EXPECT_EQ(ProgramOf(L"C:\\a b\\x.EXE -y"), L"C:\\a b\\x.EXE");
  EXPECT_EQ(ProgramOf(L"C:\\x.exec\\y.exe"), L"C:\\x.exec\\y.exe");
  EXPECT_EQ(ProgramOf(L"C:\\x -y"), L"C:\\x");
  EXPECT_EQ(ProgramOf(L"x"), L"x");
  EXPECT_EQ(ProgramOf(L""), L"");
}

}  // namespace
