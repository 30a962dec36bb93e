// Owners for files opened through the C runtime.
#pragma once

#include <io.h>

#include <cstdio>

#include "support/handle.h"

// What _open, _wopen and _sopen_s give.
struct FileDescriptorTraits {
  using Type = int;
  static Type Invalid() noexcept { return -1; }
  static void Close(Type descriptor) noexcept { _close(descriptor); }
};
using FileDescriptor = UniqueHandle<FileDescriptorTraits>;

// What fopen gives.
struct FileStreamTraits {
  using Type = std::FILE*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type stream) noexcept { static_cast<void>(std::fclose(stream)); }
};
using FileStream = UniqueHandle<FileStreamTraits>;
