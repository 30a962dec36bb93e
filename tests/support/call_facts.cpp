#include "tests/support/call_facts.h"

#include <cerrno>
#include <cstring>
#include <iterator>

namespace {

// The errors of each kind of function, the most usual first: a short run takes one of them.
constexpr DWORD kGeneral[] = {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY, ERROR_INVALID_HANDLE};
constexpr DWORD kFileErrors[] = {ERROR_ACCESS_DENIED,     ERROR_SHARING_VIOLATION,
                                 ERROR_NOT_ENOUGH_MEMORY, ERROR_FILE_NOT_FOUND,
                                 ERROR_PATH_NOT_FOUND,    ERROR_DISK_FULL};
constexpr DWORD kTransferErrors[] = {ERROR_DISK_FULL,         ERROR_LOCK_VIOLATION,
                                     ERROR_NOT_ENOUGH_MEMORY, ERROR_BROKEN_PIPE,
                                     ERROR_IO_DEVICE,         ERROR_ACCESS_DENIED};
constexpr DWORD kServiceErrors[] = {ERROR_ACCESS_DENIED, ERROR_SERVICE_DOES_NOT_EXIST,
                                    RPC_S_SERVER_UNAVAILABLE, ERROR_NOT_ENOUGH_MEMORY};
constexpr DWORD kRegistryErrors[] = {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND,
                                     ERROR_NOT_ENOUGH_MEMORY, ERROR_KEY_DELETED};
constexpr DWORD kMemoryErrors[] = {ERROR_NOT_ENOUGH_MEMORY};
constexpr DWORD kModuleErrors[] = {ERROR_MOD_NOT_FOUND, ERROR_ACCESS_DENIED,
                                   ERROR_NOT_ENOUGH_MEMORY, ERROR_BAD_EXE_FORMAT};
constexpr DWORD kExportErrors[] = {ERROR_PROC_NOT_FOUND};
constexpr DWORD kTextErrors[] = {ERROR_NO_UNICODE_TRANSLATION, ERROR_INVALID_FLAGS,
                                 ERROR_INSUFFICIENT_BUFFER};
constexpr DWORD kPathErrors[] = {ERROR_INSUFFICIENT_BUFFER};
constexpr DWORD kPipeErrors[] = {ERROR_SEM_TIMEOUT, ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED};
constexpr DWORD kErrnoErrors[] = {EACCES, ENOMEM, ENOENT, EINVAL};
constexpr DWORD kErrnoMemory[] = {ENOMEM};
constexpr DWORD kHresults[] = {0x80070005, 0x8007000E, 0x80041033, 0x80010108};

// Access denied, invalid handle, no memory.
constexpr DWORD kNtStatuses[] = {0xC0000022, 0xC0000008, 0xC0000017};

constexpr CallFacts Fails(const char* name, Answer answer, std::span<const DWORD> errors) {
  CallFacts facts{name};
  facts.answer = answer;
  facts.errors = errors;
  return facts;
}

// FALSE, null or 0 and the last error.
constexpr CallFacts Zero(const char* name, std::span<const DWORD> errors = kGeneral) {
  return Fails(name, Answer::kZero, errors);
}
constexpr CallFacts AllOnes(const char* name, std::span<const DWORD> errors = kGeneral) {
  return Fails(name, Answer::kAllOnes, errors);
}
constexpr CallFacts Status(const char* name, std::span<const DWORD> errors = kRegistryErrors) {
  return Fails(name, Answer::kStatus, errors);
}
constexpr CallFacts Hresult(const char* name) { return Fails(name, Answer::kHresult, kHresults); }

constexpr CallFacts Gives(CallFacts facts, Resource resource, int at = kResult) {
  facts.gives = resource;
  facts.givenAt = at;
  return facts;
}
constexpr CallFacts Takes(CallFacts facts, Resource resource, int at = 1) {
  facts.takes = resource;
  facts.takenAt = at;
  return facts;
}
constexpr CallFacts File(CallFacts facts, int lengthAt = 0) {
  facts.isFile = true;
  facts.lengthAt = lengthAt;
  return facts;
}
constexpr CallFacts With(CallFacts facts, Treatment treatment) {
  facts.treatment = treatment;
  return facts;
}
constexpr CallFacts Treated(const char* name, Treatment treatment) {
  return With(CallFacts{name}, treatment);
}
// Ends the life of something and does not fail, as far as a caller can know.
constexpr CallFacts Frees(const char* name, Resource resource, int at = 1) {
  return Takes(Treated(name, Treatment::kOpaque), resource, at);
}

using enum Resource;

constexpr CallFacts kFunctions[] = {
    // Handles.
    Gives(Zero("CreateEventA"), kHandle),
    Gives(Zero("CreateEventW"), kHandle),
    Gives(Zero("OpenEventA"), kHandle),
    Gives(Zero("OpenMutexA"), kHandle),
    Zero("Process32FirstW"),
    Zero("Process32NextW"),
    Zero("QueryFullProcessImageNameW"),
    Gives(Zero("CreateMutexA"), kHandle),
    Gives(Zero("CreateMutexExA"), kHandle),
    Gives(Zero("CreateFileMappingW", kFileErrors), kHandle),
    Gives(Zero("DuplicateHandle"), kHandle, 4),
    Gives(Zero("OpenProcess"), kHandle),
    Gives(Zero("OpenThread"), kHandle),
    Gives(Zero("OpenProcessToken"), kHandle, 3),
    Gives(Zero("OpenThreadToken"), kHandle, 4),
    Gives(Zero("CreateThread"), kHandle),
    Gives(AllOnes("CreateToolhelp32Snapshot"), kHandle),
    Gives(Fails("_beginthreadex", Answer::kZeroErrno, kErrnoErrors), kHandle),
    Takes(Zero("CloseHandle"), kHandle),
    Zero("SetEvent"),
    Zero("ResetEvent"),
    Zero("ReleaseMutex"),
    Zero("SetHandleInformation"),
    AllOnes("WaitForSingleObject"),
    AllOnes("WaitForMultipleObjects"),
    Fails("NtQueryEvent", Answer::kHresult, kNtStatuses),
    Fails("NtQueryObject", Answer::kHresult, kNtStatuses),
    Fails("NtQuerySystemInformation", Answer::kHresult, kNtStatuses),
    Zero("Thread32First"),
    Zero("Thread32Next"),
    Zero("GetThreadTimes"),
    Zero("GetProcessTimes"),
    Zero("GetTokenInformation"),

    // Files, folders and pipes.
    File(Gives(AllOnes("CreateFileA", kFileErrors), kHandle)),
    File(Gives(AllOnes("CreateFileW", kFileErrors), kHandle)),
    File(Zero("ReadFile", kTransferErrors), 3),
    File(Zero("WriteFile", kTransferErrors), 3),
    File(Zero("FlushFileBuffers", kTransferErrors)),
    File(Zero("SetEndOfFile", kTransferErrors)),
    File(Zero("SetFilePointerEx", kTransferErrors)),
    File(Zero("GetFileSizeEx", kTransferErrors)),
    File(Zero("GetFileInformationByHandle", kTransferErrors)),
    File(Zero("GetFileInformationByHandleEx", kTransferErrors)),
    File(Zero("GetFileAttributesExW", kFileErrors)),
    File(AllOnes("GetFileAttributesW", kFileErrors)),
    File(Zero("SetFileAttributesW", kFileErrors)),
    File(Zero("CreateDirectoryW", kFileErrors)),
    File(Zero("RemoveDirectoryW", kFileErrors)),
    File(Zero("DeleteFileW", kFileErrors)),
    File(Zero("CopyFileW", kFileErrors)),
    File(Zero("MoveFileExW", kFileErrors)),
    File(Gives(AllOnes("FindFirstFileW", kFileErrors), kSearch)),
    File(Zero("FindNextFileW", kTransferErrors)),
    Takes(Zero("FindClose"), kSearch),
    Zero("GetFileSecurityW", kFileErrors),
    Zero("GetFullPathNameW", kFileErrors),
    Zero("GetFinalPathNameByHandleW", kFileErrors),
    Zero("QueryDosDeviceW", kFileErrors),
    Zero("SetCurrentDirectoryW", kFileErrors),
    Zero("GetDiskFreeSpaceExW", kFileErrors),
    Zero("GetFileType"),
    Fails("NtQueryInformationFile", Answer::kHresult, kNtStatuses),
    Zero("GetSystemDirectoryW", kFileErrors),
    Fails("GetModuleFileNameW", Answer::kFilled, kPathErrors),
    File(Gives(Zero("MapViewOfFile", kMemoryErrors), kView)),
    Takes(Zero("UnmapViewOfFile"), kView),
    Gives(AllOnes("CreateNamedPipeA", kPipeErrors), kHandle),
    Zero("ConnectNamedPipe", kTransferErrors),
    Zero("DisconnectNamedPipe"),
    Zero("WaitNamedPipeA", kPipeErrors),
    Zero("WaitNamedPipeW", kPipeErrors),
    Zero("GetOverlappedResult", kTransferErrors),
    Zero("CancelIoEx"),
    Zero("GetPrivateProfileStringW", kFileErrors),
    Zero("WritePrivateProfileStringW", kFileErrors),

    // The C runtime's files.
    Gives(Fails("_open", Answer::kAllOnesErrno, kErrnoErrors), kDescriptor),
    Gives(Fails("_wopen", Answer::kAllOnesErrno, kErrnoErrors), kDescriptor),
    Gives(Fails("_sopen", Answer::kAllOnesErrno, kErrnoErrors), kDescriptor),
    Gives(Fails("_sopen_s", Answer::kErrno, kErrnoErrors), kDescriptor, 1),
    Takes(Fails("_close", Answer::kAllOnesErrno, kErrnoErrors), kDescriptor),
    File(Fails("_read", Answer::kAllOnesErrno, kErrnoErrors), 3),
    File(Fails("_write", Answer::kAllOnesErrno, kErrnoErrors), 3),
    Fails("_lseek", Answer::kAllOnesErrno, kErrnoErrors),
    Fails("_lseeki64", Answer::kAllOnesErrno, kErrnoErrors),
    Fails("_filelengthi64", Answer::kAllOnesErrno, kErrnoErrors),
    Fails("_waccess", Answer::kAllOnesErrno, kErrnoErrors),
    Fails("getenv_s", Answer::kErrno, kErrnoErrors),

    // Modules.
    Gives(Zero("LoadLibraryA", kModuleErrors), kModule),
    Gives(Zero("LoadLibraryW", kModuleErrors), kModule),
    Gives(Zero("LoadLibraryExW", kModuleErrors), kModule),
    Takes(Zero("FreeLibrary"), kModule),
    Zero("GetModuleHandleA", kModuleErrors),
    Zero("GetModuleHandleW", kModuleErrors),
    Zero("GetModuleHandleExW", kModuleErrors),
    Zero("GetProcAddress", kExportErrors),
    Zero("FindResourceW", kModuleErrors),
    Zero("LoadResource", kModuleErrors),
    Zero("SizeofResource", kModuleErrors),

    // Services, events of the event log.
    Gives(Zero("OpenSCManagerA", kServiceErrors), kServiceHandle),
    Gives(Zero("OpenSCManagerW", kServiceErrors), kServiceHandle),
    Gives(Zero("OpenServiceA", kServiceErrors), kServiceHandle),
    Zero("QueryServiceConfigW", kServiceErrors),
    Zero("QueryServiceConfig2W", kServiceErrors),
    Zero("QueryServiceObjectSecurity", kServiceErrors),
    Zero("QueryServiceStatusEx", kServiceErrors),
    Gives(Zero("CreateServiceW", kServiceErrors), kServiceHandle),
    Takes(Zero("CloseServiceHandle"), kServiceHandle),
    Zero("ChangeServiceConfig2W", kServiceErrors),
    Zero("ControlService", kServiceErrors),
    Zero("DeleteService", kServiceErrors),
    Zero("QueryServiceStatus", kServiceErrors),
    Zero("StartServiceA", kServiceErrors),
    Zero("SetServiceStatus", kServiceErrors),
    Zero("RegisterServiceCtrlHandlerA", kServiceErrors),
    With(Zero("StartServiceCtrlDispatcherA", kServiceErrors), Treatment::kCallsBack),
    Takes(Zero("DeregisterEventSource"), kEventSource),

    // Registry.
    Gives(Status("RegCreateKeyA"), kKey, 3),
    Gives(Status("RegCreateKeyExA"), kKey, 8),
    Status("RegSetValueExA"),
    Status("RegSetValueExW"),
    Status("RegGetValueW"),
    Gives(Status("RegOpenKeyExW"), kKey, 5),
    Status("RegEnumKeyExW"),
    Takes(Status("RegCloseKey"), kKey),

    // Memory.
    Gives(Fails("malloc", Answer::kZeroErrno, kErrnoMemory), kHeapBlock),
    Gives(Takes(Fails("realloc", Answer::kZeroErrno, kErrnoMemory), kHeapBlock), kHeapBlock),
    Gives(Zero("HeapAlloc", kMemoryErrors), kHeapBlock),
    Gives(Zero("LocalAlloc", kMemoryErrors), kLocalBlock),
    // Only the runtime calls these two, which ends the process when they fail.
    Gives(Treated("calloc", Treatment::kOpaque), kHeapBlock),
    Gives(Treated("_strdup", Treatment::kOpaque), kHeapBlock),
    Frees("free", kHeapBlock),
    Frees("HeapFree", kHeapBlock, 3),
    Frees("LocalFree", kLocalBlock),
    Zero("VirtualLock", kMemoryErrors),
    Gives(AllOnes("TlsAlloc"), kThreadSlot),
    Takes(Zero("TlsFree"), kThreadSlot),

    // Security.
    Gives(Zero("AllocateAndInitializeSid"), kSid, 11),
    Frees("FreeSid", kSid),
    Gives(Status("SetEntriesInAclA"), kLocalBlock, 4),
    Gives(Status("SetEntriesInAclW"), kLocalBlock, 4),
    Zero("InitializeSecurityDescriptor"),
    Zero("SetSecurityDescriptorDacl"),
    Zero("GetSecurityDescriptorDacl"),
    Zero("GetSecurityDescriptorOwner"),
    Zero("GetAce"),
    Zero("EqualSid"),
    Zero("CreateWellKnownSid"),
    Zero("CheckTokenMembership"),
    Gives(Zero("ConvertSidToStringSidW"), kLocalBlock, 2),
    Gives(Zero("ConvertStringSidToSidW"), kLocalBlock, 2),
    Gives(Status("GetNamedSecurityInfoW", kGeneral), kLocalBlock, 8),
    Zero("LookupAccountSidW"),
    Gives(Zero("CryptAcquireContextW"), kProvider, 1),
    Gives(Status("GetSecurityInfo", kGeneral), kLocalBlock, 8),
    Zero("IsWellKnownSid"),
    Gives(Zero("ConvertStringSecurityDescriptorToSecurityDescriptorW"), kLocalBlock, 3),
    Gives(Zero("ConvertStringSecurityDescriptorToSecurityDescriptorA"), kLocalBlock, 3),
    Gives(Zero("CryptAcquireContextA"), kProvider, 1),
    Takes(Zero("CryptReleaseContext"), kProvider),
    Gives(Zero("CryptCreateHash"), kHash, 5),
    Takes(Zero("CryptDestroyHash"), kHash),
    Zero("CryptHashData"),
    Zero("CryptGetHashParam"),
    Zero("CryptGenRandom"),

    // COM and what the fingerprint is made of.
    Gives(Hresult("CoInitializeEx"), kApartment),
    Frees("CoUninitialize", kApartment),
    Hresult("CoInitializeSecurity"),
    Gives(Hresult("CoCreateInstance"), kReference, 5),
    Hresult("CoSetProxyBlanket"),
    Hresult("CLSIDFromString"),
    Gives(Zero("SysAllocString", kMemoryErrors), kText),
    Gives(Zero("SysAllocStringLen", kMemoryErrors), kText),
    Frees("SysFreeString", kText),
    Frees("VariantClear", kVariant),
    Status("GetAdaptersInfo", kGeneral),
    Zero("GetVersionExW"),
    Zero("GetSystemMetrics"),
    Status("RtlVerifyVersionInfo", kHresults),
    Zero("VerifyVersionInfoW"),

    // Text and time.
    Zero("MultiByteToWideChar", kTextErrors),
    Zero("WideCharToMultiByte", kTextErrors),
    Zero("FileTimeToSystemTime"),
    Zero("SystemTimeToFileTime"),
    Zero("FileTimeToDosDateTime"),
    Zero("LCMapStringW", kTextErrors),
    Zero("GetComputerNameExW"),
    Zero("SystemTimeToTzSpecificLocalTime"),
    Zero("FormatMessageW", kMemoryErrors),
    Zero("WriteConsoleW", kTransferErrors),
    Zero("GetConsoleMode"),
    Zero("GetConsoleScreenBufferInfo"),
    Zero("SetConsoleTextAttribute"),
    Zero("SetConsoleCtrlHandler"),
    Zero("GetStdHandle"),
    Zero("SetStdHandle"),
    Treated("Sleep", Treatment::kSleep),
    Treated("GetTickCount", Treatment::kClock),
    Treated("GetTickCount64", Treatment::kClock),

    // The product's own libraries and modules, which other makers may replace.
    Zero("vorlmisc.dll#1"),
    Zero("vorlmisc.dll#2"),
    Zero("vorlmisc.dll#5"),
    Zero("vorlmisc.dll#6"),
    Zero("vorlinfo.dll#1"),
    Zero("vorlinfo.dll#9"),
    Zero("vlevtlog.dll#1904"),
    Treated("vlevtlog.dll#2", Treatment::kOpaque),
    Treated("vlevtlog.dll#3", Treatment::kOpaque),
    Zero("ClientAgentCoreStartUp"),
    Zero("ClientAgentCoreCleanUp"),
    Zero("UpdateBeforeClientService"),
};

// Cannot fail, or fail only by a caller's own mistake.
constexpr const char* kCannotFail[] = {
    "CharLowerA",
    "CompareStringOrdinal",
    "DeleteCriticalSection",
    "EnterCriticalSection",
    "GetACP",
    "GetCommandLineA",
    "GetCurrentProcess",
    "GetCurrentProcessId",
    "GetCurrentThread",
    "GetCurrentThreadId",
    "GetDriveTypeW",
    "GetLastError",
    "GetLocalTime",
    "GetProcessHeap",
    "GetSecurityDescriptorLength",
    "GetStartupInfoA",
    "GetSystemTimeAsFileTime",
    "InitializeCriticalSection",
    "InitializeSListHead",
    "IsDBCSLeadByteEx",
    "IsDebuggerPresent",
    "IsProcessorFeaturePresent",
    "LeaveCriticalSection",
    "LockResource",
    "MapGenericMask",
    "OutputDebugStringA",
    "QueryPerformanceCounter",
    "RtlGetLastNtStatus",
    "QueryPerformanceFrequency",
    "ReleaseSRWLockExclusive",
    "RtlDllShutdownInProgress",
    "SetLastError",
    "SwitchToThread",
    "SysStringLen",
    "TerminateProcess",
    "TlsGetValue",
    "TlsSetValue",
    "TryAcquireSRWLockExclusive",
    "TryEnterCriticalSection",
    "VariantInit",
    "VerSetConditionMask",
    "VirtualQuery",
    // Of the C runtime.
    "_assert",
    "_errno",
    "_exit",
    "_fileno",
    "_mbsicmp",
    "_mbsnbicmp",
    "_stricmp",
    "_strnicmp",
    "_strtoi64",
    "_strtoui64",
    "_ultoa",
    "_vscprintf",
    "_vsnprintf",
    "_vsnwprintf",
    "_wcsicmp",
    "_wcsnicmp",
    "abort",
    "exit",
    "fprintf",
    "fputc",
    "fputs",
    "fputwc",
    "fwprintf",
    "isalnum",
    "isalpha",
    "iscntrl",
    "isdigit",
    "islower",
    "isprint",
    "isspace",
    "isupper",
    "iswctype",
    "isxdigit",
    "localeconv",
    "longjmp",
    "_setjmp",
    "memchr",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "printf",
    "putc",
    "putwc",
    "rand",
    "signal",
    "strchr",
    "strcmp",
    "strcoll",
    "strerror",
    "strlen",
    "strncmp",
    "strpbrk",
    "strrchr",
    "strstr",
    "strtol",
    "strtoul",
    "strxfrm",
    "tolower",
    "toupper",
    "towlower",
    "towupper",
    "vfprintf",
    "wcscat",
    "wcschr",
    "wcscmp",
    "wcscoll",
    "wcscpy",
    "wcscspn",
    "wcsftime",
    "wcslen",
    "wcsncmp",
    "wcsrchr",
    "wcsspn",
    "wcsstr",
    "wcsxfrm",
    "strftime",
};

// Called by the compiler's runtime only, which ends the process when one fails, or, where every
// line is counted, writes no counts.
constexpr const char* kRuntime[] = {
    "AddVectoredExceptionHandler",
    "CreateSemaphoreA",
    "GetHandleInformation",
    "GetProcessAffinityMask",
    "GetThreadContext",
    "GetThreadPriority",
    "RaiseException",
    "ReleaseSemaphore",
    "RemoveVectoredExceptionHandler",
    "ResumeThread",
    "RtlCaptureContext",
    "RtlLookupFunctionEntry",
    "RtlUnwindEx",
    "RtlVirtualUnwind",
    "SetProcessAffinityMask",
    "SetThreadContext",
    "SetThreadPriority",
    "SetUnhandledExceptionFilter",
    "SuspendThread",
    "VirtualProtect",
    "WaitForSingleObjectEx",
    "__C_specific_handler",
    "___lc_codepage_func",
    "___mb_cur_max_func",
    "__getmainargs",
    "__iob_func",
    "__set_app_type",
    "__setusermatherr",
    "_access",
    "_amsg_exit",
    "_cexit",
    "_endthreadex",
    "_getpid",
    "_initterm",
    "_lock",
    "_locking",
    "_onexit",
    "_set_error_mode",
    "_unlock",
    "atoi",
    "fwrite",
    "setlocale",
    "strcat",
};

// What only tests call: the product must not, or the name belongs into the list above.
constexpr const char* kTestOnly[] = {
    "AssignProcessToJobObject",
    "CoRegisterClassObject",
    "CoRevokeClassObject",
    "ConvertSidToStringSidA",
    "CreateHardLinkW",
    "CreateJobObjectW",
    "CreateNamedPipeW",
    "CreatePipe",
    "CreateProcessA",
    "CreateProcessW",
    "DebugBreak",
    "FindFirstChangeNotificationW",
    "FindNextChangeNotification",
    "FindCloseChangeNotification",
    "FindFirstVolumeW",
    "FindNextVolumeW",
    "FindVolumeClose",
    "FormatMessageA",
    "GetDiskFreeSpaceExW",
    "GetExitCodeProcess",
    "GetFileType",
    "GetKernelObjectSecurity",
    "GetModuleFileNameA",
    "GetSystemTimeAdjustment",
    "GetTempFileNameA",
    "GetTempPathA",
    "GetTempPathW",
    "GetVolumeInformationW",
    "IsValidSecurityDescriptor",
    "MoveFileW",
    "PeekNamedPipe",
    "SetErrorMode",
    "SetFilePointer",
    "SetInformationJobObject",
    "SetSystemTime",
    "SetFileSecurityW",
    "LocalReAlloc",
    "CancelSynchronousIo",
    "SetFileTime",
    "DefineDosDeviceW",
    "LockFileEx",
    "UnlockFileEx",
    "OpenEventW",
    "CreateMutexW",
    "RegCreateKeyExW",
    "RegDeleteTreeW",
    "RegDeleteTreeA",
    "RegOverridePredefKey",
    "RegSetKeyValueW",
    "GetEnvironmentVariableW",
    "GetEnvironmentVariableA",
    "SetEnvironmentVariableW",
    "SetEnvironmentVariableA",
    "_creat",
    "_dup",
    "_dup2",
    "_fdopen",
    "_findclose",
    "_fstat64",
    "_get_osfhandle",
    "_getcwd",
    "_isatty",
    "_localtime64",
    "_mkdir",
    "_nextafter",
    "_open_osfhandle",
    "_pipe",
    "_putenv_s",
    "_setmode",
    "_stat64",
    "_telli64",
    "_wchdir",
    "_wchmod",
    "_wfindfirst64",
    "_wfindnext64",
    "_wfopen",
    "_wfullpath",
    "_wgetcwd",
    "_wmkdir",
    "_wstat64",
    "_wutime64",
    "fclose",
    "fflush",
    "fgetpos",
    "fopen",
    "fread",
    "fseek",
    "fsetpos",
    "ftell",
    "getc",
    "getenv",
    "getwc",
    "remove",
    "setvbuf",
    "ungetc",
    "ungetwc",
    "_time64",
    "_gmtime64",
    "clock",
    "qsort",
    "bsearch",
    // The stand-ins' own.
    "FakeTraceClear",
    "FakeTraceCount",
    "FakeTraceGet",
    "FakeTraceSetCallback",
    "FakeInfo",
    "FakeInfoReset",
    "FakeMisc",
    "FakeMiscReset",
    "FakeCore",
    "FakeUpdate",
};

constexpr const char* kData[] = {"__initenv", "_acmdln", "_commode", "_fmode", "_iob"};

const CallFacts* FindIn(std::span<const char* const> names, const char* name,
                        const CallFacts& facts) {
  for (const char* const known : names) {
    if (std::strcmp(known, name) == 0) {
      return &facts;
    }
  }
  return nullptr;
}

}  // namespace

