#!/usr/bin/env bash
# What cmake/wine.sh makes of programs that do not end as they should, with a Wine of the test's own.
set -euo pipefail
cd "$(dirname "$0")/../.."
. cmake/environment.sh

work=$(mktemp -d)
export WINEPREFIX=$work/wine VORL_EMPTY_STARTS=$work/empty-starts
still_running() { grep -lsF "$work/running" /proc/[0-9]*/cmdline; }
cleanup() {
  still_running | cut -d / -f 3 | xargs -r kill -KILL || true
  cmake/wine-server.sh stop >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
cmake/wine-server.sh start

# ended STATUS STARTS OUTPUT ARGUMENT...: run with these arguments, it ends with STATUS, has said
# OUTPUT and has counted so many empty starts.
ended() {
  local status=0 said
  said=$(cmake/wine.sh "${@:4}" | cat; exit "${PIPESTATUS[0]}") || status=$?
  [ "$status" -eq "$1" ] || fail "${*:4}: status $status, not $1: $said"
  [ "$(tr -d '\r\n' <<<"$said")" = "$3" ] || fail "${*:4}: said '$said', not '$3'"
  [ "$(cat "$VORL_EMPTY_STARTS" 2>/dev/null | wc -l)" -eq "$2" ] || fail "${*:4}: not $2 empty starts"
  rm -f "$VORL_EMPTY_STARTS"
}
ended 3 0 '' cmd /c exit 3
ended 1 0 '' cmd /c exit 1
ended 1 0 'begun' --must-speak cmd /c 'echo begun& exit 1'
ended 3 0 '' --must-speak cmd /c exit 3
ended 1 1 '' --must-speak cmd /c exit 1
# It begins at the second time only.
ended 0 1 'begun' --must-speak cmd /c \
  "if exist Z:$work/once (echo begun) else (echo 1 >Z:$work/once& exit 1)"

# A program that loses Wine's server is ended, with all that it has started.
mkfifo "$work/output"
cat "$work/output" >"$work/said" &
cmake/wine.sh cmd /c "echo 1 >Z:$work/running& for /l %i in (1,0,2) do rem" >"$work/output" &
runner=$!
until [ -s "$work/running" ]; do
  kill -0 "$runner" 2>/dev/null || fail "the program has not begun: $(cat "$work/said")"
  sleep 0.1
done
bash -c '. cmake/wine-env.sh && "$WINE_SERVER" -k9' cmake/wine.sh
timeout 120 tail --pid="$runner" -f /dev/null || fail "the program runs on without the server"
status=0
wait "$runner" || status=$?
[ "$status" -eq 97 ] || fail "status $status: $(cat "$work/said")"
grep -qx 'WINE: its server ended while the program ran' "$work/said" || fail "$(cat "$work/said")"
! still_running || fail "something of it runs on"
echo "passed"
