// Owners for every kind of Windows handle that the program holds. Closing leaves the calling
// thread's last error as it was.
#pragma once

#include <utility>

#include "support/lasterror.h"
#include "support/windows_api.h"

// Owns one handle. Traits say its Type, which value stands for "none" (Invalid) and how it is
// closed (Close). Movable, not copyable.
//
//   const KernelHandle event(CreateEventA(...));
//   if (!event) {
//     trace.Error("CreateEvent Failed %u", GetLastError());
//   }
//   RegistryKey key;
//   RegCreateKeyA(HKEY_LOCAL_MACHINE, szKeyPath, key.Receive());
template <typename Traits>
class UniqueHandle {
 public:
  using Type = typename Traits::Type;

  UniqueHandle() noexcept = default;
  explicit UniqueHandle(Type handle) noexcept : m_handle(handle) {}
  UniqueHandle(UniqueHandle&& other) noexcept : m_handle(other.Release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~UniqueHandle() { Reset(); }

  explicit operator bool() const noexcept { return m_handle != Traits::Invalid(); }
  Type Get() const noexcept { return m_handle; }

  // Gives the handle up; the caller closes it.
  Type Release() noexcept { return std::exchange(m_handle, Traits::Invalid()); }

  // Closes what is held and takes over `handle`.
  void Reset(Type handle = Traits::Invalid()) noexcept {
    const Type old = std::exchange(m_handle, handle);
    if (old != Traits::Invalid()) {
      const LastErrorKeeper keeper;
      Traits::Close(old);
    }
  }

  // Where an interface that returns its handle through a pointer may put it; closes what is held.
  Type* Receive() noexcept {
    Reset();
    return &m_handle;
  }

 private:
  Type m_handle = Traits::Invalid();
};

// Events, threads, processes and everything else that has null for "none" and CloseHandle.
struct KernelHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type handle) noexcept { CloseHandle(handle); }
};
using KernelHandle = UniqueHandle<KernelHandleTraits>;

// What has INVALID_HANDLE_VALUE for "none" and CloseHandle: files, pipes, snapshots.
struct FileHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type handle) noexcept { CloseHandle(handle); }
};
using FileHandle = UniqueHandle<FileHandleTraits>;

// Searches through a folder.
struct FindHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type handle) noexcept { FindClose(handle); }
};
using FindHandle = UniqueHandle<FindHandleTraits>;

// The service control manager and services.
struct ServiceHandleTraits {
  using Type = SC_HANDLE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type handle) noexcept { CloseServiceHandle(handle); }
};
using ServiceHandle = UniqueHandle<ServiceHandleTraits>;

struct RegistryKeyTraits {
  using Type = HKEY;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type key) noexcept { RegCloseKey(key); }
};
using RegistryKey = UniqueHandle<RegistryKeyTraits>;

// Modules loaded with LoadLibrary.
struct ModuleTraits {
  using Type = HMODULE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type module) noexcept { FreeLibrary(module); }
};
using Module = UniqueHandle<ModuleTraits>;

// Memory that a function of Windows hands over to be freed with LocalFree.
struct LocalMemoryTraits {
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type memory) noexcept { LocalFree(memory); }
};
using LocalMemory = UniqueHandle<LocalMemoryTraits>;
