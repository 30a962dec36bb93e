#!/usr/bin/env bash
# build.sh FOLDER OUT.msi [VERSION]: makes the package from FOLDER/bin (the programs), FOLDER/setup
# (vorlsetup.dll) and FOLDER/vorlconf.default.ini. The same files give the same bytes. VERSION is that
# of CMakeLists.txt unless given (a test builds an upgrade).
set -euo pipefail
packaging=$(cd "$(dirname "$0")" && pwd)
. "$packaging/../../cmake/environment.sh"
folder=$(cd "$1" && pwd)
out=$(realpath "$2")
project=$packaging/../../CMakeLists.txt
version=${3:-$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' "$project")}
company=$(sed -n 's/^set(VORL_COMPANY "\([^"]*\)".*/\1/p' "$project")
major=${version%%.*}

# The upgrade code belongs to a major version, the product code to a version, and the package code
# to the very bytes: each is a digest, in the form of a GUID, of what it stands for.
guid() { # TEXT
  printf '%s' "$1" | sha256sum | tr 'a-f' 'A-F' |
    sed -E 's/^(.{8})(.{4}).(.{3}).(.{3})(.{12}).*/\1-\2-5\3-A\4-\5/'
}
upgrade_code=$(guid "client agent $major")
product_code=$(guid "client agent $version")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$folder/bin" "$folder/setup" "$folder/vorlconf.default.ini" "$work"
# wixl warns of this attribute; what it asks for is added below.
sed 's/ Secure="yes"//' "$packaging/client-agent.wxs" >"$work/client-agent.wxs"
# The cabinet holds the files' times.
find "$work" -exec touch -d '2020-01-01 00:00:00' {} +
cd "$work"
package_code=$(guid "$product_code $(find . -type f | sort | xargs sha256sum | sha256sum)")

# The summary holds the time of its making.
faketime -f '2020-01-01 00:00:00' wixl -a x64 -D Version="$version" -D Major="$major" \
  -D ServiceName="Client Agent $major" -D Company="$company" \
  -D ProductCode="$product_code" -D UpgradeCode="$upgrade_code" -o package.msi client-agent.wxs

change() { msibuild package.msi -q "$1"; }
# What wixl does not know: actions that run later, and as the system.
for action in StopAgent UnregisterAgent PrepareFolders SecureKey RegisterAgent StartAgent; do
  change "UPDATE CustomAction SET Type=3073 WHERE Action='$action'"
done
for action in UndoStopAgent UndoUnregisterAgent UndoPrepareFolders UndoRegisterAgent; do
  change "UPDATE CustomAction SET Type=3329 WHERE Action='$action'"
done
for action in KeepFolders RemoveData; do
  change "UPDATE CustomAction SET Type=3649 WHERE Action='$action'" # and its result ignored
done
change "UPDATE CustomAction SET Type=1 WHERE Action='CheckInstallation'"
secure='OLDERVERSION;NEWERVERSION;OLDINSTALLDIR;OLDCONFIGDIR;REMOVECONFIG'
change "UPDATE Property SET Value='$secure' WHERE Property='SecureCustomProperties'"
change "UPDATE Feature SET Attributes=24 WHERE Feature='Agent'"
# A file with a version is replaced by one of a higher version, not by comparing bytes.
for file in bin/*; do
  change "UPDATE File SET Version='$version.0' WHERE File='${file#bin/}'"
  change "UPDATE File SET Language='1033' WHERE File='${file#bin/}'"
  change "DELETE FROM MsiFileHash WHERE File_='${file#bin/}'"
done
faketime -f '2020-01-01 00:00:00' msibuild package.msi -s "Client Agent $version" "$company" \
  'x64;1033' "{$package_code}"
mv package.msi "$out"
