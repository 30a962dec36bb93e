#!/usr/bin/env bash
# The installer package under Wine's installer, in a Wine of its own: install, rights, repair,
# upgrade, refused downgrade, removal, other folders, and every step failing. What Wine cannot show
# is listed in docs/installation.md ("What the tests do not show").
set -euo pipefail
WINEPREFIX=$PWD/build/package-test/wine
export WINEPREFIX
. cmake/environment.sh

work=build/package-test
state=build/mingw-release/tests/package/package_state.exe
programs="$WINEPREFIX/drive_c/Program Files/Client Agent 1"
key='HKLM\SOFTWARE\Client Agent\1'
setup_key='HKLM\SOFTWARE\Client Agent\Setup\1'
source_key='HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\Client Agent 1'
arp_key='HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall'
log="$WINEPREFIX/drive_c/setup.log"
helper=

cleanup() {
  [ -z "$helper" ] || kill "$helper" 2>/dev/null || true
  cmake/wine-server.sh stop >/dev/null 2>&1 || true
}
trap cleanup EXIT

fail() {
  echo "FAILED: $*" >&2
  [ ! -f "$log" ] || grep -a -v '^Property(' "$log" | tail -n 25 >&2
  exit 1
}

step() { echo "-- $*"; }

wine() { cmake/wine.sh "$@" </dev/null >"$work/output.txt" 2>&1; }

# setup ARGUMENT...: runs the installer silently; its status.
setup() {
  rm -f "$log"
  timeout 300 cmake/wine.sh msiexec "$@" /qn '/l*v' 'C:\setup.log' </dev/null >"$work/output.txt" 2>&1
}
refused() { # WHY ARGUMENT...: the installer must fail, and its log must say WHY
  local why=$1
  shift
  ! setup "$@" || fail "was not refused: $*"
  grep -a -qF -- "$why" "$log" || fail "the log does not say: $why"
}

expect_state() { # LINE: package_state's last answer has it
  tr -d '\r' <"$work/output.txt" | grep -qxF -- "$1" ||
    fail "expected '$1', got: $(cat "$work/output.txt")"
}
service_is() { # LINE...
  wine "$state" service
  local line
  for line in "$@"; do expect_state "$line"; done
}
running_in() { # FOLDER
  local command="$1\vorlsrvc.exe"
  case $1 in *' '*) command="\"$command\"" ;; esac
  service_is "command $command" "start 2" "state 4"
}
key_exists() { wine reg query "$1"; }
value_is() { # KEY NAME TEXT
  wine reg query "$1" /v "$2" || fail "$1 has no $2"
  tr -d '\r' <"$work/output.txt" | grep -qF "    $3" || fail "$1 $2: $(cat "$work/output.txt")"
}
mode_is() { # MODE FILE: what Wine keeps of rights: owner, and everybody
  [ "$(stat -c %a "$2")" = "$1" ] || fail "$2 has mode $(stat -c %a "$2"), not $1"
}
identifier() { tr -d '\r' <"$1/vorlconf.ini" | sed -n 's/^clientuniqueid=//p'; }

nothing_left() { # [FOLDER]: no service, no keys, no files
  service_is absent
  for name in "$key" "$setup_key" "$source_key" "$arp_key\\$product_code"; do
    ! key_exists "$name" || fail "$name is left"
  done
  [ ! -e "${1:-$programs}" ] || fail "left: $(find "${1:-$programs}")"
}

step "The package's tables"
packaging/stage.sh "$work/stage"
packaging/msi/build.sh "$work/stage" "$work/one.msi"
sleep 1.1 # a later second must not change a byte
packaging/msi/build.sh "$work/stage" "$work/again.msi"
cmp "$work/one.msi" "$work/again.msi" || fail "two packages of the same files differ"
printf 'changed' >>"$work/stage/vorlconf.default.ini"
packaging/msi/build.sh "$work/stage" "$work/next.msi" 1.0.1
property() { msiinfo export "$1" Property | tr -d '\r' | sed -n "s/^$2\t//p"; }
product_code=$(property "$work/one.msi" ProductCode)
[ "$product_code" != "$(property "$work/next.msi" ProductCode)" ] || fail "versions share a product code"
[ "$(property "$work/one.msi" UpgradeCode)" = "$(property "$work/next.msi" UpgradeCode)" ] ||
  fail "versions do not share the upgrade code"
