// Every command of the diagnosis tool with every call of it failing, one at a time: it ends with
// one of its codes, what it writes is whole, and what it says does not get better.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/call_hooks.h"
#include "tests/support/empty_machine_key.h"
#include "tests/support/fake_machine.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/support/installation.h"
#include "tools/vorldiag/commandline.h"

// Needs the types of windows.h.
#include <sddl.h>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr wchar_t kAdministratorsOnly[] = L"O:BAG:BAD:P(A;;GA;;;SY)(A;;GA;;;BA)";
constexpr wchar_t kSourceKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Client Agent 1";
constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Client Agent 1";

const auto kManager = reinterpret_cast<SC_HANDLE>(std::uintptr_t{0x51});
const auto kService = reinterpret_cast<SC_HANDLE>(std::uintptr_t{0x52});

template <typename Value>
Value* Put(BYTE* buffer, std::size_t& used, const Value* values, std::size_t count) {
  auto* const place = reinterpret_cast<Value*>(buffer + used);
  std::copy_n(values, count, place);
  used += count * sizeof(Value);
  return place;
}

wchar_t* PutText(BYTE* buffer, std::size_t& used, const std::wstring& text) {
  return Put(buffer, used, text.c_str(), text.size() + 1);
}

// A copy of the installation with a service that runs and is as it should be.
class HealthyComputer {
 public:
  HealthyComputer() {
    for (const auto& file : fs::directory_iterator(StagedFolder())) {
      if (file.is_regular_file() && file.path().filename() != "vorldiag.exe") {
        fs::copy_file(file.path(), m_folder.Path() / file.path().filename());
      }
    }
    fs::create_directory(m_folder.Path() / "conf");
    fs::create_directory(m_folder.Path() / "logs");
    WriteText(m_folder.Path() / "conf" / "vorlconf.ini",
              "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid="
              "0123456789ABCDEF0123456789ABCDEF\r\n");
    LetRest(m_folder.Path() / "conf" / "vorlconf.ini");
    std::string trace;
    for (const char* line : {"main x.cpp:1 Entry",
                             "CNTService::ParseStandardArgs x.cpp:1 No Arguments hence returning",
                             "CAcAsSvc::Run x.cpp:1 Before Calling WaitForSingleObject"}) {
      trace += "2026-03-09 07:05:02.041 +01:00 INFO " + std::to_string(GetCurrentProcessId()) +
               " 11 vorlsrvc.exe " + line + "\r\n";
    }
    WriteText(m_folder.Path() / "logs" / "vorltrace.log", trace);
    WriteText(m_folder.Path() / "logs" / "vorltrace.lock", "");
    const std::wstring program = Program();
    SetValue(kSourceKey, L"EventMessageFile", program);
    SetValue(kServiceKey, L"ImagePath", program);
  }

  const TempFolder& Folder() const { return m_folder; }
  std::wstring Program() const { return (m_folder.Path() / "vorlsrvc.exe").wstring(); }

  static void WriteText(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }

 private:
  static void SetValue(const wchar_t* path, const wchar_t* name, const std::wstring& text) {
    RegistryKey key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                    nullptr, key.Receive(), nullptr);
    EXPECT_EQ(RegSetKeyValueW(key.Get(), nullptr, name, REG_EXPAND_SZ, text.c_str(),
                              static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
  }

  const TempFolder m_folder;
  const EmptyMachineKey m_registry;
};

// The answers of Windows that a test must not have from it: they would be of this computer's
// service, and Wine's server ends at the question for all handles while a program is being started.
class Answers {
 public:
  explicit Answers(const HealthyComputer& computer) : m_program(computer.Program()) {}

 private:
  BOOL Config(QUERY_SERVICE_CONFIGW* config, DWORD size, DWORD* needed) const {
    *needed = 2048;
    if (size < *needed) {
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return FALSE;
    }
    auto* const buffer = reinterpret_cast<BYTE*>(config);
    std::size_t used = sizeof(*config);
    *config = {};
    config->dwServiceType = SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS;
    config->dwStartType = SERVICE_AUTO_START;
    config->lpBinaryPathName = PutText(buffer, used, m_program);
    config->lpServiceStartName = PutText(buffer, used, L"LocalSystem");
    config->lpDisplayName = PutText(buffer, used, L"Client Agent 1");
    return TRUE;
  }

