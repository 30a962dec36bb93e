// What the tests of the single steps of the fingerprint share.
#pragma once

#include "identity/ztuuid.h"

#include <gmock/gmock.h>

#include "support/windows_api.h"
#include "tests/support/fingerprint_test.h"
#include "tests/support/import_patch.h"
#include "tests/support/no_memory.h"

// COM is left out of the lean windows.h.
#include <objbase.h>

class CZTUUIDTest : public FingerprintTest {
 protected:
  void SetBiosUuid(const char* text) { StringCchCopyA(fingerprint.BiosUuid, kBiosUuidSize, text); }
  void SetSerial(const char* text) {
    StringCchCopyA(fingerprint.PrimaryHddSerial, kPrimaryHddSerialSize, text);
  }

  TraceRecorder recorder;
};

// While one lives, formatting with one format fails as if the text did not fit.
class NoFormatting {
 public:
  explicit NoFormatting(const std::string& failingFormat)
      : m_patch("msvcrt.dll", "_vsnprintf",
                [this, failingFormat](char* text, std::size_t size, const char* format,
                                      char* arguments) {
                  return format == failingFormat
                             ? -1
                             : m_patch.CallOriginal(text, size, format, arguments);
                }) {}

 private:
  CallPatch<NoFormatting, int __cdecl(char*, std::size_t, const char*, char*)> m_patch;
};
