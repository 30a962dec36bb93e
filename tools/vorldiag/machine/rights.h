// Who may do what with files, keys, services and kernel objects, read from their access lists.
//
// What administrators and the system may do is not looked at: they can do everything anyhow. They
// are the system account, the Administrators group and its built-in members, the administrators of
// a domain, Windows' own installer, and the account that runs this program when it is an
// administrator.
#pragma once

#include <string>
#include <vector>

#include "support/windows_api.h"

// One right and its word in a sentence. A right may be given by any of several bits.
struct RightName {
  DWORD mask;
  const char* word;
};

// What a kind of object is called and what a stranger must not be able to do with it.
struct ObjectKind {
  GENERIC_MAPPING generic;
  std::vector<RightName> rights;
};

// Rights by which others can put code or settings in place, or take away what is there.
ObjectKind FolderKind();
ObjectKind FileKind();
ObjectKind KeyKind();
ObjectKind ServiceKind();
// The right to send control codes from 128 to 255.
ObjectKind ServiceControlKind();
// Events and locks: to change what says who may use them.
ObjectKind KernelObjectKind();

struct Access {
  DWORD error = ERROR_SUCCESS;  // when the list cannot be read
  std::string owner;            // account, "" when unknown
  bool isOwnerTrusted = true;
  bool hasNoList = false;                  // everyone may do everything
  std::vector<std::string> foreignRights;  // "Everyone may write, delete"
};

// Of a file or folder.
Access FileAccess(const std::wstring& path, const ObjectKind& kind);
// Of a key below HKEY_LOCAL_MACHINE.
Access MachineKeyAccess(const std::wstring& key, const ObjectKind& kind);
// `service` was opened with READ_CONTROL.
Access ServiceAccess(SC_HANDLE service, const ObjectKind& kind);
// `object` was opened with READ_CONTROL.
Access KernelObjectAccess(HANDLE object, const ObjectKind& kind);

// All texts of foreignRights in one, an untrusted owner and a missing list among them; "" when
// nobody else has a right.
std::string ForeignText(const Access& access);

// A person's account: one that is not the same on every computer.
struct Account {
  std::string name;
  std::string domain;
};

// Every such account that a function above has named, or that was noted, each once.
const std::vector<Account>& NotedAccounts();

// Notes the account with this SID ("S-1-..."); false when it is no person's.
bool NoteAccount(const std::wstring& sid);
// Notes the account that runs this program.
void NoteOwnAccount();
