#!/usr/bin/env bash
# stage.sh FOLDER: puts what ships into FOLDER, as packaging/msi/build.sh and ./dist take it: bin (the
# programs), setup (the package's own actions) and the default settings.
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/environment.sh
folder=$1
build=build/mingw-release

# vorlhelper.exe is a sample for the makers of a helper process and does not ship.
programs=(vorlsrvc.exe vorldiag.exe vlevtlog.dll vorlmisc.dll vorlinfo.dll vorlcore.dll vorlupd.dll)

rm -rf "$folder"
mkdir -p "$folder/bin" "$folder/setup"
for program in "${programs[@]}"; do
  cp "$build/bin/$program" "$folder/bin"
done
cp "$build/tools/vorlsetup.dll" "$folder/setup"
cp packaging/vorlconf.ini "$folder/vorlconf.default.ini"
