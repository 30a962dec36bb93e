#include "companions/vorlmisc/folders.h"

#include "companions/common/protected_folder.h"
#include "companions/vorlmisc/misctrace.h"

namespace {

// Says why there is no folder.
void TraceFailure(const char* functionName, const FolderFailure& failure) noexcept {
  switch (failure.problem) {
    case FolderProblem::kNone:
      break;
    case FolderProblem::kCannotBeRead:
      TraceError(functionName, L"Registry value %s cannot be read (%u)", failure.valueName,
                 static_cast<unsigned>(failure.error));
      break;
    case FolderProblem::kNotFullPath:
      TraceError(functionName, L"Registry value %s is no full path: %s", failure.valueName,
                 failure.path);
      break;
    case FolderProblem::kNotOnDrive:
      TraceError(functionName, L"Registry value %s is no folder on a drive of this computer: %s",
                 failure.valueName, failure.path);
      break;
    case FolderProblem::kOnServer:
      TraceError(functionName, L"A link leads to another computer: %s", failure.path);
      break;
    case FolderProblem::kLinkUnknown:
      TraceError(functionName, L"The end of a link cannot be looked at (%u): %s",
                 static_cast<unsigned>(failure.error), failure.path);
      break;
    case FolderProblem::kTooLong:
      TraceError(functionName, L"Folder of %u characters is too long, at most %u: %s",
                 static_cast<unsigned>(failure.length), static_cast<unsigned>(kLongestFolder),
                 failure.path);
      break;
    case FolderProblem::kDoesNotExist:
      TraceError(functionName, L"Installation folder does not exist: %s", failure.path);
      break;
    case FolderProblem::kNoLibraryPath:
      TraceError(functionName, L"GetModuleFileName Failed %u",
                 static_cast<unsigned>(failure.error));
      break;
    case FolderProblem::kNoFolder:
      TraceError(functionName, L"Library has no folder: %s", failure.path);
      break;
  }
}

}  // namespace

bool FindRootFolder(const char* functionName, Folder& folder) noexcept {
  FolderFailure failure;
  const bool isFound = FindRootFolder(folder, failure) &&
                       RefuseLinkToServer(folder, L"vorlcore.dll", failure) &&
                       RefuseLinkToServer(folder, L"vorlupd.dll", failure);
  TraceFailure(functionName, failure);
  return isFound;
}

bool FindConfigFolder(const char* functionName, Folder& folder) noexcept {
  FolderFailure failure;
  if (!FindConfigFolder(folder, failure)) {
    TraceFailure(functionName, failure);
    return false;
  }
  const DWORD error = MakeProtectedFolder(folder.path);
  if (error != ERROR_SUCCESS) {
    TraceError(functionName, L"Configuration folder cannot be made (%u): %s",
               static_cast<unsigned>(error), folder.path);
    return false;
  }
  return true;
}
