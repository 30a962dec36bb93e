// Access lists that Wine does not keep, given by the functions that read them.
#include "tools/vorldiag/status/rightscheck.h"

#include <aclapi.h>
#include <gmock/gmock.h>
#include <sddl.h>

#include <cstring>
#include <map>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorldiag/finding_of.h"
#include "tools/vorldiag/machine/rights.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr wchar_t kAdministratorsOnly[] = L"O:BAG:BAD:P(A;;GA;;;SY)(A;;GA;;;BA)";

// An answer of Windows: a descriptor as text, or an error.
struct Answer {
  std::wstring text = kAdministratorsOnly;
  DWORD error = ERROR_SUCCESS;
};

PSECURITY_DESCRIPTOR Descriptor(const std::wstring& text) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                                   &descriptor, nullptr));
  return descriptor;
}

class Rights : public ::testing::Test {
 protected:
  Rights() {
    situation.programFolder = folder.Path().wstring();
    situation.root.path = situation.programFolder;
    situation.configuration.path = situation.programFolder + L"\\conf";
    situation.names.service = "Client Agent 1";
  }

  Finding Look(const std::string& id) const { return FindingOf(CheckRights(situation), id); }

  // What is said of the program's folder with this list.
  Finding FolderWith(const std::wstring& text) {
    named[situation.programFolder] = {text};
    return Look("rights-program");
  }
  // The rights in a list of a folder that are foreign.
  std::vector<std::string> Foreign(const std::wstring& entries) {
    named[L"X"] = {L"O:BAG:BAD:P" + entries};
    return FileAccess(L"X", FolderKind()).foreignRights;
  }

  const TempFolder folder;
  Situation situation;
  std::map<std::wstring, Answer> named;
  Answer service;

  CallPatch<struct NamedTag, DWORD WINAPI(wchar_t*, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID*,
                                          PSID*, PACL*, PACL*, PSECURITY_DESCRIPTOR*)>
      readNamed{"ADVAPI32.dll", "GetNamedSecurityInfoW",
                [this](wchar_t* name, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID*, PSID*, PACL*,
                       PACL*, PSECURITY_DESCRIPTOR* descriptor) {
                  const Answer& answer = named[name];
                  *descriptor = answer.error == ERROR_SUCCESS ? Descriptor(answer.text) : nullptr;
                  return answer.error;
                }};
  CallPatch<struct ServiceTag, BOOL WINAPI(SC_HANDLE, SECURITY_INFORMATION, void*, DWORD, DWORD*)>
      readService{"ADVAPI32.dll", "QueryServiceObjectSecurity",
                  [this](SC_HANDLE, SECURITY_INFORMATION, void* buffer, DWORD size, DWORD* needed) {
                    if (service.error != ERROR_SUCCESS) {
                      *needed = 0;
                      SetLastError(service.error);
                      return FALSE;
                    }
                    const LocalMemory memory(Descriptor(service.text));
                    *needed = GetSecurityDescriptorLength(memory.Get());
                    if (size < *needed) {
                      SetLastError(ERROR_INSUFFICIENT_BUFFER);
                      return FALSE;
                    }
                    std::memcpy(buffer, memory.Get(), *needed);
                    return TRUE;
                  }};
};

TEST_F(Rights, OfAdministratorsAndTheSystemAreRight) {
  for (const Finding& finding : CheckRights(situation).findings) {
    EXPECT_EQ(finding.verdict, Verdict::kOk) << finding.id << ": " << finding.value;
  }
}

TEST_F(Rights, OfOthersAreNamedWithTheWayToTakeThemAway) {
  const Finding finding = FolderWith(L"O:BAG:BAD:P(A;;GA;;;SY)(A;;GA;;;WD)");
  EXPECT_EQ(finding.verdict, Verdict::kError);
  EXPECT_THAT(finding.value,
              EndsWith(" may write, delete what is inside, delete, change the rights, become the "
                       "owner"));
  EXPECT_THAT(finding.advice, HasSubstr("icacls \"" + folder.Path().string() +
                                        "\" /reset, then "
                                        "icacls \"" +
                                        folder.Path().string() + "\" /inh"));
  EXPECT_THAT(finding.advice, EndsWith(" *S-1-5-32-545:(OI)(CI)RX"));
  // Users need not read the settings.
  named[situation.configuration.path] = {L"O:BAG:BAD:P(A;;GA;;;WD)"};
  EXPECT_THAT(Look("rights-config").advice, EndsWith("*S-1-5-32-544:(OI)(CI)F"));
}

