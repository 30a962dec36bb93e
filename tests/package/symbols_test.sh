#!/usr/bin/env bash
# Debug files belong to the binaries that ship, and a crash report leads to the line: a library that
# writes to address 0 is put beside vorlsrvc.exe, the debugger's report is taken as it comes, and the
# place in vorlsrvc.exe must be the call of that library in main.
set -euo pipefail
BASH_ARGV0=cmake/wine.sh # the scripts there find each other by it
. cmake/wine-env.sh

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

bin=build/mingw-release/bin
folder=build/mingw-release/tests/package/crash
symbols=build/mingw-release/symbols

for binary in "$bin"/*.exe "$bin"/*.dll; do
  name=${binary##*/}
  id=$(packaging/build-id.sh "$binary" | cut -d' ' -f1)
  [ "$(packaging/build-id.sh "$symbols/$name.debug" | cut -d' ' -f1)" = "$id" ] ||
    fail "the debug file of $name has another identifier"
  [ "$(x86_64-w64-mingw32-objdump -h "$binary" | grep -c '\.debug')" -eq 0 ] ||
    fail "$name ships debug information"
done
[ "$(packaging/build-id.sh "$bin"/*.exe "$bin"/*.dll | cut -d' ' -f1 | sort | uniq -d)" = "" ] ||
  fail "two binaries have one identifier"
! grep -qaF "$PWD" "$symbols"/*.debug || fail "a debug file names the folder it was built in"

# The crash. Wine's debugger, which wine-env.sh switches off, is the one who reports it.
cp "$bin/vorlsrvc.exe" "$bin/vlevtlog.dll" "$bin/vorlmisc.dll" "$folder"
cmake/wine-server.sh start </dev/null >/dev/null 2>&1
WINEDLLOVERRIDES="mscoree,mshtml="
timeout 120 $WINE_LAUNCHER "$WINE_LOADER" winedbg --command "cont
bt
quit" "$folder/vorlsrvc.exe" -stop </dev/null >"$folder/report.txt" 2>&1 || true
grep -q "page fault on write access to 0x0000000000000000" "$folder/report.txt" ||
  fail "no crash: $(cat "$folder/report.txt")"
return_address=$(sed -n 's/.*in vorlsrvc (+0x\([0-9a-f]*\)).*/\1/p' "$folder/report.txt" | head -n 1)
[ -n "$return_address" ] || fail "vorlsrvc is not on the stack: $(cat "$folder/report.txt")"

# A return address is behind the call: one byte less lies inside it.
call=$(printf '%x' $((16#$return_address - 1)))
place=$(BINARY="$bin/vorlsrvc.exe" packaging/find-line.sh "$symbols/vorlsrvc.exe.debug" "0x$call")
echo "vorlsrvc+0x$call: $place"
[[ $place =~ ^main\ at\ (\./)?(app/vorlsrvc\.cpp):([0-9]+)$ ]] || fail "not a line of main: $place"
sed -n "${BASH_REMATCH[3]}p" "${BASH_REMATCH[2]}" | grep -q GetServiceNameByVersion ||
  fail "line ${BASH_REMATCH[3]} does not call the library"

if BINARY="$bin/vorldiag.exe" packaging/find-line.sh "$symbols/vorlsrvc.exe.debug" 0x1000 \
  2>/dev/null; then
  fail "a debug file is taken for another binary's"
fi
echo "passed"
