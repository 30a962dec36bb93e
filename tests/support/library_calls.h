// Calls of the support and version libraries in the journal.
#pragma once

#include <string>

#include "tests/fakes/vorlinfo_fake.h"
#include "tests/fakes/vorlmisc_fake.h"
#include "tests/support/journal.h"

// Puts every call of the support library and of the version library into the journal as long as it
// lives, such as
//   GetClientAgentRootDir
//   GetServiceNameByVersion Client Agent
// A reset of a library's answers ends that for the library.
class LibraryCalls {
 public:
  explicit LibraryCalls(Journal& journal) {
    FakeMisc()->onCall = &OnMiscCall;
    FakeMisc()->context = &journal;
    FakeInfo()->onCall = &OnInfoCall;
    FakeInfo()->context = &journal;
  }
  ~LibraryCalls() {
    FakeMisc()->onCall = nullptr;
    FakeInfo()->onCall = nullptr;
  }
  LibraryCalls(const LibraryCalls&) = delete;
  LibraryCalls& operator=(const LibraryCalls&) = delete;

 private:
  static void OnMiscCall(const char* function, void* context) {
    static_cast<Journal*>(context)->Call(function);
  }
  static void OnInfoCall(const char* function, const char* baseName, void* context) {
    static_cast<Journal*>(context)->Call(std::string(function) + " " + baseName);
  }
};
