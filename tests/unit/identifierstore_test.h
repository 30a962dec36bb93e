// What the tests of the identifier's file share.
#pragma once

#include "app/identifierstore.h"

#include <gmock/gmock.h>

#include <string>

#include "tests/support/trace_recorder.h"
#include "tests/unit/configuration_folder.h"

inline constexpr wchar_t kOwn[] = L"0123456789ABCDEF0123456789ABCDEF";
inline constexpr wchar_t kOther[] = L"FEDCBA9876543210FEDCBA9876543210";
inline constexpr char kOtherStored[] =
    "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\n"
    "clientuniqueid=FEDCBA9876543210FEDCBA9876543210\r\n";
inline constexpr char kWithoutIdentifier[] =
    "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nserver=10.0.0.1\r\n";

// What both operations have in common. Nothing here may write a trace line.
class IdentifierStore : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_THAT(m_recorder.Lines(), ::testing::IsEmpty()); }

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
