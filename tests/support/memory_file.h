// A file that is in memory only, for tests that read a million of them.
#pragma once

#include <cstring>
#include <string>

#include "support/procaddress.h"
#include "support/windows_api.h"
#include "tests/support/import_patch.h"
#include "tests/support/installation.h"

// While one lives, what reads the file `path` through this program's imports, or through those of a
// library that was given to Serve, gets the bytes that were put last. One at a time.
class MemoryFile {
 public:
  explicit MemoryFile(std::wstring path) { s_path() = std::move(path); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() = default;

  // Long enough for the next read; not copied.
  static void Put(const std::string& bytes) { s_bytes() = &bytes; }

  // For good: the library is to be unloaded while this lives.
  static void Serve(const Library& library) {
    s_create() = library.ReplaceImport("CreateFileW", &Create);
    s_information() = library.ReplaceImport("GetFileInformationByHandle", &Information);
    s_read() = library.ReplaceImport("ReadFile", &Read);
    s_close() = library.ReplaceImport("CloseHandle", &Close);
  }

 private:
  static std::wstring& s_path() {
    static std::wstring path;
    return path;
  }
  static const std::string*& s_bytes() {
    static const std::string* bytes = nullptr;
    return bytes;
  }
  // Their own addresses: those in the import table are about to change.
  template <typename Function>
  static Function* OfWindows(const char* name) {
    return ProcAddress<Function>(GetModuleHandleW(L"kernel32.dll"), name);
  }
  static decltype(CreateFileW)*& s_create() {
    static decltype(CreateFileW)* original = OfWindows<decltype(CreateFileW)>("CreateFileW");
    return original;
  }
  static decltype(GetFileInformationByHandle)*& s_information() {
    static decltype(GetFileInformationByHandle)* original =
        OfWindows<decltype(GetFileInformationByHandle)>("GetFileInformationByHandle");
    return original;
  }
  static decltype(GetFileSizeEx)*& s_size() {
    static decltype(GetFileSizeEx)* original = OfWindows<decltype(GetFileSizeEx)>("GetFileSizeEx");
    return original;
  }
  static decltype(ReadFile)*& s_read() {
    static decltype(ReadFile)* original = OfWindows<decltype(ReadFile)>("ReadFile");
    return original;
  }
  static decltype(CloseHandle)*& s_close() {
    static decltype(CloseHandle)* original = OfWindows<decltype(CloseHandle)>("CloseHandle");
    return original;
  }

  static HANDLE Handle() { return reinterpret_cast<HANDLE>(ULONG_PTR{0x77710}); }

  static HANDLE WINAPI Create(LPCWSTR path, DWORD access, DWORD share,
                              LPSECURITY_ATTRIBUTES security, DWORD creation, DWORD flags,
                              HANDLE templateFile) {
    if (s_path() == path) {
      return Handle();
    }
    return s_create()(path, access, share, security, creation, flags, templateFile);
  }
  static BOOL WINAPI Information(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
    if (file != Handle()) {
      return s_information()(file, information);
    }
    *information = {};
    information->nFileSizeLow = static_cast<DWORD>(s_bytes()->size());
    return TRUE;
  }
  static BOOL WINAPI Size(HANDLE file, LARGE_INTEGER* size) {
    if (file != Handle()) {
      return s_size()(file, size);
    }
    size->QuadPart = static_cast<LONGLONG>(s_bytes()->size());
    return TRUE;
  }
  static BOOL WINAPI Read(HANDLE file, LPVOID buffer, DWORD length, LPDWORD read,
                          LPOVERLAPPED overlapped) {
    if (file != Handle()) {
      return s_read()(file, buffer, length, read, overlapped);
    }
    *read = static_cast<DWORD>(s_bytes()->size()) < length ? static_cast<DWORD>(s_bytes()->size())
                                                           : length;
    std::memcpy(buffer, s_bytes()->data(), *read);
    return TRUE;
  }
  static BOOL WINAPI Close(HANDLE handle) { return handle == Handle() || s_close()(handle); }

  ImportPatch<decltype(CreateFileW)> m_create{"KERNEL32.dll", "CreateFileW", &Create};
  ImportPatch<decltype(GetFileInformationByHandle)> m_information{
      "KERNEL32.dll", "GetFileInformationByHandle", &Information};
  ImportPatch<decltype(GetFileSizeEx)> m_size{"KERNEL32.dll", "GetFileSizeEx", &Size};
  ImportPatch<decltype(ReadFile)> m_read{"KERNEL32.dll", "ReadFile", &Read};
  ImportPatch<decltype(CloseHandle)> m_close{"KERNEL32.dll", "CloseHandle", &Close};
};