TEST_F(Rights, WithoutAListAreEveryones) {
  EXPECT_THAT(FolderWith(L"O:BAG:BA").value, EndsWith(": everyone may do everything"));
}

TEST_F(Rights, OfAForeignOwnerAreAllRights) {
  const Finding finding = FolderWith(L"O:S-1-5-21-1-2-3-1001G:BAD:P(A;;GA;;;SY)(A;;SD;;;WD)");
  EXPECT_EQ(finding.verdict, Verdict::kError);
  EXPECT_THAT(finding.value,
              HasSubstr("S-1-5-21-1-2-3-1001 is the owner and may change the rights; "));
  EXPECT_THAT(finding.value, EndsWith(" may delete"));
}

TEST_F(Rights, ThatCannotBeReadAreNotCalledRight) {
  named[situation.programFolder].error = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Look("rights-program").verdict, Verdict::kWarning);
  EXPECT_THAT(Look("rights-program").value, HasSubstr(": rights cannot be read, error 5"));
  for (const DWORD missing :
       std::initializer_list<DWORD>{ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND}) {
    named[situation.programFolder].error = missing;
    EXPECT_EQ(Look("rights-program").verdict, Verdict::kOk);
    EXPECT_THAT(Look("rights-program").value, EndsWith(" does not exist"));
  }
}

TEST_F(Rights, ThatAreDeniedFirstAreNotGranted) {
  EXPECT_THAT(Foreign(L"(D;;FA;;;WD)(A;;FA;;;WD)"), IsEmpty());
  EXPECT_THAT(Foreign(L"(D;;0x000D0000;;;WD)(A;;FA;;;WD)"),
              ElementsAre(EndsWith(" may write, delete what is inside")));
  // The order of the list decides, and each account has its own.
  EXPECT_THAT(Foreign(L"(A;;SD;;;WD)(D;;FA;;;WD)"), ElementsAre(EndsWith(" may delete")));
  EXPECT_THAT(Foreign(L"(D;;FA;;;BU)(A;;SD;;;WD)"), ElementsAre(EndsWith(" may delete")));
  // What only new files inherit is not denied here.
  EXPECT_THAT(Foreign(L"(D;OIIO;FA;;;WD)(A;;SD;;;WD)"), ElementsAre(EndsWith(" may delete")));
  // One account, several entries.
  EXPECT_THAT(Foreign(L"(A;;SD;;;WD)(A;;WD;;;WD)"),
              ElementsAre(EndsWith(" may delete, change the rights")));
}

TEST_F(Rights, OfWhoeverMakesAFileAreHisInNewFilesOnly) {
  EXPECT_THAT(Foreign(L"(A;OICIIO;GA;;;CO)(A;OICIIO;GA;;;CG)"), IsEmpty());
  EXPECT_THAT(Foreign(L"(A;;SD;;;CO)"), ElementsAre(EndsWith(" may delete")));
  EXPECT_THAT(Foreign(L"(A;OICIIO;SD;;;WD)"), ElementsAre(EndsWith(" may delete")));
}

TEST_F(Rights, ToReadAreNobodysBusiness) { EXPECT_THAT(Foreign(L"(A;OICI;GRGX;;;BU)"), IsEmpty()); }

