// Functions of Windows past all patches.
#pragma once

#include "support/procaddress.h"
#include "support/windows_api.h"

// Needs the types of windows.h.
#include <tlhelp32.h>

// Windows' functions at their own addresses, for what goes on while tests have others in the import
// table. To be made before the first test, which may replace GetProcAddress as well.
class DirectCalls {
 private:
  template <typename Function>
  static Function* Find(const char* name) {
    return ProcAddress<Function>(GetModuleHandleW(L"kernel32.dll"), name);
  }

 public:
  decltype(::CloseHandle)* const closeHandle = Find<decltype(::CloseHandle)>("CloseHandle");
  decltype(::GetCurrentProcess)* const getCurrentProcess =
      Find<decltype(::GetCurrentProcess)>("GetCurrentProcess");
  decltype(::GetCurrentProcessId)* const getCurrentProcessId =
      Find<decltype(::GetCurrentProcessId)>("GetCurrentProcessId");
  decltype(::GetCurrentThreadId)* const getCurrentThreadId =
      Find<decltype(::GetCurrentThreadId)>("GetCurrentThreadId");
  decltype(::GetThreadContext)* const getThreadContext =
      Find<decltype(::GetThreadContext)>("GetThreadContext");
  decltype(::IsDebuggerPresent)* const isDebuggerPresent =
      Find<decltype(::IsDebuggerPresent)>("IsDebuggerPresent");
  decltype(::OpenThread)* const openThread = Find<decltype(::OpenThread)>("OpenThread");
  decltype(::ReadProcessMemory)* const readProcessMemory =
      Find<decltype(::ReadProcessMemory)>("ReadProcessMemory");
  decltype(::ResumeThread)* const resumeThread = Find<decltype(::ResumeThread)>("ResumeThread");
  decltype(::SetEvent)* const setEvent = Find<decltype(::SetEvent)>("SetEvent");
  decltype(::SuspendThread)* const suspendThread = Find<decltype(::SuspendThread)>("SuspendThread");
  decltype(::TerminateProcess)* const terminateProcess =
      Find<decltype(::TerminateProcess)>("TerminateProcess");
  decltype(::VirtualQuery)* const virtualQuery = Find<decltype(::VirtualQuery)>("VirtualQuery");
  decltype(::WaitForSingleObject)* const waitForSingleObject =
      Find<decltype(::WaitForSingleObject)>("WaitForSingleObject");
  decltype(::WriteFile)* const writeFile = Find<decltype(::WriteFile)>("WriteFile");

  decltype(::CreateToolhelp32Snapshot)* const createSnapshot =
      Find<decltype(::CreateToolhelp32Snapshot)>("CreateToolhelp32Snapshot");
  decltype(::Thread32First)* const thread32First = Find<decltype(::Thread32First)>("Thread32First");
  decltype(::Thread32Next)* const thread32Next = Find<decltype(::Thread32Next)>("Thread32Next");
  decltype(::RtlLookupFunctionEntry)* const lookupFunctionEntry =
      Find<decltype(::RtlLookupFunctionEntry)>("RtlLookupFunctionEntry");
  decltype(::RtlVirtualUnwind)* const virtualUnwind =
      Find<decltype(::RtlVirtualUnwind)>("RtlVirtualUnwind");
  // The name of the file that is mapped at an address; takes no lock of the loader's, which a
  // hanging thread may hold.
  using MappedFileName = DWORD WINAPI(HANDLE process, void* address, char* name, DWORD size);
  MappedFileName* const mappedFileName = Find<MappedFileName>("K32GetMappedFileNameA");
};