# Else a file that was newer than that of the package would be missing after an upgrade.
[ "$(property "$work/one.msi" REINSTALLMODE)" = amus ] || fail "an upgrade may leave files out"
# Every action that changes the machine runs later, as the system (3072), and has its undoing before.
msiinfo export "$work/one.msi" CustomAction | tr -d '\r' |
  awk -F'\t' 'NR > 3 && $1 ~ /^Undo/ { if ($2 != 3329) exit 1; undone++ }
    NR > 3 && $1 ~ /^(Stop|Unregister|Prepare|Secure|Register|Start)/ { if ($2 != 3073) exit 1; done++ }
    END { exit undone == 4 && done == 6 ? 0 : 1 }' || fail "types of actions"
msiinfo export "$work/one.msi" File | awk -F'\t' '/\.(exe|dll)\t/ && $5 != "1.0.0.0" { exit 1 }' ||
  fail "a file without its version"

step "Install"
cmake/wine-server.sh start </dev/null >/dev/null 2>&1
# What an interrupted run may have left.
setup /x "$work/next.msi" REMOVECONFIG=1 || true
setup /x "$work/one.msi" REMOVECONFIG=1 || true
rm -rf "$programs" "$WINEPREFIX"/drive_c/{Agent,Settings,elsewhere}
wine "$state" free || true
setup /i "$work/one.msi" || fail "install"
running_in 'C:\Program Files\Client Agent 1'
for file in "$work"/stage/bin/*; do cmp "$file" "$programs/${file##*/}" || fail "$file"; done
[ ! -e "$programs/vorlhelper.exe" ] || fail "a sample is installed"
[ -f "$programs/conf/vorlconf.default.ini" ] || fail "no default settings"
first=$(identifier "$programs/conf")
[ ${#first} -eq 32 ] || fail "no identifier"
[ -z "$(find "$programs" -name setup.new)" ] || fail "a mark of the installation is left"
value_is "$key" RootDir 'C:\Program Files\Client Agent 1\'
value_is "$key" ConfigDir 'C:\Program Files\Client Agent 1\conf\'
value_is "$arp_key\\$product_code" DisplayName 'Client Agent 1'
value_is "$arp_key\\$product_code" DisplayVersion '1.0.0'
value_is "$arp_key\\$product_code" Publisher 'Client Agent maintainers'
key_exists "$source_key" || fail "no event source"
for folder in conf logs pending; do mode_is 750 "$programs/$folder"; done
wine "$state" key 'SOFTWARE\Client Agent\1'
expect_state 'D:(A;CI;KA;;;SY)(A;CI;KA;;;BA)'

step "Repair"
rm "$programs/vorlmisc.dll"
chmod 777 "$programs/conf" "$programs/logs"
printf '[TRACE]\r\nLevels=ALL\r\n' >>"$programs/conf/vorlconf.ini"
# What "/fomus" stands for, which Wine does not take.
setup /i "$work/one.msi" REINSTALL=ALL REINSTALLMODE=omus || fail "repair"
cmp "$work/stage/bin/vorlmisc.dll" "$programs/vorlmisc.dll" || fail "not repaired"
running_in 'C:\Program Files\Client Agent 1'
# Wine adds what the folder above hands down, which a protected list keeps out on Windows.
[ -z "$(find "$programs/conf" "$programs/logs" -maxdepth 0 -perm /o+w)" ] || fail "rights stay loose"
grep -q 'Levels=ALL' "$programs/conf/vorlconf.ini" || fail "a setting is lost"
[ "$(identifier "$programs/conf")" = "$first" ] || fail "another identifier"
grep -a -qF 'vorlsrvc.exe" -stop has run' "$log" || fail "not stopped by the program's command"

grep -a -qF 'could be changed by ordinary users' "$log" || fail "loose rights go unsaid"

step "Upgrade in place"
setup /i "$work/next.msi" || fail "upgrade"
running_in 'C:\Program Files\Client Agent 1'
cmp "$work/stage/vorlconf.default.ini" "$programs/conf/vorlconf.default.ini" || fail "old file"
[ "$(identifier "$programs/conf")" = "$first" ] || fail "another identifier"
grep -q 'Levels=ALL' "$programs/conf/vorlconf.ini" || fail "a setting is lost"
! key_exists "$arp_key\\$product_code" || fail "the old version is still listed"
grep -q 'CNTService::Uninstall' "$programs/logs/vorltrace.log" && fail "the registration was not kept"
key_exists "$arp_key\\$(property "$work/next.msi" ProductCode)" || fail "the new version is not listed"

step "Downgrade, and another folder, are refused"
# Wine does not log the message of a launch condition.
refused "LaunchConditions. Return value 0" /i "$work/one.msi"
running_in 'C:\Program Files\Client Agent 1'

step "Removal, with the helper pipe held by somebody who never answers"
cmake/wine.sh "$state" pipe </dev/null >"$work/pipe.txt" 2>&1 &
helper=$!
timeout 30 sh -c 'until grep -q held "$1"; do sleep 0.1; done' wait "$work/pipe.txt" || fail "no pipe"
setup /x "$work/next.msi" || fail "removal"
for word in -stopmanual -uninstall; do
  grep -a -qF "vorlsrvc.exe\" $word did not come to an end and was ended" "$log" ||
    fail "the pipe did not hold $word up"
done
kill "$helper" 2>/dev/null || true
helper=
service_is absent
[ "$(find "$programs" -type f)" = "$programs/conf/vorlconf.ini" ] || fail "left: $(find "$programs")"
for name in "$key" "$setup_key" "$source_key"; do ! key_exists "$name" || fail "$name is left"; done

step "A new installation takes the old configuration, and goes with it when asked"
setup /i "$work/one.msi" || fail "install again"
[ "$(identifier "$programs/conf")" = "$first" ] || fail "another identifier"
setup /x "$work/one.msi" REMOVECONFIG=1 || fail "removal"
grep -a -qF 'vorlsrvc.exe" -stopmanual has run' "$log" || fail "not stopped by the program's command"
grep -a -qF 'vorlsrvc.exe" -uninstall has run' "$log" || fail "not removed by the program's command"
nothing_left

step "Other folders"
setup /i "$work/one.msi" 'INSTALLDIR=C:\Agent\Program' 'CONFIGDIR=C:\Settings' || fail "install"
running_in 'C:\Agent\Program'
value_is "$key" RootDir 'C:\Agent\Program\'
value_is "$key" ConfigDir 'C:\Settings\'
[ -f "$WINEPREFIX/drive_c/Settings/vorlconf.ini" ] || fail "the configuration lies elsewhere"
mode_is 750 "$WINEPREFIX/drive_c/Settings"
refused "remove it first to install it elsewhere" /i "$work/next.msi" 'INSTALLDIR=C:\elsewhere'
running_in 'C:\Agent\Program'
setup /i "$work/next.msi" || fail "upgrade"
running_in 'C:\Agent\Program'
setup /x "$work/next.msi" REMOVECONFIG=1 || fail "removal"
nothing_left "$WINEPREFIX/drive_c/Agent/Program"
[ ! -e "$WINEPREFIX/drive_c/Settings" ] || fail "the configuration folder is left"

step "Failures before anything is changed"
refused 'is not a folder on a fixed disk' /i "$work/one.msi" 'INSTALLDIR=\\server\share\agent'
refused 'is too long' /i "$work/one.msi" "INSTALLDIR=C:\\$(printf 'x%.0s' $(seq 245))"
refused 'the configuration needs its own folder' /i "$work/one.msi" \
  'INSTALLDIR=C:\Agent\Program' 'CONFIGDIR=C:\Agent'
nothing_left

step "Failure: somebody else's link is where a folder must be"
mkdir -p "$WINEPREFIX/drive_c/elsewhere" "$programs"
echo precious >"$WINEPREFIX/drive_c/elsewhere/file"
printf x >"$programs/pending" # a file; Wine shows links as what they lead to
refused 'is a file or a link, not a folder' /i "$work/one.msi"
rm "$programs/pending"
service_is absent
rm -rf "$programs"

step "Failure: a folder that everybody may fill is not empty"
mkdir -p "$programs"
echo planted >"$programs/version.dll"
chmod 777 "$programs"
refused 'cannot be trusted' /i "$work/one.msi"
service_is absent
[ -f "$programs/version.dll" ] || fail "somebody's file is gone"
rm -rf "$programs"

step "Failure: a file cannot be put in place"
mkdir -p "$programs/vorlinfo.dll"
! setup /i "$work/one.msi" || fail "installed over a folder"
service_is absent
[ ! -e "$programs/conf" ] && [ ! -e "$programs/logs" ] || fail "left: $(find "$programs")"
rm -rf "$programs"

step "Failure: the service cannot be registered"
wine "$state" occupy "Client Agent 1" || fail "occupy"
refused 'is not registered for this folder' /i "$work/one.msi"
wine "$state" free || fail "free"
service_is absent
[ ! -e "$programs/conf" ] && [ ! -e "$programs/logs" ] || fail "left: $(find "$programs")"

step "Failure: the service does not stay up, and all is undone"
mkdir -p "$programs/conf/vorlconf.ini" # a folder: the options cannot be read
refused 'does not start, or not for long' /i "$work/one.msi"
service_is absent
! key_exists "$source_key" || fail "the event source is left"
[ -d "$programs/conf/vorlconf.ini" ] || fail "a folder that was there before is gone"
[ ! -e "$programs/logs" ] && [ ! -e "$programs/pending" ] || fail "left: $(find "$programs")"
rm -rf "$programs"
echo "passed"
