#include "tools/vorldiag/machine/rights.h"

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <map>

#include "support/handle.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

std::wstring SidText(PSID sid) {
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid, &text)) {
    return L"?";
  }
  const LocalMemory memory(text);
  return text;
}

std::vector<Account>& Noted() {
  static std::vector<Account> accounts;
  return accounts;
}

// Of a computer's or domain's own accounts.
bool IsPersonal(const std::wstring& sid) {
  return sid.compare(0, 9, L"S-1-5-21-") == 0 || sid.compare(0, 9, L"S-1-12-1-") == 0;
}

void Note(const std::wstring& sid, const Account& account) {
  const bool isKnown = std::any_of(Noted().begin(), Noted().end(), [&](const Account& known) {
    return known.name == account.name && known.domain == account.domain;
  });
  if (IsPersonal(sid) && !isKnown) {
    Noted().push_back(account);
  }
}

std::string AccountName(PSID sid) {
  constexpr DWORD capacity = 512;
  wchar_t name[capacity] = {};
  wchar_t domain[capacity] = {};
  DWORD nameSize = capacity;
  DWORD domainSize = capacity;
  SID_NAME_USE use{};
  if (!LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use) ||
      name[0] == L'\0') {
    return Utf8(SidText(sid));
  }
  Note(SidText(sid), {Utf8(name), Utf8(domain)});
  return domain[0] == L'\0' ? Utf8(name) : Utf8(std::wstring(domain) + L"\\" + name);
}

bool IsAdministrator() {
  BYTE sid[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof(sid);
  BOOL isMember = FALSE;
  return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, sid, &size) &&
         CheckTokenMembership(nullptr, sid, &isMember) && isMember;
}

std::wstring OwnSidText() {
  KernelHandle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive())) {
    return L"";
  }
  alignas(TOKEN_USER) BYTE buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  if (!GetTokenInformation(token.Get(), TokenUser, buffer, sizeof(buffer), &size)) {
    return L"";
  }
  return SidText(reinterpret_cast<const TOKEN_USER*>(buffer)->User.Sid);
}

bool EndsWith(const std::wstring& text, const wchar_t* end) {
  const std::wstring_view tail(end);
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

bool IsTrusted(PSID sid) {
  static const std::wstring own = IsAdministrator() ? OwnSidText() : L"";
  const std::wstring text = SidText(sid);
  const bool isOfDomain = text.compare(0, 9, L"S-1-5-21-") == 0;
  return text == L"S-1-5-18" || text == L"S-1-5-32-544" ||
         text == L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464" ||
         // The owner's rights are looked at with the owner.
         text == L"S-1-3-4" || (!own.empty() && text == own) ||
         (isOfDomain &&
          (EndsWith(text, L"-500") || EndsWith(text, L"-512") || EndsWith(text, L"-519")));
}

// In an entry that only new objects inherit, these stand for whoever makes one.
bool StandsForCreator(PSID sid) {
  const std::wstring text = SidText(sid);
  return text == L"S-1-3-0" || text == L"S-1-3-1";
}

std::string RightsText(DWORD mask, const ObjectKind& kind) {
  std::string text;
  for (const RightName& right : kind.rights) {
    if ((mask & right.mask) != 0) {
      text += (text.empty() ? "" : ", ") + std::string(right.word);
    }
  }
  return text;
}

void ReadEntries(const ACL* list, const ObjectKind& kind, Access& access) {
  // Rights of one account may stand in several entries.
  std::map<std::wstring, DWORD> granted;
  std::map<std::wstring, DWORD> denied;
  std::map<std::wstring, std::string> names;
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(const_cast<ACL*>(list), i, &entry)) {
      continue;
    }
    const auto* const ace = static_cast<const ACCESS_ALLOWED_ACE*>(entry);
    const BYTE type = ace->Header.AceType;
    const bool isGrant =
        type == ACCESS_ALLOWED_ACE_TYPE || type == ACCESS_ALLOWED_CALLBACK_ACE_TYPE;
    if (!isGrant && type != ACCESS_DENIED_ACE_TYPE) {
      continue;
    }
    const PSID sid = const_cast<DWORD*>(&ace->SidStart);
    const bool isForNewOnly = (ace->Header.AceFlags & INHERIT_ONLY_ACE) != 0;
    if (IsTrusted(sid) || (isForNewOnly && StandsForCreator(sid))) {
      continue;
    }
    DWORD mask = ace->Mask;
    GENERIC_MAPPING generic = kind.generic;
    MapGenericMask(&mask, &generic);
    const std::wstring text = SidText(sid);
    names.try_emplace(text, AccountName(sid));
    if (isGrant) {
      granted[text] |= mask & ~denied[text];
    } else if (!isForNewOnly) {
      denied[text] |= mask;
    }
  }
  for (const auto& [sid, mask] : granted) {
    const std::string rights = RightsText(mask, kind);
    if (!rights.empty()) {
      access.foreignRights.push_back(names[sid] + " may " + rights);
    }
  }
}

