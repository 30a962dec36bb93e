// A helper process without a process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/windows_api.h"
#include "tests/support/import_patch.h"
#include "tests/support/journal.h"

// Stands in for the helper process: takes the requests of the helper-pipe client without a pipe and
// writes each into the journal, unscrambled, such as
//   helper pipe: code 15, action 1, flag 0, "Client Agent"
class FakeHelperPipe {
 public:
  explicit FakeHelperPipe(Journal& journal);

  // Nobody listens: opening the pipe fails with `error`, which the journal shows as well.
  void Refuse(DWORD error) { m_refusal = error; }

 private:
  void Receive(const std::uint8_t* data, DWORD length);

  Journal& m_journal;
  DWORD m_refusal = 0;
  std::vector<std::uint8_t> m_received;

  CallPatch<struct CreateFileTag, decltype(CreateFileA)> m_createFile;
  CallPatch<struct WriteFileTag, decltype(WriteFile)> m_writeFile;
  CallPatch<struct ReadFileTag, decltype(ReadFile)> m_readFile;
  CallPatch<struct CloseHandleTag, decltype(CloseHandle)> m_closeHandle;
};