TEST_F(Rights, OfADomainsAdministratorsAreTrusted) {
  for (const wchar_t* const sid :
       {L"S-1-5-21-1-2-3-500", L"S-1-5-21-1-2-3-512", L"S-1-5-21-1-2-3-519", L"S-1-3-4",
        L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464"}) {
    EXPECT_THAT(Foreign(std::wstring(L"(A;;GA;;;") + sid + L")"), IsEmpty()) << sid;
  }
  for (const wchar_t* const sid :
       {L"S-1-5-21-1-2-3-513", L"S-1-5-22-1-2-3-500", L"S-1-12-1-2-512"}) {
    EXPECT_THAT(Foreign(std::wstring(L"(A;;SD;;;") + sid + L")"), Not(IsEmpty())) << sid;
  }
}

TEST_F(Rights, OfAnInstallationFolderElsewhereAreLookedAt) {
  EXPECT_EQ(Look("rights-root").id, "");
  situation.root.path = L"D:\\Agent";
  EXPECT_EQ(Look("rights-root").value, "D:\\Agent: administrators and the system only");
  EXPECT_EQ(Look("rights-pending").value, "D:\\Agent\\pending: administrators and the system only");
  situation.root.path.clear();
  situation.configuration.path.clear();
  for (const char* const id : {"rights-root", "rights-pending", "rights-config"}) {
    EXPECT_EQ(Look(id).id, "") << id;
  }
  EXPECT_EQ(Look("rights-files").value, "6 files: administrators and the system only");
}

TEST_F(Rights, OfFilesAreNamedOneByOneWhereTheyAreWrong) {
  EXPECT_EQ(Look("rights-files").value, "9 files: administrators and the system only");
  const std::wstring program = situation.programFolder + L"\\vorlsrvc.exe";
  named[program] = {L"O:BAG:BAD:P(A;;FW;;;WD)"};
  EXPECT_EQ(Look("rights-vorlsrvc").id, "");  // there is none
  WriteBytes(folder.File("vorlsrvc.exe"), {});
  EXPECT_EQ(Look("rights-vorlsrvc").verdict, Verdict::kError);
  EXPECT_THAT(Look("rights-vorlsrvc").value, EndsWith("\\vorlsrvc.exe: Everyone may write"));
  EXPECT_EQ(Look("rights-files").value, "8 files: administrators and the system only");
  named[program].error = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Look("rights-vorlsrvc").verdict, Verdict::kWarning);
}

TEST_F(Rights, ToTheServiceAreLookedAtWhenItIsThere) {
  service.text = L"O:BAG:BAD:P(A;;DC;;;WD)";
  EXPECT_EQ(Look("rights-service").verdict, Verdict::kError);
  EXPECT_THAT(Look("rights-service").value, EndsWith(" may change the registration"));
  service.text = L"O:BAG:BAD:P(A;;CCLCSWRPLO;;;BU)";
  EXPECT_EQ(Look("rights-service").verdict, Verdict::kOk);
  service.error = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Look("rights-service").verdict, Verdict::kWarning);
  EXPECT_EQ(Look("rights-controls").verdict, Verdict::kWarning);
  EXPECT_THAT(Look("rights-controls").value, HasSubstr("rights cannot be read, error 5"));
  situation.openError = ERROR_SERVICE_DOES_NOT_EXIST;
  EXPECT_EQ(Look("rights-service").id, "");
  EXPECT_EQ(Look("rights-service-key").id, "");
}

TEST_F(Rights, ToSendControlsAreAWarning) {
  EXPECT_EQ(Look("rights-controls").verdict, Verdict::kOk);
  service.text = L"O:BAG:BAD:P(A;;CR;;;IU)(A;;CR;;;SU)";
  const Finding finding = Look("rights-controls");
  EXPECT_EQ(finding.verdict, Verdict::kWarning);
  EXPECT_THAT(finding.value, HasSubstr(" may send them; "));
  service.text = L"O:BAG:BA";
  EXPECT_EQ(Look("rights-controls").value, "everyone may send them");
}

TEST_F(Rights, OfTheKeysAreThoseToWrite) {
  named[L"MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Client Agent 1"] = {
      L"O:BAG:BAD:P(A;;KW;;;WD)"};
  EXPECT_EQ(Look("rights-service-key").verdict, Verdict::kError);
  EXPECT_THAT(Look("rights-service-key").advice,
              HasSubstr("leave writing SYSTEM\\CurrentControlSet\\Services\\Client Agent 1 to"));
  named[L"MACHINE\\SOFTWARE\\Client Agent\\1"].error = ERROR_FILE_NOT_FOUND;
  EXPECT_THAT(Look("rights-installation-key").value, EndsWith(" does not exist"));
}