  BOOL Recovery(BYTE* buffer, DWORD size, DWORD* needed) const {
    *needed = 2048;
    if (size < *needed) {
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return FALSE;
    }
    auto& recovery = *reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer);
    std::size_t used = sizeof(recovery);
    constexpr SC_ACTION actions[] = {
        {SC_ACTION_RUN_COMMAND, 0}, {SC_ACTION_RUN_COMMAND, 0}, {SC_ACTION_NONE, 0}};
    recovery = {};
    recovery.dwResetPeriod = 3600;
    recovery.cActions = static_cast<DWORD>(std::size(actions));
    recovery.lpsaActions = Put(buffer, used, actions, std::size(actions));
    recovery.lpCommand = PutText(buffer, used, m_program + L" -reset");
    return TRUE;
  }

  static LONG NTAPI NoHandles(ULONG /*information*/, void* buffer, ULONG /*size*/, ULONG* given) {
    const ULONG_PTR head[] = {0, 0};
    std::memcpy(buffer, head, sizeof(head));
    *given = sizeof(head);
    return 0;
  }

  std::wstring m_program;

  CallPatch<struct ModuleTag, DWORD WINAPI(HMODULE, wchar_t*, DWORD)> m_module{
      "KERNEL32.dll", "GetModuleFileNameW", [this](HMODULE module, wchar_t* path, DWORD size) {
        const std::wstring own =
            m_program.substr(0, m_program.find_last_of(L'\\')) + L"\\vorldiag.exe";
        if (module != nullptr || own.size() >= size) {
          return m_module.CallOriginal(module, path, size);
        }
        own.copy(path, own.size());
        path[own.size()] = L'\0';
        return static_cast<DWORD>(own.size());
      }};
  CallPatch<struct ManagerTag, SC_HANDLE WINAPI(const wchar_t*, const wchar_t*, DWORD)> m_manager{
      "ADVAPI32.dll", "OpenSCManagerW",
      [](const wchar_t*, const wchar_t*, DWORD) { return kManager; }};
  CallPatch<struct ServiceTag, SC_HANDLE WINAPI(SC_HANDLE, const char*, DWORD)> m_service{
      "ADVAPI32.dll", "OpenServiceA", [](SC_HANDLE, const char*, DWORD) { return kService; }};
  CallPatch<struct CloseTag, BOOL WINAPI(SC_HANDLE)> m_close{
      "ADVAPI32.dll", "CloseServiceHandle",
      [](SC_HANDLE handle) { return handle == kManager || handle == kService; }};
  CallPatch<struct ConfigTag, BOOL WINAPI(SC_HANDLE, QUERY_SERVICE_CONFIGW*, DWORD, DWORD*)>
      m_config{"ADVAPI32.dll", "QueryServiceConfigW",
               [this](SC_HANDLE, QUERY_SERVICE_CONFIGW* config, DWORD size, DWORD* needed) {
                 return Config(config, size, needed);
               }};
  CallPatch<struct RecoveryTag, BOOL WINAPI(SC_HANDLE, DWORD, BYTE*, DWORD, DWORD*)> m_recovery{
      "ADVAPI32.dll", "QueryServiceConfig2W",
      [this](SC_HANDLE, DWORD, BYTE* buffer, DWORD size, DWORD* needed) {
        return Recovery(buffer, size, needed);
      }};
  CallPatch<struct StatusTag, BOOL WINAPI(SC_HANDLE, SC_STATUS_TYPE, BYTE*, DWORD, DWORD*)>
      m_status{"ADVAPI32.dll", "QueryServiceStatusEx",
               [](SC_HANDLE, SC_STATUS_TYPE, BYTE* buffer, DWORD, DWORD*) {
                 auto& status = *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
                 status = {};
                 status.dwCurrentState = SERVICE_RUNNING;
                 status.dwProcessId = GetCurrentProcessId();
                 return TRUE;
               }};
  CallPatch<struct SecurityTag, BOOL WINAPI(SC_HANDLE, SECURITY_INFORMATION, void*, DWORD, DWORD*)>
      m_security{"ADVAPI32.dll", "QueryServiceObjectSecurity",
                 [](SC_HANDLE, SECURITY_INFORMATION, void* buffer, DWORD size, DWORD* needed) {
                   const UnheardCalls unheard;
                   PSECURITY_DESCRIPTOR descriptor = nullptr;
                   ConvertStringSecurityDescriptorToSecurityDescriptorW(
                       kAdministratorsOnly, SDDL_REVISION_1, &descriptor, nullptr);
                   *needed = GetSecurityDescriptorLength(descriptor);
                   const bool isEnough = size >= *needed;
                   if (isEnough) {
                     std::memcpy(buffer, descriptor, *needed);
                   }
                   LocalFree(descriptor);
                   SetLastError(isEnough ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER);
                   return isEnough;
                 }};
  CallPatch<struct EventTag, HANDLE WINAPI(DWORD, BOOL, const char*)> m_event{
      "KERNEL32.dll", "OpenEventA", [](DWORD, BOOL, const char*) {
        const UnheardCalls unheard;
        return CreateEventW(nullptr, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE, nullptr);
      }};
  CallPatch<struct PipeTag, BOOL WINAPI(const wchar_t*, DWORD)> m_pipe{
      "KERNEL32.dll", "WaitNamedPipeW", [](const wchar_t*, DWORD) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
      }};
  CallPatch<struct FunctionTag, FARPROC WINAPI(HMODULE, const char*)> m_function{
      "KERNEL32.dll", "GetProcAddress", [this](HMODULE module, const char* function) {
        const bool isName = reinterpret_cast<std::uintptr_t>(function) > 0xFFFF;
        return isName && std::string_view(function) == "NtQuerySystemInformation"
                   ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&NoHandles))
                   : m_function.CallOriginal(module, function);
      }};
};

