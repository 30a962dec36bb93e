#pragma once

#include <memory>

#include "support/windows_api.h"

struct KernelHandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};

// A kernel handle that is closed at the end of the scope; null stands for none.
using OwnedHandle = std::unique_ptr<HANDLE, KernelHandleCloser>;