// Entries of a kind that gives nothing, and of one that gives it under a condition.
TEST_F(Rights, OfConditionalEntriesCountAndThoseOfOtherKindsDoNot) {
  BYTE type = ACCESS_ALLOWED_CALLBACK_ACE_TYPE;
  const CallPatch<struct AceTag, BOOL WINAPI(PACL, DWORD, void**)> read(
      "ADVAPI32.dll", "GetAce", [&](PACL list, DWORD index, void** entry) {
        const BOOL isRead = read.CallOriginal(list, index, entry);
        static_cast<ACE_HEADER*>(*entry)->AceType = type;
        return isRead;
      });
  EXPECT_THAT(Foreign(L"(A;;SD;;;WD)"), ElementsAre(EndsWith(" may delete")));
  type = SYSTEM_AUDIT_ACE_TYPE;
  EXPECT_THAT(Foreign(L"(A;;SD;;;WD)"), IsEmpty());
}

TEST_F(Rights, OfAnEntryThatCannotBeReadAreLeftOut) {
  const CallPatch<struct AceTag, BOOL WINAPI(PACL, DWORD, void**)> read(
      "ADVAPI32.dll", "GetAce", [&](PACL list, DWORD index, void** entry) {
        return index != 0 && read.CallOriginal(list, index, entry);
      });
  EXPECT_THAT(Foreign(L"(A;;GA;;;WD)(A;;SD;;;BU)"), ElementsAre(EndsWith(" may delete")));
}

TEST_F(Rights, WithoutAListAndOfAForeignOwnerAreBothNamed) {
  EXPECT_THAT(FolderWith(L"O:S-1-5-21-1-2-3-1001G:BA").value,
              EndsWith(": everyone may do everything; S-1-5-21-1-2-3-1001 is the owner and may "
                       "change the rights"));
}

// A size that says nothing must not be asked for again and again.
TEST_F(Rights, OfAServiceWhoseListHasNoSizeAreUnknown) {
  service.error = ERROR_INSUFFICIENT_BUFFER;
  EXPECT_THAT(Look("rights-service").value, HasSubstr(": rights cannot be read, error 122"));
}

TEST_F(Rights, AreThoseOfTheAccountsThatWindowsNames) {
  std::wstring domain = L"FIRST";
  std::wstring name = L"jane";
  const CallPatch<struct AccountTag, BOOL WINAPI(const wchar_t*, void*, wchar_t*, DWORD*, wchar_t*,
                                                 DWORD*, SID_NAME_USE*)>
      lookup("ADVAPI32.dll", "LookupAccountSidW",
             [&](const wchar_t*, void*, wchar_t* account, DWORD*, wchar_t* place, DWORD*,
                 SID_NAME_USE*) {
               account[name.copy(account, name.size())] = L'\0';
               place[domain.copy(place, domain.size())] = L'\0';
               return TRUE;
             });
  const wchar_t entries[] = L"(A;;SD;;;S-1-5-21-1-2-3-1001)";
  const std::size_t before = NotedAccounts().size();
  EXPECT_THAT(Foreign(entries), ElementsAre("FIRST\\jane may delete"));
  EXPECT_THAT(Foreign(entries), ElementsAre("FIRST\\jane may delete"));
  domain = L"SECOND";
  EXPECT_THAT(Foreign(entries), ElementsAre("SECOND\\jane may delete"));
  domain = L"";
  EXPECT_THAT(Foreign(entries), ElementsAre("jane may delete"));
  // Each once, and only those that are not the same on every computer.
  EXPECT_THAT(Foreign(L"(A;;SD;;;WD)"), ElementsAre("jane may delete"));
  EXPECT_EQ(NotedAccounts().size(), before + 3);
  name = L"";
  EXPECT_THAT(Foreign(entries), ElementsAre("S-1-5-21-1-2-3-1001 may delete"));
  EXPECT_EQ(NotedAccounts().size(), before + 3);
}

}  // namespace
