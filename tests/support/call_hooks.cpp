#include "tests/support/call_hooks.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "support/procaddress.h"

// COM is left out of the lean windows.h.
#include <objbase.h>
#include <wbemidl.h>

namespace {

using Word = std::uintptr_t;
// Reads more arguments than most functions have, which lie in the stack of the caller.
using AnyFunction = Word(Word, Word, Word, Word, Word, Word, Word, Word, Word, Word, Word, Word,
                         Word, Word, Word, Word);

// Windows' functions at their own addresses.
template <typename Function>
Function* Direct(const char* library, const char* name) {
  return ProcAddress<Function>(GetModuleHandleA(library), name);
}
struct DirectFunctions {
  decltype(::GetLastError)* getLastError =
      Direct<decltype(::GetLastError)>("kernel32.dll", "GetLastError");
  decltype(::SetLastError)* setLastError =
      Direct<decltype(::SetLastError)>("kernel32.dll", "SetLastError");
  decltype(::TlsGetValue)* tlsGetValue =
      Direct<decltype(::TlsGetValue)>("kernel32.dll", "TlsGetValue");
  decltype(::TlsSetValue)* tlsSetValue =
      Direct<decltype(::TlsSetValue)>("kernel32.dll", "TlsSetValue");
  decltype(::TerminateProcess)* terminateProcess =
      Direct<decltype(::TerminateProcess)>("kernel32.dll", "TerminateProcess");
  decltype(::SwitchToThread)* switchToThread =
      Direct<decltype(::SwitchToThread)>("kernel32.dll", "SwitchToThread");
  decltype(::GetModuleHandleExW)* getModuleHandleEx =
      Direct<decltype(::GetModuleHandleExW)>("kernel32.dll", "GetModuleHandleExW");
  int*(__cdecl* errorNumber)() = Direct<int* __cdecl()>("msvcrt.dll", "_errno");
  void* sleep = reinterpret_cast<void*>(Direct<decltype(::Sleep)>("kernel32.dll", "Sleep"));
  void* getTickCount =
      reinterpret_cast<void*>(Direct<decltype(::GetTickCount)>("kernel32.dll", "GetTickCount"));
  void* getTickCount64 =
      reinterpret_cast<void*>(Direct<decltype(::GetTickCount64)>("kernel32.dll", "GetTickCount64"));
  DWORD unheardSlot = TlsAlloc();
};

const DirectFunctions& Windows() {
  static const DirectFunctions functions;
  return functions;
}

// Which interface a call gives, so that it is hooked as well.
enum class Interface { kNone, kLocator, kServices, kEnumerator, kObject };

struct Thunk {
  std::string name;
  CallFacts facts;
  void* original = nullptr;
  Interface given = Interface::kNone;
};

constexpr std::size_t kMaxThunks = 800;
// By number, never moved or freed: hooked code may hold on to them.
Thunk* g_thunks[kMaxThunks];
std::size_t g_thunkCount = 0;
std::map<std::pair<void*, std::string>, std::size_t> g_thunkOf;
std::mutex g_thunkMutex;

std::atomic<CallListener*> g_listener = nullptr;
std::atomic<int> g_listening = 0;  // threads that are with the listener now
std::atomic<ULONGLONG> g_slept = 0;

// The listener as long as this lives, which CallHooks waits for.
class Listening {
 public:
  Listening() {
    ++g_listening;
    m_listener = g_listener;
  }
  ~Listening() { --g_listening; }
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;
  CallListener* operator->() const { return m_listener; }
  explicit operator bool() const { return m_listener != nullptr; }