int Severity(const std::string& verdict) {
  return verdict == "ok" ? 0 : verdict == "warning" ? 1 : 2;
}

class CommandFaults : public ::testing::Test {
 protected:
  ~CommandFaults() override {
    SetStdHandle(STD_OUTPUT_HANDLE, m_formerOutput);
    SetStdHandle(STD_ERROR_HANDLE, m_formerErrors);
    fs::current_path(m_formerFolder);
  }

  struct Outcome {
    int exitCode = -1;
    std::string output;
    std::string errors;
  };

  Outcome RunIn(FaultRun& run, const std::vector<std::string>& arguments) {
    Outcome outcome;
    const std::string names[] = {m_folder.File("output"), m_folder.File("errors")};
    {
      const FileHandle output = Writable(names[0]);
      const FileHandle errors = Writable(names[1]);
      SetStdHandle(STD_OUTPUT_HANDLE, output.Get());
      SetStdHandle(STD_ERROR_HANDLE, errors.Get());
      Machine machine;
      machine.SetEverything();
      const Answers answers(m_computer);
      run.Call([&] {
        Output toOutput(STD_OUTPUT_HANDLE);
        Output toErrors(STD_ERROR_HANDLE);
        outcome.exitCode = RunCommandLine(arguments, toOutput, toErrors);
      });
    }
    outcome.output = Text(names[0]);
    outcome.errors = Text(names[1]);
    return outcome;
  }

  // `check`: what a command that was carried out has done besides.
  void Sweep(const std::vector<std::string>& arguments,
             const std::function<void(const Outcome&)>& check = {}) {
    std::string name = "vorldiag";
    for (const std::string& argument : arguments) {
      name += " " + fs::path(argument).filename().string();
    }
    std::optional<json> ordinary;
    SweepFaults(name,
                [&](FaultRun& run) {
                  const Outcome outcome = RunIn(run, arguments);
                  EXPECT_GE(outcome.exitCode, 0);
                  EXPECT_LE(outcome.exitCode, 3);
                  EXPECT_TRUE(outcome.exitCode != 3 || run.IsFaulted()) << outcome.errors;
                  const bool isMute = run.IsFaultIn({"GetStdHandle", "GetFileType", "WriteFile"});
                  EXPECT_TRUE(outcome.exitCode != 3 || !outcome.errors.empty() || isMute);
                  if (outcome.exitCode == 3 || isMute) {
                    return;
                  }
                  const json document =
                      json::parse(outcome.output, nullptr, /*allow_exceptions=*/false);
                  ASSERT_FALSE(document.is_discarded()) << outcome.output;
                  EXPECT_EQ(document["command"], arguments[0]);
                  if (!run.IsFaulted()) {
                    ordinary = document;
                  } else if (document.contains("sections") &&
                             !run.IsFaultIn({"MultiByteToWideChar", "WideCharToMultiByte"})) {
                    // Text that Windows cannot convert is shown empty.
                    ExpectNothingBetter(run, *ordinary, document);
                  }
                  if (check) {
                    check(outcome);
                  }
                },
                // A collection that is given up goes on behind, and ends with the process.
                {.left = {"WaitForSingleObject"}, .memory = false, .mostCalls = 2});
  }

  using Findings = std::map<std::string, json>;
  static Findings FindingsOf(const json& document) {
    Findings found;
    for (const json& section : document["sections"]) {
      for (const json& finding : section["findings"]) {
        found[finding["id"]] = finding;
        EXPECT_TRUE(finding["verdict"] == "ok" || finding["advice"] != "") << finding;
        EXPECT_EQ(Value(finding).find("error 0"), std::string::npos) << finding;
      }
    }
    return found;
  }
  static std::string Value(const json& finding) { return finding["value"]; }

