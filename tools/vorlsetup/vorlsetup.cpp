// The actions of the installer package, each a function that Windows Installer calls. Those that
// change the machine run as the system's account and get what they must know as "program folder|
// configuration folder|marks".
#include <array>
#include <string>

#include "tools/vorlsetup/agentservice.h"
#include "tools/vorlsetup/folders.h"
#include "tools/vorlsetup/security.h"
#include "tools/vorlsetup/setuplog.h"

// msiquery.h reads the types of msi.h.
#include <msiquery.h>

namespace {

// Closed by the package: says where the agent's modules and configuration lie.
constexpr wchar_t kInstallationKey[] = L"SOFTWARE\\Client Agent\\" VORL_MAJOR_VERSION;

// Marks after the two folders.
constexpr wchar_t kWasRegistered = L'r';
constexpr wchar_t kWasRunning = L's';
constexpr wchar_t kWasInstalled = L'i';
constexpr wchar_t kProductIsRemoved = L'x';
constexpr wchar_t kWithConfiguration = L'c';

constexpr std::array kDeferredActions = {
    L"UndoStopAgent",      L"StopAgent",      L"UndoUnregisterAgent", L"UnregisterAgent",
    L"UndoPrepareFolders", L"PrepareFolders", L"SecureKey",           L"UndoRegisterAgent",
    L"RegisterAgent",      L"StartAgent",     L"KeepFolders",         L"RemoveData"};

struct ActionData {
  InstallationFolders folders;
  std::wstring marks;

  bool Has(wchar_t mark) const { return marks.find(mark) != std::wstring::npos; }
};

std::wstring GetProperty(MSIHANDLE installation, const wchar_t* name) {
  std::wstring value(1024, L'\0');
  DWORD length = static_cast<DWORD>(value.size());
  if (MsiGetPropertyW(installation, name, value.data(), &length) != ERROR_SUCCESS) {
    return {};
  }
  value.resize(length);
  return value;
}

std::wstring WithoutBackslash(std::wstring folder) {
  while (!folder.empty() && folder.back() == L'\\') {
    folder.pop_back();
  }
  return folder;
}

bool IsSame(const std::wstring& left, const std::wstring& right) {
  return CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

ActionData ReadActionData(MSIHANDLE installation) {
  const std::wstring text = GetProperty(installation, L"CustomActionData");
  const std::size_t first = text.find(L'|');
  const std::size_t second = text.find(L'|', first + 1);
  if (first == std::wstring::npos || second == std::wstring::npos) {
    return {};
  }
  return {{text.substr(0, first), text.substr(first + 1, second - first - 1)},
          text.substr(second + 1)};
}

// Runs `action` with the data and the log of this call.
template <typename Action>
UINT Run(MSIHANDLE installation, Action action) noexcept {
  try {
    const SetupLog log(installation);
    const ActionData data = ReadActionData(installation);
    if (data.folders.program.empty()) {
      log.Error(L"The package does not say where it installs");
      return ERROR_INSTALL_FAILURE;
    }
    return action(data, log) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
  } catch (...) {
    return ERROR_INSTALL_FAILURE;  // memory ran out; the installer does not know exceptions
  }
}

bool CheckAndHandOver(MSIHANDLE installation) {
  const SetupLog log(installation);
  const InstallationFolders folders{WithoutBackslash(GetProperty(installation, L"INSTALLDIR")),
                                    WithoutBackslash(GetProperty(installation, L"CONFIGDIR"))};
  const bool isRemoval = GetProperty(installation, L"REMOVE") == L"ALL";
  const bool isUpgradeOfThis = !GetProperty(installation, L"UPGRADINGPRODUCTCODE").empty();
  const ServiceState service = ReadServiceState();
  if (!isRemoval) {
    const std::wstring old = WithoutBackslash(GetProperty(installation, L"OLDINSTALLDIR"));
    const std::wstring oldConfiguration =
        WithoutBackslash(GetProperty(installation, L"OLDCONFIGDIR"));
    if ((!old.empty() && !IsSame(old, folders.program)) ||
        (!oldConfiguration.empty() && !IsSame(oldConfiguration, folders.configuration))) {
      log.Error(L"The product is installed in " + old + L" with its configuration in " +
                oldConfiguration + L": remove it first to install it elsewhere");
      return false;
    }
    if (!AreUsableFolders(folders, log)) {
      return false;
    }
    if (service.isRegistered && !IsServiceOf(folders.program, service)) {
      log.Error(L"The service is registered for another program: " + service.command +
                L". Remove it there first, with -stop and -uninstall");
      return false;
    }
  }
  std::wstring data = folders.program + L"|" + folders.configuration + L"|";
  if (service.isRegistered && IsServiceOf(folders.program, service)) {
    data += kWasRegistered;
  }
  if (service.isRunning) {
    data += kWasRunning;
  }
  if (!GetProperty(installation, L"OLDINSTALLDIR").empty()) {
    data += kWasInstalled;
  }
  if (isRemoval && !isUpgradeOfThis) {
    data += kProductIsRemoved;
    if (GetProperty(installation, L"REMOVECONFIG") == L"1") {
      data += kWithConfiguration;
    }
  }
  for (const wchar_t* action : kDeferredActions) {
    if (MsiSetPropertyW(installation, action, data.c_str()) != ERROR_SUCCESS) {
      return false;
    }
  }
  return MsiSetPropertyW(installation, L"ARPINSTALLLOCATION", folders.program.c_str()) ==
         ERROR_SUCCESS;
}

}  // namespace

extern "C" {

// Called by Windows Installer, by these names.
UINT __stdcall CheckInstallation(MSIHANDLE installation);
UINT __stdcall StopAgent(MSIHANDLE installation);
UINT __stdcall UndoStopAgent(MSIHANDLE installation);
UINT __stdcall UnregisterAgent(MSIHANDLE installation);
UINT __stdcall UndoUnregisterAgent(MSIHANDLE installation);
UINT __stdcall PrepareFolders(MSIHANDLE installation);
UINT __stdcall UndoPrepareFolders(MSIHANDLE installation);
UINT __stdcall SecureKey(MSIHANDLE installation);
UINT __stdcall RegisterAgent(MSIHANDLE installation);
UINT __stdcall UndoRegisterAgent(MSIHANDLE installation);
UINT __stdcall StartAgent(MSIHANDLE installation);
UINT __stdcall KeepFolders(MSIHANDLE installation);
UINT __stdcall RemoveData(MSIHANDLE installation);

UINT __stdcall CheckInstallation(MSIHANDLE installation) {
  try {
    return CheckAndHandOver(installation) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
  } catch (...) {
    return ERROR_INSTALL_FAILURE;
  }
}

UINT __stdcall StopAgent(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    return !data.Has(kWasRegistered) ||
           StopAgentService(data.folders.program, data.Has(kProductIsRemoved), log);
  });
}

