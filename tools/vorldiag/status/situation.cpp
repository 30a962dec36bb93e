#include "tools/vorldiag/status/situation.h"

Situation FindSituation() {
  Situation situation;
  situation.ownFolder = OwnFolder();
  situation.names = FindNames(situation.ownFolder);
  situation.programFolder = situation.ownFolder;

  situation.openError = situation.service.Open(situation.names.service);
  if (situation.openError == ERROR_SUCCESS) {
    Registration registration;
    situation.readError = situation.service.Read(registration);
    if (situation.readError == ERROR_SUCCESS) {
      const std::wstring program = ProgramOf(registration.command);
      if (Exists(program) && program.find(L'\\') != std::wstring::npos) {
        situation.programFolder = program.substr(0, program.find_last_of(L'\\'));
      }
      situation.registration = std::move(registration);
    }
    SERVICE_STATUS_PROCESS state{};
    if (situation.service.Read(state) == ERROR_SUCCESS) {
      situation.state = state;
    }
  }
  situation.root = InstallationFolder(situation.programFolder);
  situation.configuration = ConfigurationFolder(situation.programFolder);
  return situation;
}