Access ReadDescriptor(PSECURITY_DESCRIPTOR descriptor, const ObjectKind& kind) {
  Access access;
  PSID owner = nullptr;
  BOOL isDefaulted = FALSE;
  if (GetSecurityDescriptorOwner(descriptor, &owner, &isDefaulted) && owner != nullptr) {
    access.owner = AccountName(owner);
    access.isOwnerTrusted = IsTrusted(owner);
  }
  BOOL isPresent = FALSE;
  ACL* list = nullptr;
  if (!GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefaulted)) {
    access.error = GetLastError();
  } else if (!isPresent || list == nullptr) {
    access.hasNoList = true;
  } else {
    ReadEntries(list, kind, access);
  }
  return access;
}

constexpr SECURITY_INFORMATION kWanted = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

// What a call that gave `error` or else `descriptor` says; frees the descriptor.
Access TakeDescriptor(DWORD error, PSECURITY_DESCRIPTOR descriptor, const ObjectKind& kind) {
  const LocalMemory memory(descriptor);
  if (error != ERROR_SUCCESS) {
    Access access;
    access.error = error;
    return access;
  }
  return ReadDescriptor(descriptor, kind);
}

Access NamedAccess(std::wstring name, SE_OBJECT_TYPE type, const ObjectKind& kind) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetNamedSecurityInfoW(name.data(), type, kWanted, nullptr, nullptr, nullptr,
                                            nullptr, &descriptor);
  return TakeDescriptor(error, descriptor, kind);
}

constexpr GENERIC_MAPPING kFileGeneric{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                                       FILE_ALL_ACCESS};
constexpr RightName kDelete{DELETE, "delete"};
constexpr RightName kChangeRights{WRITE_DAC, "change the rights"};
constexpr RightName kTakeOver{WRITE_OWNER, "become the owner"};

}  // namespace

ObjectKind FolderKind() {
  return {kFileGeneric,
          {{FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY, "write"},
           {FILE_DELETE_CHILD, "delete what is inside"},
           kDelete,
           kChangeRights,
           kTakeOver}};
}

ObjectKind FileKind() {
  return {kFileGeneric,
          {{FILE_WRITE_DATA | FILE_APPEND_DATA, "write"}, kDelete, kChangeRights, kTakeOver}};
}

ObjectKind KeyKind() {
  return {{KEY_READ, KEY_WRITE, KEY_EXECUTE, KEY_ALL_ACCESS},
          {{KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK, "write"},
           kDelete,
           kChangeRights,
           kTakeOver}};
}

ObjectKind ServiceKind() {
  return {{SERVICE_QUERY_STATUS, SERVICE_CHANGE_CONFIG, SERVICE_START, SERVICE_ALL_ACCESS},
          {{SERVICE_CHANGE_CONFIG, "change the registration"}, kDelete, kChangeRights, kTakeOver}};
}

ObjectKind ServiceControlKind() {
  return {{SERVICE_QUERY_STATUS, SERVICE_CHANGE_CONFIG,
           SERVICE_START | SERVICE_USER_DEFINED_CONTROL, SERVICE_ALL_ACCESS},
          {{SERVICE_USER_DEFINED_CONTROL, "send them"}}};
}

ObjectKind KernelObjectKind() {
  return {{READ_CONTROL, EVENT_MODIFY_STATE, SYNCHRONIZE, EVENT_ALL_ACCESS},
          {kChangeRights, kTakeOver}};
}

Access FileAccess(const std::wstring& path, const ObjectKind& kind) {
  return NamedAccess(path, SE_FILE_OBJECT, kind);
}

Access MachineKeyAccess(const std::wstring& key, const ObjectKind& kind) {
  return NamedAccess(L"MACHINE\\" + key, SE_REGISTRY_KEY, kind);
}

Access ServiceAccess(SC_HANDLE service, const ObjectKind& kind) {
  DWORD size = 0;
  std::vector<BYTE> buffer(sizeof(SECURITY_DESCRIPTOR));
  while (!QueryServiceObjectSecurity(service, kWanted, buffer.data(),
                                     static_cast<DWORD>(buffer.size()), &size)) {
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER || size <= buffer.size()) {
      Access access;
      access.error = error;
      return access;
    }
    buffer.resize(size);
  }
  return ReadDescriptor(buffer.data(), kind);
}

Access KernelObjectAccess(HANDLE object, const ObjectKind& kind) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetSecurityInfo(object, SE_KERNEL_OBJECT, kWanted, nullptr, nullptr, nullptr,
                                      nullptr, &descriptor);
  return TakeDescriptor(error, descriptor, kind);
}

std::string ForeignText(const Access& access) {
  std::string text = access.hasNoList ? "everyone may do everything" : "";
  if (!access.isOwnerTrusted) {
    text += (text.empty() ? "" : "; ") + access.owner + " is the owner and may change the rights";
  }
  for (const std::string& right : access.foreignRights) {
    text += (text.empty() ? "" : "; ") + right;
  }
  return text;
}

const std::vector<Account>& NotedAccounts() { return Noted(); }

bool NoteAccount(const std::wstring& sid) {
  PSID binary = nullptr;
  if (!IsPersonal(sid) || !ConvertStringSidToSidW(sid.c_str(), &binary)) {
    return false;
  }
  const LocalMemory memory(binary);
  AccountName(binary);
  return true;
}

void NoteOwnAccount() { NoteAccount(OwnSidText()); }