 private:
  CallListener* m_listener;
};

bool IsUnheard() { return Windows().tlsGetValue(Windows().unheardSlot) != nullptr; }
void SetUnheard(bool isUnheard) {
  Windows().tlsSetValue(Windows().unheardSlot,
                        isUnheard ? const_cast<DirectFunctions*>(&Windows()) : nullptr);
}

Word CallOriginal(const Thunk& thunk, const Word (&a)[kMaxArguments]) {
  return reinterpret_cast<AnyFunction*>(thunk.original)(a[0], a[1], a[2], a[3], a[4], a[5], a[6],
                                                        a[7], a[8], a[9], a[10], a[11], a[12],
                                                        a[13], a[14], a[15]);
}

Word FailureOf(const CallFacts& facts, DWORD error, const Word (&arguments)[kMaxArguments]) {
  switch (facts.answer) {
    case Answer::kZero:
      Windows().setLastError(error);
      return 0;
    case Answer::kAllOnes:
      Windows().setLastError(error);
      return ~Word{0};
    case Answer::kStatus:
    case Answer::kErrno:
    case Answer::kHresult:
      return error;
    case Answer::kZeroErrno:
      *Windows().errorNumber() = static_cast<int>(error);
      return 0;
    case Answer::kAllOnesErrno:
      *Windows().errorNumber() = static_cast<int>(error);
      return ~Word{0};
    case Answer::kFilled: {
      auto* const path = reinterpret_cast<wchar_t*>(arguments[1]);
      const auto size = static_cast<std::size_t>(arguments[2]);
      for (std::size_t i = 0; i + 1 < size; ++i) {
        path[i] = L'x';
      }
      if (size != 0) {
        path[size - 1] = L'\0';
      }
      Windows().setLastError(ERROR_INSUFFICIENT_BUFFER);
      return size;
    }
  }
  return 0;
}

void* WithHook(const std::string& name, const CallFacts& facts, void* function,
               Interface given = Interface::kNone);
void HookInterface(Interface kind, void* object);

// The name under which call_facts.h knows what GetProcAddress was asked for.
std::string NameOfExport(HMODULE module, const char* name) {
  if (reinterpret_cast<Word>(name) > 0xFFFF) {
    return name;
  }
  char path[MAX_PATH] = {};
  GetModuleFileNameA(module, path, sizeof(path));
  const char* const file = std::strrchr(path, '\\');
  return std::string(file != nullptr ? file + 1 : path) + "#" +
         std::to_string(reinterpret_cast<Word>(name));
}

// What the call gave is hooked in its turn.
Word HookResult(const Thunk& thunk, const Word (&arguments)[kMaxArguments], Word result) {
  if (thunk.name == "GetProcAddress" && result != 0) {
    const std::string name = NameOfExport(reinterpret_cast<HMODULE>(arguments[0]),
                                          reinterpret_cast<const char*>(arguments[1]));
    const CallFacts* const facts = FindCallFacts(name.c_str());
    if (facts == nullptr) {
      const Listening listener;
      if (listener) {
        listener->OnUnexpected(name.c_str());
      }
      return result;
    }
    return reinterpret_cast<Word>(WithHook(name, *facts, reinterpret_cast<void*>(result)));
  }
  Interface given = thunk.given;
  if (thunk.name == "CoCreateInstance" &&
      *reinterpret_cast<const IID*>(arguments[3]) == __uuidof(IWbemLocator)) {
    given = Interface::kLocator;
  }
  if (given != Interface::kNone && static_cast<HRESULT>(result) >= 0) {
    HookInterface(given, *reinterpret_cast<void**>(arguments[thunk.facts.givenAt - 1]));
  }
  return result;
}

Word Listened(const Thunk& thunk, Word (&arguments)[kMaxArguments]) {
  const HookedCall call{thunk.name.c_str(), thunk.facts, arguments};
  const DWORD lastError = Windows().getLastError();
  Verdict verdict;
  {
    const Listening listener;
    if (listener) {
      if (thunk.facts.treatment == Treatment::kTestOnly) {
        listener->OnUnexpected(call.name);
      } else {
        verdict = listener->OnCall(call);
      }
    }
  }
  if (verdict.kind == Verdict::Kind::kEndAt) {
    Windows().terminateProcess(GetCurrentProcess(), kEndedAtCall);
  }
  const CallFacts& facts = thunk.facts;
  const bool isFailed = verdict.kind == Verdict::Kind::kFail;
  const bool isMade =
      !isFailed || (facts.takes != Resource::kNone && facts.gives == Resource::kNone);
  if (verdict.kind == Verdict::Kind::kLess || verdict.kind == Verdict::Kind::kEndIn) {
    Word& length = arguments[facts.lengthAt - 1];
    length = static_cast<DWORD>(length) / 2;
  }
  Word result = 0;
  if (isMade) {
    Windows().setLastError(lastError);
    SetUnheard(facts.treatment != Treatment::kCallsBack);
    result = CallOriginal(thunk, arguments);
    SetUnheard(true);
  }
  const DWORD leftError = Windows().getLastError();
  if (verdict.kind == Verdict::Kind::kEndIn) {
    Windows().terminateProcess(GetCurrentProcess(), kEndedAtCall);
  }
  if (isMade && !isFailed) {
    result = HookResult(thunk, arguments, result);
  }
  {
    const Listening listener;
    if (listener) {
      listener->OnReturn(call, result, isMade && !isFailed);
    }
  }
  Windows().setLastError(leftError);
  return isFailed ? FailureOf(facts, verdict.error, arguments) : result;
}

Word Dispatch(std::size_t number, Word (&arguments)[kMaxArguments]) {
  const Thunk& thunk = *g_thunks[number];
  const DWORD lastError = Windows().getLastError();
  const bool isHeard = !IsUnheard() && g_listener != nullptr;
  Windows().setLastError(lastError);
  if (!isHeard) {
    return CallOriginal(thunk, arguments);
  }
  const UnheardCalls unheard;
  switch (thunk.facts.treatment) {
    case Treatment::kSleep:
      if (thunk.original == Windows().sleep && static_cast<DWORD>(arguments[0]) != INFINITE) {
        g_slept += static_cast<DWORD>(arguments[0]);
        Windows().switchToThread();
        return 0;
      }
      return CallOriginal(thunk, arguments);
    case Treatment::kClock: {
      const Word ticks = CallOriginal(thunk, arguments);
      const bool isReal =
          thunk.original == Windows().getTickCount || thunk.original == Windows().getTickCount64;
      return isReal ? ticks + g_slept : ticks;
    }
    default:
      return Listened(thunk, arguments);
  }
}

template <std::size_t kNumber>
Word Hook(Word a, Word b, Word c, Word d, Word e, Word f, Word g, Word h, Word i, Word j, Word k,
          Word l, Word m, Word n, Word o, Word p) {
  Word arguments[kMaxArguments] = {a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p};
  return Dispatch(kNumber, arguments);
}

template <std::size_t... kNumbers>
AnyFunction* HookOf(std::size_t number, std::index_sequence<kNumbers...> /*all*/) {
  static constexpr AnyFunction* hooks[] = {&Hook<kNumbers>...};
  return hooks[number];
}

// `function` with the listener in front of it.
void* WithHook(const std::string& name, const CallFacts& facts, void* function, Interface given) {
  switch (facts.treatment) {
    case Treatment::kRuntime:
    case Treatment::kCannotFail:
    case Treatment::kData:
      return function;
    default:
      break;
  }
  const std::lock_guard guard(g_thunkMutex);
  const auto [found, isNew] = g_thunkOf.try_emplace({function, name}, g_thunkCount);
  if (isNew) {
    if (g_thunkCount == kMaxThunks) {
      g_thunkOf.erase(found);
      return function;
    }
    g_thunks[g_thunkCount++] = new Thunk{name, facts, function, given};
  }
  return reinterpret_cast<void*>(HookOf(found->second, std::make_index_sequence<kMaxThunks>()));
}

// The methods of the interfaces that the product uses, in the order of their tables. Those without
// a name here fail as well.
struct Method {
  int index;
  const char* name;
  int givenAt;
  Interface given;
};
struct InterfaceFacts {
  const char* name;
  int methods;
  std::vector<Method> named;
};
const InterfaceFacts& FactsOf(Interface kind) {
  static const std::map<Interface, InterfaceFacts> all = {
      {Interface::kLocator, {"IWbemLocator", 4, {{3, "ConnectServer", 9, Interface::kServices}}}},
      {Interface::kServices, {"IWbemServices", 26, {{20, "ExecQuery", 6, Interface::kEnumerator}}}},
      {Interface::kEnumerator, {"IEnumWbemClassObject", 8, {{4, "Next", 4, Interface::kObject}}}},
      {Interface::kObject, {"IWbemClassObject", 27, {{4, "Get", 0, Interface::kNone}}}},
  };
  return all.at(kind);
}

CallFacts MethodFacts(const Method& method) {
  CallFacts facts{};
  facts.answer = Answer::kHresult;
  facts.errors = ComErrors();
  if (method.given != Interface::kNone) {
    facts.gives = Resource::kReference;
    facts.givenAt = method.givenAt;
  } else if (std::strcmp(method.name, "Get") == 0) {
    facts.gives = Resource::kVariant;
    facts.givenAt = 4;
  } else if (std::strcmp(method.name, "AddRef") == 0) {
    facts.treatment = Treatment::kOpaque;
    facts.gives = Resource::kReference;
    facts.givenAt = kItself;
  } else if (std::strcmp(method.name, "Release") == 0) {
    facts.treatment = Treatment::kOpaque;
    facts.takes = Resource::kReference;
  }
  return facts;
}

// Gives the object a table of methods with hooks in it.
void HookInterface(Interface kind, void* object) {
  if (object == nullptr) {
    return;
  }
  // What the compiler keeps in front of the table, and what an implementation has behind it.
  constexpr int kBefore = 2;
  constexpr int kBehind = 8;
  static std::map<void**, std::vector<void*>> tables;
  static std::set<void**> hooked;
  static std::mutex mutex;
  const std::lock_guard guard(mutex);
  void**& table = *static_cast<void***>(object);
  if (hooked.contains(table)) {
    return;
  }
  std::vector<void*>& copy = tables[table];
  if (copy.empty()) {
    const InterfaceFacts& facts = FactsOf(kind);
    copy.assign(table - kBefore, table + facts.methods + kBehind);
    std::vector<Method> methods = facts.named;
    methods.insert(methods.begin(), {{0, "QueryInterface", 0, Interface::kNone},
                                     {1, "AddRef", 0, Interface::kNone},
                                     {2, "Release", 0, Interface::kNone}});
    for (int i = 0; i < facts.methods; ++i) {
      const std::string number = std::to_string(i);
      Method method{i, number.c_str(), 0, Interface::kNone};
      for (const Method& named : methods) {
        if (named.index == i) {
          method = named;
        }
      }
      void*& entry = copy[static_cast<std::size_t>(kBefore + i)];
      entry = WithHook(std::string(facts.name) + "::" + method.name, MethodFacts(method), entry,
                       method.given);
    }
    hooked.insert(copy.data() + kBefore);
  }
  table = copy.data() + kBefore;
}

void Store(void** place, void* value) {
  DWORD protection = 0;
  VirtualProtect(place, sizeof(*place), PAGE_READWRITE, &protection);
  *place = value;
  VirtualProtect(place, sizeof(*place), protection, &protection);
}

// Calls `visit` with the name and the slot of everything that the module imports.
void ForEachImport(HMODULE module, const std::function<void(const std::string&, void**)>& visit) {
  auto* const base =
      reinterpret_cast<BYTE*>(module != nullptr ? module : GetModuleHandleW(nullptr));
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& directory =
      headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  const auto* descriptor =
      reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
  for (; descriptor->Name != 0; ++descriptor) {
    const auto* names =
        reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + descriptor->OriginalFirstThunk);
    auto* slot = reinterpret_cast<void**>(base + descriptor->FirstThunk);
    for (; names->u1.AddressOfData != 0; ++names, ++slot) {
      if ((names->u1.Ordinal & IMAGE_ORDINAL_FLAG64) != 0) {
        visit(std::string(reinterpret_cast<const char*>(base + descriptor->Name)) + "#" +
                  std::to_string(names->u1.Ordinal & 0xFFFF),
              slot);
      } else {
        visit(reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name,
              slot);
      }
    }
  }
}

