// Lines of one process that cannot go into the shared file now.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "companions/vlevtlog/trace_result.h"
#include "support/windows_api.h"

// A file of this process alone, made for the first such line. Nobody else can rename or delete it
// while it is open, so that whoever can knows that its process is gone.
class SpillFile {
 public:
  constexpr SpillFile() noexcept = default;
  SpillFile(const SpillFile&) = delete;
  SpillFile& operator=(const SpillFile&) = delete;

  // Writes a line that `why` kept from the shared file. False when it is not written, or would make
  // the file larger than `fullSize` bytes, of which a first line is free.
  bool Write(const wchar_t* folder, std::string_view line, std::uint64_t fullSize,
             const TraceFileResult& why) noexcept;

  bool HasLines() const noexcept { return m_lines.load(std::memory_order_relaxed) != 0; }

  // What is in the file, and why the first line of it came there.
  struct Content {
    wchar_t name[64];
    std::uint64_t lines;
    TraceFileResult why;
  };

  // Closes the file, which then is anybody's. False while a thread writes into it.
  bool HandOver(Content& content) noexcept;

  // For unloading the library.
  void Close() noexcept;

 private:
  bool Open(const wchar_t* folder) noexcept;

  // A bare handle, which the system closes at the end of the process.
  SRWLOCK m_lock = SRWLOCK_INIT;
  std::atomic<std::uint64_t> m_lines{0};
  HANDLE m_file = nullptr;
  std::uint64_t m_size = 0;
  TraceFileResult m_why;
  wchar_t m_name[64] = {};
};