const CallFacts* FindCallFacts(const char* name) {
  for (const CallFacts& facts : kFunctions) {
    if (std::strcmp(facts.name, name) == 0) {
      return &facts;
    }
  }
  static constexpr CallFacts cannotFail = Treated("", Treatment::kCannotFail);
  static constexpr CallFacts runtime = Treated("", Treatment::kRuntime);
  static constexpr CallFacts testOnly = Treated("", Treatment::kTestOnly);
  static constexpr CallFacts data = Treated("", Treatment::kData);
  const CallFacts* facts = FindIn(kCannotFail, name, cannotFail);
  if (facts == nullptr) {
    facts = FindIn(kRuntime, name, runtime);
  }
  if (facts == nullptr) {
    facts = FindIn(kTestOnly, name, testOnly);
  }
  return facts != nullptr ? facts : FindIn(kData, name, data);
}

std::span<const DWORD> ComErrors() { return kHresults; }

const char* NameOf(Resource resource) {
  switch (resource) {
    case kNone:
      return "nothing";
    case kHandle:
      return "handle";
    case kSearch:
      return "search";
    case kServiceHandle:
      return "service handle";
    case kEventSource:
      return "event source";
    case kKey:
      return "registry key";
    case kModule:
      return "module";
    case kView:
      return "mapped view";
    case kHeapBlock:
      return "heap block";
    case kLocalBlock:
      return "local block";
    case kText:
      return "BSTR";
    case kVariant:
      return "VARIANT";
    case kReference:
      return "COM reference";
    case kApartment:
      return "COM apartment";
    case kSid:
      return "SID";
    case kThreadSlot:
      return "thread slot";
    case kDescriptor:
      return "file descriptor";
    case kProvider:
      return "cryptographic provider";
    case kHash:
      return "hash";
  }
  return "";
}