bool IsLoaded(HMODULE module) {
  HMODULE found = nullptr;
  return module == nullptr ||
         (Windows().getModuleHandleEx(
              GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
              reinterpret_cast<const wchar_t*>(module), &found) &&
          found == module);
}

// Whether it is the compiler's own call: a library whose lines are counted writes the counts into a
// file when it is unloaded.
bool WritesCounts(HMODULE module, const std::string& name, const CallFacts* facts) {
  return COUNTS_LINES != 0 && module != nullptr &&
         (facts == nullptr || facts->treatment == Treatment::kTestOnly || name == "_open");
}

}  // namespace

CallHooks::CallHooks(CallListener& listener, const std::vector<HMODULE>& modules) {
  const UnheardCalls unheard;
  for (const HMODULE module : modules) {
    Hook(module, listener);
  }
  g_listener = &listener;
}

CallHooks::~CallHooks() {
  g_listener = nullptr;
  while (g_listening != 0) {
    Windows().switchToThread();
  }
  for (const Slot& slot : m_slots) {
    if (IsLoaded(slot.module)) {
      Store(slot.place, slot.original);
    }
  }
}

void CallHooks::Hook(HMODULE module, CallListener& listener) {
  ForEachImport(module, [&](const std::string& name, void** slot) {
    const CallFacts* const facts = FindCallFacts(name.c_str());
    if (WritesCounts(module, name, facts)) {
      return;
    }
    if (facts == nullptr) {
      listener.OnUnexpected(name.c_str());
      return;
    }
    void* const hooked = WithHook(name, *facts, *slot);
    if (hooked != *slot) {
      m_slots.push_back({module, slot, *slot});
      Store(slot, hooked);
    }
  });
}

void AdvanceClock(DWORD milliseconds) { g_slept += milliseconds; }

std::set<std::string> FallibleImports(HMODULE module) {
  std::set<std::string> names;
  ForEachImport(module, [&](const std::string& name, void**) {
    const CallFacts* const facts = FindCallFacts(name.c_str());
    if (facts == nullptr || facts->treatment == Treatment::kFallible ||
        facts->treatment == Treatment::kCallsBack) {
      names.insert(name);
    }
  });
  return names;
}

UnheardCalls::UnheardCalls() {
  const DWORD lastError = Windows().getLastError();
  m_wasUnheard = IsUnheard();
  SetUnheard(true);
  Windows().setLastError(lastError);
}

UnheardCalls::~UnheardCalls() {
  const DWORD lastError = Windows().getLastError();
  SetUnheard(m_wasUnheard);
  Windows().setLastError(lastError);
}
