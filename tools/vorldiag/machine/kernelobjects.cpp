#include "tools/vorldiag/machine/kernelobjects.h"

#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>
#include <set>

#include "support/handle.h"
#include "support/procaddress.h"
#include "tools/vorldiag/machine/rights.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

constexpr DWORD kEventQueryState = 1;  // EVENT_QUERY_STATE, which the headers lack

// What NtQueryEvent gives (EventBasicInformation).
struct EventBasicInformation {
  ULONG type;  // 0: manual reset
  LONG state;
};

// What NtQuerySystemInformation gives (SystemExtendedHandleInformation).
constexpr ULONG kSystemExtendedHandleInformation = 64;
struct SystemHandle {
  void* object;
  ULONG_PTR processId;
  ULONG_PTR handle;
  ULONG access;
  USHORT creatorBackTraceIndex;
  USHORT type;
  ULONG attributes;
  ULONG reserved;
};
struct SystemHandles {
  ULONG_PTR count;
  ULONG_PTR reserved;
  SystemHandle handles[1];
};

constexpr ULONG kObjectNameInformation = 1;

using NtQueryEventFunction = NTSTATUS NTAPI(HANDLE, ULONG, void*, ULONG, ULONG*);
using NtQueryFunction = NTSTATUS NTAPI(ULONG, void*, ULONG, ULONG*);
using NtQueryObjectFunction = NTSTATUS NTAPI(HANDLE, ULONG, void*, ULONG, ULONG*);

template <typename Function>
Function* FromNtdll(const char* name) {
  return ProcAddress<Function>(GetModuleHandleW(L"ntdll.dll"), name);
}

std::vector<BYTE> AllHandles() {
  constexpr NTSTATUS tooSmall = static_cast<NTSTATUS>(0xC0000004);
  constexpr std::size_t least = 1024ULL * 1024;
  constexpr std::size_t most = 256 * least;
  auto* const query = FromNtdll<NtQueryFunction>("NtQuerySystemInformation");
  for (std::size_t size = least; query != nullptr && size <= most; size *= 2) {
    std::vector<BYTE> buffer(size);
    ULONG given = 0;
    const NTSTATUS status = query(kSystemExtendedHandleInformation, buffer.data(),
                                  static_cast<ULONG>(buffer.size()), &given);
    if (status == 0) {
      return buffer;
    }
    if (status != tooSmall) {
      break;
    }
  }
  return std::vector<BYTE>(sizeof(SystemHandles));
}

std::wstring NameOf(HANDLE object) {
  auto* const query = FromNtdll<NtQueryObjectFunction>("NtQueryObject");
  alignas(UNICODE_STRING) BYTE buffer[2048];
  ULONG size = 0;
  if (query == nullptr ||
      query(object, kObjectNameInformation, buffer, sizeof(buffer), &size) != 0) {
    return L"";
  }
  const auto* const name = reinterpret_cast<const UNICODE_STRING*>(buffer);
  return name->Buffer == nullptr ? L"" : std::wstring(name->Buffer, name->Length / sizeof(wchar_t));
}

// Whether `handle` of another process is the object `own`. Only handles of the same type are asked
// for, none of which can make the question wait.
bool IsSameObject(HANDLE process, ULONG_PTR handle, const std::wstring& ownName) {
  KernelHandle copy;
  return DuplicateHandle(process, reinterpret_cast<HANDLE>(handle), GetCurrentProcess(),
                         copy.Receive(), 0, FALSE, DUPLICATE_SAME_ACCESS) &&
         NameOf(copy.Get()) == ownName;
}