UINT __stdcall UndoStopAgent(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    return !data.Has(kWasRegistered) || !data.Has(kWasRunning) ||
           StartAgentService(data.folders.program, log);
  });
}

UINT __stdcall UnregisterAgent(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    return !data.Has(kWasRegistered) || UnregisterAgentService(data.folders.program, log);
  });
}

UINT __stdcall UndoUnregisterAgent(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    return !data.Has(kWasRegistered) || RegisterAgentService(data.folders.program, log);
  });
}

UINT __stdcall PrepareFolders(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    return MakeFolders(data.folders, data.Has(kWasInstalled), log);
  });
}

UINT __stdcall UndoPrepareFolders(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    RemoveMadeFolders(data.folders, log);
    return true;
  });
}

UINT __stdcall KeepFolders(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog&) {
    KeepMadeFolders(data.folders);
    return true;
  });
}

UINT __stdcall SecureKey(MSIHANDLE installation) {
  return Run(installation, [](const ActionData&, const SetupLog& log) {
    const DWORD error = SetKeyRights(kInstallationKey, kClosedKeyRights);
    if (error != ERROR_SUCCESS) {
      log.Error(L"The rights of the registry key cannot be set", error);
    }
    return error == ERROR_SUCCESS;
  });
}

UINT __stdcall RegisterAgent(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    return RegisterAgentService(data.folders.program, log);
  });
}

// Also before the old files come back: nothing may run that holds the new ones.
UINT __stdcall UndoRegisterAgent(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    const bool isStopped = StopAgentService(data.folders.program, false, log);
    return isStopped &&
           (data.Has(kWasRegistered) || UnregisterAgentService(data.folders.program, log));
  });
}

UINT __stdcall StartAgent(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    return StartAgentService(data.folders.program, log);
  });
}

UINT __stdcall RemoveData(MSIHANDLE installation) {
  return Run(installation, [](const ActionData& data, const SetupLog& log) {
    RemoveData(data.folders, data.Has(kWithConfiguration), log);
    return true;
  });
}
}