  // A call that fails may hide something; it must then say so, and never that all is well.
  static void ExpectNothingBetter(const FaultRun& run, const json& before, const json& after) {
    const Findings formerly = FindingsOf(before);
    const Findings now = FindingsOf(after);
    const auto worst = [](const Findings& findings) {
      int sum = 0;
      for (const auto& [id, finding] : findings) {
        sum += Severity(finding["verdict"]);
      }
      return sum;
    };
    const bool isWorse = worst(now) > worst(formerly);
    // What Windows itself calls absent is taken for that.
    // (_sopen_s also leaves its error where the product looks for it, which a made one does not.)
    const bool isToldMissing = run.IsFaultIn({"_sopen_s"}) ||
                               run.FaultError() == ERROR_FILE_NOT_FOUND ||
                               run.FaultError() == ERROR_PATH_NOT_FOUND ||
                               run.FaultError() == ERROR_SERVICE_DOES_NOT_EXIST;
    for (const auto& [id, finding] : formerly) {
      const auto found = now.find(id);
      if (found == now.end()) {
        EXPECT_TRUE(isWorse || isToldMissing) << "not a word of " << finding;
        continue;
      }
      EXPECT_GE(Severity(found->second["verdict"]), Severity(finding["verdict"]))
          << found->second << " instead of " << finding;
      EXPECT_TRUE(isWorse || isToldMissing || found->second["verdict"] != "ok" ||
                  !IsOther(finding, found->second))
          << found->second << " instead of " << finding;
      for (const char* absent : {"not registered", "does not exist", "is not there", "missing in",
                                 "is missing", "none stored"}) {
        EXPECT_TRUE(isToldMissing || Value(found->second).find(absent) == std::string::npos ||
                    Value(finding).find(absent) != std::string::npos)
            << found->second << " instead of " << finding;
      }
    }
  }

  // What passes with time is left out.
  static bool IsOther(const json& before, const json& after) {
    static const std::set<std::string> passing{"process", "free-space"};
    return before["value"] != after["value"] && passing.count(before["id"]) == 0;
  }

  static FileHandle Writable(const std::string& name) {
    return FileHandle(CreateFileA(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                  CREATE_ALWAYS, 0, nullptr));
  }
  static std::string Text(const std::string& name) {
    const ByteVector bytes = ReadBytes(name);
    return {bytes.begin(), bytes.end()};
  }

  const HANDLE m_formerOutput = GetStdHandle(STD_OUTPUT_HANDLE);
  const HANDLE m_formerErrors = GetStdHandle(STD_ERROR_HANDLE);
  const fs::path m_formerFolder = fs::current_path();
  const TempFolder m_folder;
  const HealthyComputer m_computer;
};

TEST_F(CommandFaults, Status) { Sweep({"status", "--json"}); }

TEST_F(CommandFaults, Identity) { Sweep({"identity", "--both", "--json"}); }

TEST_F(CommandFaults, Cache) {
  const TempFolder folder;
  Sweep({"cache", "write", "--json", "--folder", folder.Path().string()},
        [&](const Outcome& outcome) {
          // An older one stays: whatever fails, there is a whole one.
          EXPECT_EQ(fs::file_size(folder.File("hwcdata.dat")), 182U) << outcome.output;
        });
  // The last one may lack what could not be had at that moment.
  {
    Machine machine;
    machine.SetEverything();
    Output nowhere(0);  // no standard handle
    ASSERT_EQ(
        RunCommandLine({"cache", "write", "--folder", folder.Path().string()}, nowhere, nowhere),
        0);
  }
  Sweep({"cache", "check", "--json", "--folder", folder.Path().string()});
}

TEST_F(CommandFaults, Trace) {
  Sweep({"trace", "--json"});
  Sweep({"trace", "--start", "--json"});
  const std::string file = m_folder.File("calls.json");
  Sweep({"trace", "--perfetto", file, "--json"}, [&](const Outcome&) {
    EXPECT_TRUE(json::accept(Text(file)));
    EXPECT_FALSE(fs::exists(file + ".part"));
  });
}

// What is in place of the file is always whole: the former one, or the new one.
TEST_F(CommandFaults, Report) {
  const std::string file = m_folder.File("page.html");
  Sweep({"report", file, "--json"}, [&](const Outcome&) {
    const std::string page = Text(file);
    EXPECT_NE(page.find("</html>"), std::string::npos);
    EXPECT_FALSE(fs::exists(file + ".part"));
  });
}

TEST_F(CommandFaults, Bundle) {
  const std::string file = m_folder.File("ticket.zip");
  Sweep({"bundle", file, "--mask", "--json"}, [&](const Outcome& outcome) {
    const std::string archive = Text(file);
    EXPECT_EQ(json::parse(outcome.output)["bytes"], archive.size());
    // The end of the list of its entries.
    EXPECT_EQ(archive.rfind("PK\x05\x06"), archive.size() - 22);
  });
}

}  // namespace