std::vector<std::string> HoldersOf(HANDLE own) {
  const std::vector<BYTE> buffer = AllHandles();
  const auto* const all = reinterpret_cast<const SystemHandles*>(buffer.data());
  const auto* const end = all->handles + all->count;
  const auto* const mine = std::find_if(all->handles, end, [&](const SystemHandle& entry) {
    return entry.processId == GetCurrentProcessId() &&
           entry.handle == reinterpret_cast<ULONG_PTR>(own);
  });
  if (mine == end) {
    return {};
  }
  const std::wstring name = NameOf(own);
  std::set<ULONG_PTR> found;
  KernelHandle process;
  ULONG_PTR processId = 0;
  for (const auto* entry = all->handles; entry != end; ++entry) {
    if (entry->processId == GetCurrentProcessId() || entry->type != mine->type ||
        found.count(entry->processId) != 0) {
      continue;
    }
    if (mine->object != nullptr && entry->object != nullptr) {
      if (entry->object == mine->object) {
        found.insert(entry->processId);
      }
      continue;
    }
    if (entry->processId != processId) {
      processId = entry->processId;
      process.Reset(OpenProcess(PROCESS_DUP_HANDLE, FALSE, static_cast<DWORD>(processId)));
    }
    if (process && !name.empty() && IsSameObject(process.Get(), entry->handle, name)) {
      found.insert(processId);
    }
  }
  std::vector<std::string> holders;
  holders.reserve(found.size());
  for (const ULONG_PTR id : found) {
    holders.push_back(ProcessText(static_cast<DWORD>(id)));
  }
  return holders;
}

void FillFacts(HANDLE object, ObjectFacts& facts) {
  const Access access = KernelObjectAccess(object, KernelObjectKind());
  facts.owner = access.owner;
  facts.isOwnerTrusted = access.isOwnerTrusted;
  facts.holders = HoldersOf(object);
}

// The path of the program that a process runs; empty when it may not be asked.
std::wstring ImageOf(DWORD processId) {
  const KernelHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  wchar_t path[1024] = {};
  DWORD size = static_cast<DWORD>(std::size(path));
  return process && QueryFullProcessImageNameW(process.Get(), 0, path, &size)
             ? std::wstring(path, size)
             : L"";
}

}  // namespace

EventFacts LookAtEvent(const std::string& name) {
  EventFacts facts;
  KernelHandle event(OpenEventA(kEventQueryState | READ_CONTROL, FALSE, name.c_str()));
  if (!event) {
    facts.error = GetLastError();
    return facts;
  }
  EventBasicInformation information{};
  ULONG size = 0;
  auto* const query = FromNtdll<NtQueryEventFunction>("NtQueryEvent");
  facts.isStateKnown =
      query != nullptr && query(event.Get(), 0, &information, sizeof(information), &size) == 0;
  facts.isSignalled = information.state != 0;
  facts.isManualReset = information.type == 0;
  FillFacts(event.Get(), facts);
  return facts;
}

DWORD LookAtPipe(const wchar_t* name) {
  constexpr DWORD patienceMilliseconds = 1000;
  return WaitNamedPipeW(name, patienceMilliseconds) ? ERROR_SUCCESS : GetLastError();
}

std::optional<std::vector<std::string>> ProcessesOf(const std::wstring& program) {
  const std::wstring name = program.substr(program.find_last_of(L'\\') + 1);
  std::vector<std::string> processes;
  bool isOneHidden = false;
  const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL isThere = snapshot && Process32FirstW(snapshot.Get(), &entry); isThere;
       isThere = Process32NextW(snapshot.Get(), &entry)) {
    const std::wstring image = ImageOf(entry.th32ProcessID);
    if (EqualsIgnoringCase(image, program)) {
      processes.push_back(ProcessText(entry.th32ProcessID));
    }
    isOneHidden |= image.empty() && EqualsIgnoringCase(entry.szExeFile, name);
  }
  const bool isWhole = GetLastError() == ERROR_NO_MORE_FILES && !isOneHidden;
  return isWhole || !processes.empty() ? std::optional(processes) : std::nullopt;
}

std::string ProcessText(DWORD processId) {
  const std::wstring path = ImageOf(processId);
  return path.empty() ? "process " + std::to_string(processId)
                      : Utf8(path.substr(path.find_last_of(L'\\') + 1)) + " (" +
                            std::to_string(processId) + ")";
}
