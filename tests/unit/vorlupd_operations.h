// Counts what the update module does to files, so that a test can let one of these operations fail,
// or let the process die in front of it.
#pragma once

#include <functional>

#include "tests/support/installation.h"

namespace operations {

// Called ahead of every operation with its number, from 1; the operation fails with the error that
// it returns unless that is ERROR_SUCCESS.
inline std::function<DWORD(unsigned)> g_onOperation;
inline unsigned g_count = 0;

inline bool MayGoOn() {
  const DWORD error = g_onOperation(++g_count);
  SetLastError(error);
  return error == ERROR_SUCCESS;
}

template <typename Function>
struct Counted;

template <typename... Args>
struct Counted<BOOL(Args...)> {
  template <auto Tag>
  static inline BOOL (*s_original)(Args...) = nullptr;

  template <auto Tag>
  static BOOL Call(Args... args) {
    return MayGoOn() ? s_original<Tag>(args...) : FALSE;
  }

  template <auto Tag>
  static void Install(const Library& module, const char* function) {
    s_original<Tag> = module.ReplaceImport<BOOL(Args...)>(function, &Call<Tag>);
  }
};

// Everything by which the module changes files and folders.
inline void Watch(const Library& module, std::function<DWORD(unsigned)> onOperation) {
  g_onOperation = std::move(onOperation);
  g_count = 0;
  Counted<decltype(MoveFileExW)>::Install<1>(module, "MoveFileExW");
  Counted<decltype(CopyFileW)>::Install<2>(module, "CopyFileW");
  Counted<decltype(CreateDirectoryW)>::Install<3>(module, "CreateDirectoryW");
  Counted<decltype(RemoveDirectoryW)>::Install<4>(module, "RemoveDirectoryW");
  Counted<decltype(DeleteFileW)>::Install<5>(module, "DeleteFileW");
  Counted<decltype(WriteFile)>::Install<6>(module, "WriteFile");
  Counted<decltype(FlushFileBuffers)>::Install<7>(module, "FlushFileBuffers");
}

}  // namespace operations
