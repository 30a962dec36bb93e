// An installation and what the diagnosis tool says of it, read from its JSON.
#pragma once

#include <aclapi.h>
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/handle.h"
#include "tests/e2e/service_fixture.h"

constexpr DWORD kExitWarning = 1;
constexpr DWORD kExitError = 2;
constexpr DWORD kExitNotDone = 3;

constexpr wchar_t kInstallationKey[] = L"SOFTWARE\\Client Agent\\1";
constexpr char kCloseEvent[] = "Global\\AcClientAgentSrvcCloseFromServicef_v1";
constexpr char kExitEvent[] = "Global\\AcClientAgentSrvcExitFromOuterModuleEvent_v1";

class Diagnosis : public ServiceTest {
 protected:
  using ServiceTest::ServiceTest;

  void SetUp() override {
    ServiceTest::SetUp();
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kInstallationKey);
  }
  void TearDown() override {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kInstallationKey);
    ServiceTest::TearDown();
  }

  CommandResult Run(const std::string& arguments) const {
    return BackgroundProgram(installation.Folder() / "vorldiag.exe", arguments).Finish();
  }

  // Runs `vorldiag ARGUMENTS --json` and keeps its findings.
  void Diagnose(const std::string& arguments = "status") {
    const CommandResult result = Run(arguments + " --json");
    exitCode = result.exitCode;
    findings.clear();
    const nlohmann::json report = nlohmann::json::parse(result.output);
    for (const nlohmann::json& section : report["sections"]) {
      for (const nlohmann::json& finding : section["findings"]) {
        const std::string id = finding["id"];
        EXPECT_EQ(findings.count(id), 0U) << id;
        findings[id] = finding;
      }
    }
  }

  std::string Verdict(const std::string& id) { return Part(id, "verdict"); }
  std::string Value(const std::string& id) { return Part(id, "value"); }
  std::string Advice(const std::string& id) { return Part(id, "advice"); }

  std::vector<std::string> IdsWith(const std::string& verdict) const {
    std::vector<std::string> ids;
    for (const auto& [id, finding] : findings) {
      if (finding["verdict"] == verdict) {
        ids.push_back(id);
      }
    }
    return ids;
  }

  // As the installer would.
  void Register(const wchar_t* valueName, const std::wstring& folder) const {
    ASSERT_EQ(
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kInstallationKey, valueName, REG_SZ, folder.c_str(),
                        static_cast<DWORD>((folder.size() + 1) * sizeof(wchar_t))),
        ERROR_SUCCESS);
  }

  static void SetAccess(const std::filesystem::path& path, const wchar_t* list) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(list, SDDL_REVISION_1,
                                                                     &descriptor, nullptr));
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
    LocalFree(descriptor);
  }

  DWORD exitCode = 0;
  std::map<std::string, nlohmann::json> findings;

 private:
  std::string Part(const std::string& id, const char* part) {
    const auto found = findings.find(id);
    return found == findings.end() ? "no finding " + id : found->second[part].get<std::string>();
  }
};
